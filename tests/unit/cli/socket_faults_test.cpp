// Sessions whose calls fail or transfer only a part, and what a session leaves unread.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {
int g_recv_error = 0;  // of the next call, like the next one
int g_send_error = 0;
int g_reads = 0;
int g_full = 0;  // calls that found the client's buffer full
}  // namespace

// NOLINTBEGIN(readability-identifier-naming): the linker's names
extern "C" {
ssize_t __real_recv(int fd, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* bytes, size_t size, int flags) {
    ++g_reads;
    if (g_recv_error == EINTR) {
        errno = std::exchange(g_recv_error, 0);
        return -1;
    }
    const ssize_t received = __real_recv(fd, bytes, size, flags);
    if (g_recv_error != 0) {
        errno = std::exchange(g_recv_error, 0);
        return -1;
    }
    return received;
}

ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    if (g_send_error != 0) {
        errno = std::exchange(g_send_error, 0);
        return -1;
    }
    const ssize_t sent = __real_send(fd, bytes, size, flags);
    g_full += sent < 0 && errno == EAGAIN ? 1 : 0;
    return sent;
}
}
// NOLINTEND(readability-identifier-naming)

namespace {

using namespace std::chrono_literals;
using qv::test::WireClient;

constexpr const char* kVersion = "{\"exec\": \"show version\"}\n";
constexpr const char* kVersionReply =
    "{\"output\":\"lda 0.1.0\\n\",\"prompt\":\"lda# \",\"result\":0}\n";

qv::cli::Completion g_later;

class SocketFaults : public ::testing::Test {
 protected:
    SocketFaults() {
        using namespace qv::cli;
        attach(kChainView, keyword("slow", "", end_of_line([](cli_pcdb*) {
                                       g_later = defer();
                                       return 0;
                                   })),
               "test");
        attach(kChainView, keyword("much", "", end_of_line([](cli_pcdb*) {
                                       cli_printf("%0400000d\n", 0);
                                       return 0;
                                   })),
               "test");
        rig.platform.run_ready();
    }
    std::string ask(const std::string& request) {
        client.send(request);
        rig.platform.run_ready();
        return client.receive();
    }
    // How often the session reads after the client has sent one more byte.
    int reads_of_one_more_byte() {
        g_reads = 0;
        client.send("x");
        rig.platform.run_ready();
        return g_reads;
    }
    // Shows messages to a client that monitors and reads nothing, until one must wait.
    void fill_with_messages() {
        ask("{\"exec\": \"terminal monitor\"}\n");
        g_full = 0;
        for (int i = 0; i < 20000 && g_full == 0; ++i) {
            show_message();
        }
        ASSERT_EQ(g_full, 1);
    }
    void show_message() {
        printk_syslog_ext(6, "LDA", "NOTE", "%0100d", 0);
        rig.platform.run_ready();
    }
    bool dropped() {
        client.receive();
        return client.closed_by_server();
    }

    qv::test::CliRig rig;
    WireClient client{rig.platform.settings.cli_socket};
};

TEST_F(SocketFaults, InterruptedReadIsMadeAgain) {
    g_recv_error = EINTR;
    EXPECT_EQ(ask(kVersion), kVersionReply);
}

TEST_F(SocketFaults, ReadThatFailsEndsTheSession) {
    client.send(kVersion);
    g_recv_error = ECONNRESET;
    rig.platform.run_ready();
    EXPECT_EQ(g_recv_error, 0);
    EXPECT_TRUE(client.closed_by_server());
}

TEST_F(SocketFaults, InterruptedWriteIsMadeAgain) {
    client.send(kVersion);
    g_send_error = EINTR;
    rig.platform.run_ready();
    EXPECT_EQ(g_send_error, 0);
    EXPECT_EQ(client.receive(), kVersionReply);
}

TEST_F(SocketFaults, WriteThatFailsEndsTheSession) {
    client.send(kVersion);
    g_send_error = ENOBUFS;
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), "");
    EXPECT_TRUE(client.closed_by_server());
}

TEST_F(SocketFaults, ClientThatIsGoneWithRepliesUnreadEndsTheSessionAtOnce) {
    const size_t before = qv::test::open_descriptors();
    {
        WireClient leaves(rig.platform.settings.cli_socket);
        leaves.send(std::string(kVersion) + "{\"exec\": \"slow\"}\n");
        rig.platform.run_ready();
        ASSERT_TRUE(g_later);
    }
    rig.platform.run_ready();
    EXPECT_EQ(qv::test::open_descriptors(), before);
}

TEST_F(SocketFaults, MessageThatFindsNoRoomAtAllStartsTheMinute) {
    fill_with_messages();
    rig.platform.run_for(59s);
    show_message();
    rig.platform.run_for(1s);
    EXPECT_TRUE(dropped()) << "messages that have to wait are no progress";
}

TEST_F(SocketFaults, ClientThatEmptiesItsBufferEveryMinuteIsNotDropped) {
    using namespace qv::cli;
    attach(kChainView, keyword("flood", "", end_of_line([](cli_pcdb*) {
                                   cli_printf("%02000000d\n", 0);
                                   return 0;
                               })),
           "test");
    client.send("{\"exec\": \"flood\"}\n");
    for (int minute = 0; minute < 3; ++minute) {
        rig.platform.run_for(59s);
        EXPECT_GT(client.receive().size(), 0U);
        ASSERT_FALSE(client.closed_by_server()) << "minute " << minute;
        rig.platform.run_ready();
    }
}

TEST_F(SocketFaults, SessionThatWaitsForAnAnswerReadsOneTurnAhead) {
    ask("{\"exec\": \"slow\"}\n");
    EXPECT_EQ(reads_of_one_more_byte(), 1);
    ask(kVersion);
    EXPECT_EQ(reads_of_one_more_byte(), 0);
}

TEST_F(SocketFaults, SessionWithMuchUnsentOutputReadsNothing) {
    client.send("{\"exec\": \"much\"}\n");
    rig.platform.run_ready();
    EXPECT_EQ(reads_of_one_more_byte(), 0);
}

TEST_F(SocketFaults, SessionThatIsAboutToEndReadsNothing) {
    fill_with_messages();
    client.send("{\"exec\": \"exit\"}\n");
    rig.platform.run_ready();
    EXPECT_EQ(reads_of_one_more_byte(), 0);
}

}  // namespace
