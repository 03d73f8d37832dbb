// The program as a whole. Each run is a child of the test: its limits, its signal handlers and
// libnetconf2 belong to a process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "services/netconf/options.h"
#include "tests/unit/netconf/command_line.h"
#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/served_session.h"

int netconf_main(int count, char** words);

using namespace netconf::test;

namespace {

struct Outcome {
    pid_t pid;
    int status;  // -1: killed by a signal
    std::string output;
    std::string error;
    std::vector<std::string> log;  // "<priority> <text>"
};

class Program : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        note_resource_limits();
    }

    // Runs the program with `input` on its standard input. `before` and `after` run in its process.
    Outcome run(
        const std::vector<std::string>& words, const std::string& input = "",
        const std::function<void()>& before = [] {}, const std::function<void()>& after = [] {}) {
        put("input", input);
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(open(folder_.path("input").c_str(), O_RDONLY), STDIN_FILENO);
            redirect(STDOUT_FILENO, "output");
            redirect(STDERR_FILENO, "error");
            before();
            const int status = call_main(words);
            after();
            fflush(nullptr);
            redirect(STDOUT_FILENO, "log");
            for (const LogLine& line : logged()) {
                printf("%d %s\n", line.priority, line.text.c_str());
            }
            fflush(stdout);
            _exit(status);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return {.pid = pid,
                .status = WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                .output = content("output"),
                .error = content("error"),
                .log = lines("log")};
    }

    // A session's options.
    std::vector<std::string> session_words() const {
        return {"--redis", folder_.path("nobody.sock"), "--runtime", folder_.path("run")};
    }
    // "session 12 (user)", for the process `pid`.
    static std::string name_of(pid_t pid, const std::string& user) {
        return "session " + std::to_string(1 + pid % 247) + " (" + user + ")";
    }

    std::string content(const std::string& file) const {
        std::ifstream stream(folder_.path(file));
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    std::vector<std::string> lines(const std::string& file) const {
        std::vector<std::string> found;
        std::ifstream stream(folder_.path(file));
        for (std::string line; std::getline(stream, line);) {
            found.push_back(line);
        }
        return found;
    }
    void put(const std::string& file, const std::string& text) const {
        std::ofstream(folder_.path(file), std::ios::app) << text;
    }

    Folder folder_;

 private:
    void redirect(int fd, const std::string& file) const {
        dup2(open(folder_.path(file).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), fd);
    }

    static int call_main(const std::vector<std::string>& words) {
        return netconf::test::with_command_line(words, netconf_main);
    }
};

using Lines = std::vector<std::string>;

TEST_F(Program, PrintsItsUsageWhenAsked) {
    const Outcome done = run({"--help"});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.output, netconf::usage());
    EXPECT_EQ(done.error, "");
    EXPECT_EQ(done.log, Lines{});
}

TEST_F(Program, RefusesABadArgument) {
    const Outcome done = run({"--nonsense"});
    EXPECT_EQ(done.status, 2);
    EXPECT_EQ(done.output, "");
    EXPECT_EQ(done.error, "lda-netconf: bad argument: --nonsense\n");
    EXPECT_EQ(done.log, Lines{"3 bad argument: --nonsense"});
}

TEST_F(Program, SaysWhyNoSessionCanBegin) {
    put("file", "");
    const std::string folder = folder_.path("file/run");
    const Outcome done = run({"--redis", "/nobody", "--runtime", folder});
    EXPECT_EQ(done.status, 2);
    EXPECT_EQ(done.error, "lda-netconf: " + folder + ": Not a directory\n");
    EXPECT_EQ(done.log, Lines{"3 " + folder + ": Not a directory"});
}

TEST_F(Program, FolderOfTheModulesIsThatOfTheOption) {
    std::vector<std::string> words = session_words();
    words.insert(words.end(), {"--yang", "/nowhere"});
    const Outcome done = run(words, "", [] { forget_users(); });
    EXPECT_EQ(done.status, 2);
    EXPECT_EQ(done.log, Lines{"3 " + name_of(done.pid, std::to_string(getuid())) +
                              ": the folder of the YANG modules cannot be used: /nowhere"});
}

TEST_F(Program, ServesASessionUnderItsNumberAndUser) {
    const Outcome done =
        run(session_words(), hello() + request("<close-session/>"), [] { forget_users(); });
    EXPECT_EQ(done.status, 0);
    EXPECT_NE(
        done.output.find("<session-id>" + std::to_string(1 + done.pid % 247) + "</session-id>"),
        std::string::npos)
        << done.output;
    EXPECT_NE(done.output.find("<rpc-reply "), std::string::npos);
    EXPECT_EQ(done.error, "");
    const std::string name = name_of(done.pid, std::to_string(getuid()));
    EXPECT_EQ(done.log, (Lines{"6 " + name + ": begins", "6 " + name + ": closed"}));
}

TEST_F(Program, UserIsNamed) {
    const Outcome done = run(session_words(), "", [] {
        on_accept([](const std::string& user) -> std::optional<NC_MSG_TYPE> {
            return user == "nobody" ? std::nullopt : std::optional(NC_MSG_WOULDBLOCK);
        });
    });
    EXPECT_EQ(done.status, 1);
    const passwd* const entry = getpwuid(getuid());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(done.log, Lines{"4 " + name_of(done.pid, entry->pw_name) +
                              ": ended: the client sent no hello in time"});
}

TEST_F(Program, LimitsItselfBeforeItTakesInput) {
    const int usual_nice = std::min(getpriority(PRIO_PROCESS, 0), 9);
    setpriority(PRIO_PROCESS, 0, usual_nice);
    const Outcome done = run(
        session_words(), "",
        [] {
            signal(SIGPIPE, SIG_DFL);
            umask(0);
        },
        [usual_nice] {
            for (const ResourceLimit& limit : resource_limits()) {
                printf("\n%d %lu %lu", limit.resource, limit.soft, limit.hard);
            }
            printf("\nnice %d", getpriority(PRIO_PROCESS, 0) - usual_nice);
            printf("\numask %o", umask(0));
            printf("\nSIGPIPE %s\n", signal(SIGPIPE, SIG_DFL) == SIG_IGN ? "ignored" : "kills");
        });
    EXPECT_EQ(done.status, 1);
    const std::string expected = "\n" + std::to_string(RLIMIT_DATA) + " 134217728 134217728\n" +
                                 std::to_string(RLIMIT_CORE) +
                                 " 0 0\nnice 10\numask 7\nSIGPIPE ignored\n";
    EXPECT_TRUE(done.output.ends_with(expected)) << done.output;
    struct stat folder {};
    ASSERT_EQ(stat(folder_.path("run").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 01770U);
}

TEST_F(Program, SignalLineNamesTheSession) {
    for (const bool to_stderr : {true, false}) {
        std::vector<std::string> words = session_words();
        if (to_stderr) {
            words.emplace_back("--stderr");
        }
        std::filesystem::remove(folder_.path("error"));
        const Outcome done = run(words, "", [] {
            forget_users();
            on_accept([](const std::string& /*user*/) -> std::optional<NC_MSG_TYPE> {
                raise(SIGTERM);
                return std::nullopt;
            });
        });
        EXPECT_EQ(done.status, 0);
        EXPECT_EQ(done.log, Lines{});  // it ended at once
        EXPECT_EQ(done.error, to_stderr ? "lda-netconf[" + std::to_string(done.pid) +
                                              "]: " + name_of(done.pid, std::to_string(getuid())) +
                                              ": terminated from outside\n"
                                        : "");
    }
}

}  // namespace
