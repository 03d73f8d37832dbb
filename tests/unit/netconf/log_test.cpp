// Log lines, among them the last one of a session that ends by a signal.
#include "services/netconf/log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;

namespace {

// The end of a process that ran `body`.
struct Ending {
    int status;  // -1: killed by a signal
    std::string standard_error;
    std::string system_log;  // one datagram
    pid_t pid;
};

class Log : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        netconf::log_as("");
    }

    template <typename Body>
    Ending run(Body body) {
        const int system_log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        snprintf(address.sun_path, sizeof address.sun_path, "%s", folder_.path("log").c_str());
        EXPECT_EQ(bind(system_log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            put_system_log_at(folder_.path("log"));
            dup2(ends[1], STDERR_FILENO);
            body();
            _exit(99);
        }
        close(ends[1]);
        int status = 0;
        waitpid(pid, &status, 0);
        Ending ending{.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                      .standard_error = drained(ends[0]),
                      .system_log = {},
                      .pid = pid};
        std::array<char, 1024> line;
        const ssize_t length = recv(system_log, line.data(), line.size(), MSG_DONTWAIT);
        ending.system_log.assign(line.data(), length < 0 ? 0 : static_cast<size_t>(length));
        close(ends[0]);
        close(system_log);
        unlink(folder_.path("log").c_str());
        return ending;
    }

    static std::string drained(int fd) {
        std::string text;
        std::array<char, 1024> piece;
        for (ssize_t length; (length = ::read(fd, piece.data(), piece.size())) > 0;) {
            text.append(piece.data(), static_cast<size_t>(length));
        }
        return text;
    }

    Folder folder_;
};

TEST_F(Log, LineNamesItsSessionOnceThatIsKnown) {
    netconf::log_line(LOG_ERR, "no %s", "name");
    netconf::log_as("session 7 (admin)");
    netconf::log_line(LOG_WARNING, "%d of %s", 2, "them");
    EXPECT_EQ(logged(), (std::vector<LogLine>{{LOG_ERR, "no name"},
                                              {LOG_WARNING, "session 7 (admin): 2 of them"}}));
}

TEST_F(Log, NobodyWritesLinesOfTheirOwn) {
    netconf::log_line(LOG_INFO, "%s", "a\nb\r\tc\x1b[2J\x7f\x80\xff\x01 ~");
    EXPECT_EQ(logged_texts(), std::vector<std::string>{"a b??c?[2J???? ~"});
    netconf::log_line(LOG_INFO, "%s", "%s%n");
    EXPECT_EQ(logged_texts().back(), "%s%n");
}

TEST_F(Log, LongLineIsCut) {
    netconf::log_line(LOG_INFO, "%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(logged_texts(), std::vector<std::string>{std::string(511, 'x')});
}

TEST_F(Log, OpensAsItselfAndOnStandardErrorOnlyWhenAsked) {
    netconf::open_log(false);
    EXPECT_EQ(log_opening().identity, "lda-netconf");
    EXPECT_EQ(log_opening().options, LOG_PID);
    EXPECT_EQ(log_opening().facility, LOG_DAEMON);
    netconf::open_log(true);
    EXPECT_EQ(log_opening().options, LOG_PID | LOG_PERROR);
}

TEST_F(Log, EverySignalThatEndsASessionLeavesOneLine) {
    struct Case {
        int signal;
        int status;
        int level;  // facility daemon is 24
        std::string text;
    };
    const std::vector<Case> cases{
        {SIGTERM, 0, 29, "terminated from outside"},
        {SIGHUP, 0, 29, "terminated from outside"},
        {SIGINT, 0, 29, "terminated from outside"},
        {SIGALRM, 1, 28, "ended: a message took too long, or nobody reads"},
        {SIGSEGV, 1, 27, "ended: a message broke the parser (memory)"},
        {SIGBUS, 1, 27, "ended: a message broke the parser (bus)"},
        {SIGABRT, 1, 27, "ended: a message broke the parser (abort)"},
        {SIGFPE, 1, 27, "ended: a message broke the parser (arithmetic)"},
        {SIGILL, 1, 27, "ended: a message broke the parser (instruction)"},
    };
    for (const Case& expected : cases) {
        const Ending ending = run([&] {
            netconf::open_log(true);
            netconf::log_as("session 7 (admin)");
            netconf::log_fatal_signals();
            raise(expected.signal);
        });
        const std::string line =
            "lda-netconf[" + std::to_string(ending.pid) + "]: session 7 (admin): " + expected.text;
        EXPECT_EQ(ending.status, expected.status) << expected.text;
        EXPECT_EQ(ending.standard_error, line + "\n");
        EXPECT_EQ(ending.system_log, "<" + std::to_string(expected.level) + ">" + line);
    }
}

TEST_F(Log, SignalLineStaysOutOfStandardErrorUnlessAsked) {
    const Ending ending = run([] {
        netconf::open_log(false);
        netconf::log_as("session 7 (admin)");
        netconf::log_fatal_signals();
        raise(SIGTERM);
    });
    EXPECT_EQ(ending.standard_error, "");
    EXPECT_EQ(ending.status, 0);
    EXPECT_NE(ending.system_log.find("terminated from outside"), std::string::npos);
}

TEST_F(Log, SignalLineNeedsNoSystemLog) {
    const Ending ending = run([] {
        put_system_log_at("");
        netconf::open_log(true);
        netconf::log_as("session 7 (admin)");
        netconf::log_fatal_signals();
        raise(SIGTERM);
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_NE(ending.standard_error.find("terminated from outside\n"), std::string::npos);
    EXPECT_EQ(ending.system_log, "");
}

TEST_F(Log, ArmingAgainTakesTheNewName) {
    const Ending ending = run([] {
        netconf::open_log(true);
        netconf::log_as("early");
        netconf::log_fatal_signals();
        netconf::log_as("session 7 (" + std::string(1000, 'x') + ")");
        netconf::log_fatal_signals();
        raise(SIGTERM);
    });
    EXPECT_EQ(ending.standard_error, "lda-netconf[" + std::to_string(ending.pid) +
                                         "]: session 7 (" + std::string(189, 'x') +
                                         ": terminated from outside\n");
}

// Uses up the stack, like a message that is nested too deeply.
[[gnu::noinline]] int nest(volatile char* above) {
    volatile char frame[4096];
    frame[0] = above[0];
    return frame[0] == 'x' ? nest(frame) + frame[0] : 0;
}

TEST_F(Log, StackOverflowIsReportedOnEitherThread) {
    const auto broken = [](bool on_a_thread) {
        netconf::open_log(true);
        netconf::log_as("session 7 (admin)");
        netconf::log_fatal_signals();
        volatile char start = 'x';
        if (!on_a_thread) {
            nest(&start);
        }
        std::thread([&] {
            netconf::use_signal_stack();
            nest(&start);
        }).join();
    };
    for (const bool on_a_thread : {false, true}) {
        const Ending ending = run([&] { broken(on_a_thread); });
        EXPECT_EQ(ending.status, 1);
        EXPECT_NE(ending.standard_error.find("ended: a message broke the parser (memory)\n"),
                  std::string::npos);
    }
}

}  // namespace
