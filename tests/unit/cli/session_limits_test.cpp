// Limits of operators' sessions, and the socket file that somebody removes.
#include <event2/event.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/socket_server.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {
bool g_no_watch = false;  // the event loop can watch no further descriptor
}

// NOLINTBEGIN(readability-identifier-naming): the linker's names
extern "C" {
int __real_event_add(event* what, const timeval* timeout);
int __wrap_event_add(event* what, const timeval* timeout) {
    return g_no_watch ? -1 : __real_event_add(what, timeout);
}
}
// NOLINTEND(readability-identifier-naming)

namespace {

using namespace std::chrono_literals;
using qv::test::WireClient;

constexpr const char* kVersion = "{\"exec\": \"show version\"}\n";
constexpr const char* kVersionReply =
    "{\"output\":\"lda 0.1.0\\n\",\"prompt\":\"lda# \",\"result\":0}\n";
constexpr const char* kIdleReply =
    "{\"end\":true,\"output\":\"% Session closed: it was idle for too long.\\n\","
    "\"prompt\":\"lda# \",\"result\":-1}\n";

qv::PlatformConfig settings(unsigned sessions, unsigned idle_s) {
    qv::PlatformConfig config;
    config.cli_max_sessions = sessions;
    config.cli_idle_timeout_s = idle_s;
    return config;
}

struct Server {
    explicit Server(const qv::PlatformConfig& config = {}) : rig(config) {}

    std::unique_ptr<WireClient> connect() {
        return std::make_unique<WireClient>(rig.platform.settings.cli_socket);
    }
    std::string ask(WireClient& client, const std::string& request = kVersion) {
        client.send(request);
        rig.platform.run_ready();
        return client.receive();
    }

    qv::test::CliRig rig;
};

TEST(SessionLimits, ClientBeyondTheLimitGetsAReasonAndIsClosed) {
    Server server(settings(2, 0));
    auto first = server.connect();
    const auto second = server.connect();
    const auto third = server.connect();
    EXPECT_EQ(server.ask(*third),
              "{\"end\":true,\"output\":\"% Too many sessions (limit 2).\\n\","
              "\"prompt\":\"lda# \",\"result\":-1}\n");
    EXPECT_TRUE(third->closed_by_server());
    EXPECT_EQ(server.ask(*first), kVersionReply);
    EXPECT_EQ(server.ask(*second), kVersionReply);
    first.reset();
    server.rig.platform.run_ready();
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
}

// The number that the next descriptor of this process gets.
int next_descriptor() {
    const int fd = ::dup(STDIN_FILENO);
    ::close(fd);
    return fd;
}

void limit_descriptors(int count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(count);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(SessionLimits, LastSixteenDescriptorsAreNotForSessions) {
    Server server;
    const auto refused = server.connect();
    limit_descriptors(next_descriptor() + 16);
    server.rig.platform.run_ready();
    EXPECT_EQ(refused->receive(),
              "{\"end\":true,\"output\":\"% No session: the switch is short of descriptors.\\n\","
              "\"prompt\":\"lda# \",\"result\":-1}\n");
    EXPECT_TRUE(refused->closed_by_server());
    const auto accepted = server.connect();
    limit_descriptors(next_descriptor() + 17);
    EXPECT_EQ(server.ask(*accepted), kVersionReply);
}

TEST(SessionLimits, IdleSessionGetsAReasonAndIsClosed) {
    Server server(settings(64, 100));
    const auto client = server.connect();
    server.rig.platform.run_for(60s);
    EXPECT_EQ(server.ask(*client), kVersionReply);
    server.rig.platform.run_for(99s);
    EXPECT_EQ(client->receive(), "");
    server.rig.platform.run_for(1s);
    EXPECT_EQ(client->receive(), kIdleReply);
    EXPECT_TRUE(client->closed_by_server());
}

TEST(SessionLimits, IdleTimeIsRealTimeOnAFastClock) {
    qv::PlatformConfig config = settings(64, 100);
    config.speed = 10.0;
    Server server(config);
    const auto client = server.connect();
    server.rig.platform.run_for(999s);
    EXPECT_EQ(client->receive(), "");
    server.rig.platform.run_for(2s);
    EXPECT_EQ(client->receive(), kIdleReply);
}

TEST(SessionLimits, SessionMayBeIdleForEverWithoutATimeout) {
    Server server(settings(64, 0));
    const auto client = server.connect();
    server.rig.platform.run_for(48h);
    EXPECT_EQ(server.ask(*client), kVersionReply);
}

TEST(SessionLimits, SessionThatMonitorsIsNotIdle) {
    Server server(settings(64, 100));
    const auto client = server.connect();
    server.ask(*client, "{\"exec\": \"terminal monitor\"}\n");
    server.rig.platform.run_for(1000s);
    EXPECT_EQ(server.ask(*client), kVersionReply);
    server.ask(*client, "{\"exec\": \"terminal no monitor\"}\n");
    server.rig.platform.run_for(101s);
    EXPECT_EQ(client->receive(), kIdleReply);
}

qv::cli::Completion g_later;

TEST(SessionLimits, SessionThatWaitsForAnAnswerIsNotIdle) {
    using namespace qv::cli;
    Server server(settings(64, 100));
    attach(kChainView, keyword("slow", "", end_of_line([](cli_pcdb*) {
                                   g_later = defer();
                                   return 0;
                               })),
           "test");
    const auto client = server.connect();
    EXPECT_EQ(server.ask(*client, "{\"exec\": \"slow\"}\n"), "");
    server.rig.platform.run_for(1050s);
    g_later({0, "late\n"});
    EXPECT_EQ(client->receive(), "{\"output\":\"late\\n\",\"prompt\":\"lda# \",\"result\":0}\n");
    // It is idle from the answer on.
    server.rig.platform.run_for(101s);
    EXPECT_EQ(client->receive(), kIdleReply);
}

TEST(SessionLimits, SessionThatWaitsForASlowClientIsNotIdle) {
    using namespace qv::cli;
    Server server(settings(64, 100));
    attach(kChainView, keyword("much", "", end_of_line([](cli_pcdb*) {
                                   cli_printf("%0100000d\n", 0);
                                   return 0;
                               })),
           "test");
    const auto client = server.connect();
    for (int i = 0; i < 8; ++i) {
        client->send("{\"exec\": \"much\"}\n");
    }
    server.rig.platform.run_ready();
    std::string all;
    char some[40960];
    while (all.size() < 500000) {
        server.rig.platform.run_for(59s);
        const size_t size = client->receive_some(some, sizeof some);
        ASSERT_GT(size, 0U) << "after " << all.size() << " bytes";
        all.append(some, size);
        server.rig.platform.run_ready();
    }
    EXPECT_EQ(server.ask(*client).find("idle"), std::string::npos);
}

TEST(SessionLimits, RequestsAfterTheEndOfASessionAreNotExecuted) {
    Server server;
    const auto client = server.connect();
    EXPECT_EQ(server.ask(*client, std::string("{\"exec\": \"exit\"}\n") + kVersion),
              "{\"end\":true,\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_TRUE(client->closed_by_server());
}

TEST(SessionLimits, ClientThatLeavesEndsItsIdleTimer) {
    Server server(settings(64, 100));
    server.connect();
    server.rig.platform.run_for(1000s);
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
}

TEST(SessionLimits, ClientThatCannotBeWatchedIsServedOnceAndClosed) {
    Server server;
    const auto client = server.connect();
    g_no_watch = true;
    EXPECT_EQ(server.ask(*client), kVersionReply);
    EXPECT_TRUE(client->closed_by_server());
    g_no_watch = false;
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
}

TEST(SessionLimits, WatchedSessionContinuesWhenNoMoreCanBeWatched) {
    Server server;
    const auto client = server.connect();
    EXPECT_EQ(server.ask(*client), kVersionReply);
    g_no_watch = true;
    EXPECT_EQ(server.ask(*client), kVersionReply);
    EXPECT_EQ(server.ask(*client), kVersionReply);
    g_no_watch = false;
}

class SocketFile : public ::testing::Test {
 protected:
    std::string path() const { return server.rig.platform.settings.cli_socket; }
    std::string log() const {
        std::string text;
        for (const std::string& line : server.rig.platform.log.lines()) {
            text += line + "\n";
        }
        return text;
    }

    Server server;
};

TEST_F(SocketFile, IsPutBackWithItsFolder) {
    const auto stays = server.connect();
    server.rig.platform.run_ready();
    std::filesystem::remove_all(server.rig.folder.file("run"));
    server.rig.platform.run_for(5s);
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    EXPECT_EQ(log(), "CLI-4-SOCKET: " + path() + " was removed; operators can connect again.\n");
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
    EXPECT_EQ(server.ask(*stays), kVersionReply);
    std::filesystem::remove(path());
    server.rig.platform.run_for(5s);
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
}

TEST_F(SocketFile, ThatIsRecreatedRepeatedlyUsesOneDescriptor) {
    server.rig.platform.run_ready();
    const size_t before = qv::test::open_descriptors();
    for (int times = 0; times < 3; ++times) {
        std::filesystem::remove(path());
        server.rig.platform.run_for(5s);
    }
    EXPECT_EQ(qv::test::open_descriptors(), before);
    {
        const qv::cli::SocketServer another(server.rig.platform.loop(),
                                            server.rig.folder.file("another"), {});
    }
    EXPECT_EQ(qv::test::open_descriptors(), before);
}

TEST_F(SocketFile, ThatCannotBePutBackIsReportedOnceAndTriedAgain) {
    const std::string folder = server.rig.folder.file("run");
    std::filesystem::remove_all(folder);
    qv::test::write_text(folder, "no folder");
    server.rig.platform.run_for(60s);
    EXPECT_EQ(log(), "CLI-3-SOCKET: Operators cannot connect: cannot listen at " + path() +
                         ": Not a directory.\n");
    std::filesystem::remove(folder);
    server.rig.platform.run_for(5s);
    EXPECT_EQ(server.ask(*server.connect()), kVersionReply);
    std::filesystem::remove_all(folder);
    qv::test::write_text(folder, "again no folder");
    server.rig.platform.run_for(60s);
    EXPECT_TRUE(
        log().ends_with("can connect again.\nCLI-3-SOCKET: Operators cannot connect: cannot "
                        "listen at " +
                        path() + ": Not a directory.\n"));
}

TEST_F(SocketFile, ThatCannotBeWatchedIsTriedAgainASecondLater) {
    std::filesystem::remove(path());
    g_no_watch = true;
    server.rig.platform.run_for(5s);
    const auto client = server.connect();
    EXPECT_EQ(server.ask(*client), "");
    g_no_watch = false;
    server.rig.platform.run_for(1s);
    EXPECT_EQ(client->receive(), kVersionReply);
}

TEST_F(SocketFile, OfAnotherProcessIsLeftAlone) {
    std::filesystem::remove(path());
    qv::test::write_text(path(), "precious");
    server.rig.platform.run_for(60s);
    EXPECT_EQ(qv::test::read_text(path()), "precious");
    EXPECT_EQ(log(), "");
}

TEST_F(SocketFile, InAFolderThatCannotBeEnteredIsNotMissed) {
    std::filesystem::remove_all(server.rig.folder.file("run"));
    std::filesystem::create_symlink("run", server.rig.folder.file("run"));
    server.rig.platform.run_for(60s);
    EXPECT_EQ(log(), "");
}

}  // namespace
