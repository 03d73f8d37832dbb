// The shell's connection to a scripted switch.
#include "tools/ldash/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/unit/ldash/scripted_switch.h"

// The linker redirects these calls of the whole program to the test.
namespace {

// A call that would wait or repeat for ever throws instead.
constexpr timespec kLimit = {.tv_sec = 20, .tv_nsec = 0};
constexpr int kMostCalls = 1000;

struct Calls {
    bool silence = false;     // the next poll() times out
    int patience_ms = 0;      // of that poll()
    int interrupted = 0;      // this many calls of send() or recv() end with a signal
    size_t most_sent = 1000;  // bytes in one send()
    int made = 0;             // of send() and recv()
};
Calls g_calls;

bool interrupt() {
    errno = EINTR;
    return g_calls.interrupted > 0 && g_calls.interrupted-- > 0;
}

}  // namespace

extern "C" {
int __real_poll(pollfd* fds, nfds_t count, int timeout);
ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __real_recv(int fd, void* bytes, size_t size, int flags);

// Real time does not matter: on a busy machine an answer may take any time.
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
    if (!g_calls.silence) {
        return __real_poll(fds, count, timeout == 0 ? 0 : -1);
    }
    g_calls.silence = false;
    g_calls.patience_ms = timeout;
    return 0;
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    if (++g_calls.made > kMostCalls) {
        throw std::logic_error("send() is repeated for ever");
    }
    return interrupt() ? -1 : __real_send(fd, bytes, std::min(size, g_calls.most_sent), flags);
}

ssize_t __wrap_recv(int fd, void* bytes, size_t size, int flags) {
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    if (++g_calls.made > kMostCalls ||
        ((flags & MSG_DONTWAIT) == 0 && ppoll(&waiting, 1, &kLimit, nullptr) == 0)) {
        throw std::logic_error("recv() waits or is repeated for ever");
    }
    return interrupt() ? -1 : __real_recv(fd, bytes, size, flags);
}
}

namespace ldash::test {
namespace {

using Lines = std::vector<std::string>;

struct ConnectionTest : testing::Test {
    ConnectionTest() {
        g_calls = {};
        connection.emplace(peer.path());
        peer.accept();
        connection->on_message = [this](const std::string& text) {
            messages.push_back(text);
        };
    }

    std::string fault_of_ask() {
        try {
            connection->ask("exec", "show clock");
        } catch (const std::runtime_error& fault) {
            return fault.what();
        }
        return "answered";
    }
    std::string fault_of_take() {
        try {
            connection->take_messages();
        } catch (const std::runtime_error& fault) {
            return fault.what();
        }
        return "taken";
    }

    ScriptedSwitch peer;
    std::optional<Connection> connection;
    Lines messages;
};

constexpr const char* kLost = "the connection to the switch is lost";

std::string fault_of_socket(const std::string& path) {
    try {
        const Connection connection(path);
    } catch (const std::runtime_error& fault) {
        return fault.what();
    }
    return "connected";
}

TEST(ConnectionStart, SocketThatCannotBeReachedIsNamedWithTheReason) {
    EXPECT_EQ(fault_of_socket("/nowhere/cli.sock"),
              "cannot reach the switch at /nowhere/cli.sock: No such file or directory");
    EXPECT_EQ(fault_of_socket("/dev/null"),
              "cannot reach the switch at /dev/null: Connection refused");
    EXPECT_EQ(fault_of_socket(""), "cannot reach the switch at : File name too long");
    const std::string longest(107, 'x');
    EXPECT_EQ(fault_of_socket(longest),
              "cannot reach the switch at " + longest + ": No such file or directory");
    EXPECT_EQ(fault_of_socket(longest + "x"),
              "cannot reach the switch at " + longest + "x: File name too long");
}

TEST_F(ConnectionTest, RequestIsOneLineAndEveryPartOfTheReplyIsRead) {
    peer.say(R"({"output":"12:00\r\n","result":7,"prompt":"lda(config)# ","end":true})");
    const Reply reply = connection->ask("exec", "show \"clock\"");
    EXPECT_EQ(peer.request(), R"({"exec":"show \"clock\""})");
    EXPECT_EQ(reply.output, "12:00\r\n");
    EXPECT_EQ(reply.result, 7);
    EXPECT_EQ(reply.prompt, "lda(config)# ");
    EXPECT_TRUE(reply.end);
}

TEST_F(ConnectionTest, IncompleteReplyIsNotASuccess) {
    peer.say("{}");
    const Reply reply = connection->ask("help", "sh");
    EXPECT_EQ(peer.request(), R"({"help":"sh"})");
    EXPECT_EQ(reply.output, "");
    EXPECT_EQ(reply.result, -1);
    EXPECT_EQ(reply.prompt, "");
    EXPECT_FALSE(reply.end);
}

TEST_F(ConnectionTest, InvalidUtf8IsReplacedInTheRequest) {
    peer.say(R"({"result":0})");
    EXPECT_EQ(connection->ask("exec", "show \xff").result, 0);
    EXPECT_EQ(peer.request(), "{\"exec\":\"show \xef\xbf\xbd\"}");
}

TEST_F(ConnectionTest, RequestIsSentWholeInSpiteOfSignalsAndSmallPieces) {
    g_calls.interrupted = 2;
    g_calls.most_sent = 3;
    peer.say(R"({"result":0})");
    EXPECT_EQ(connection->ask("exec", "show running-config").result, 0);
    EXPECT_EQ(peer.request(), R"({"exec":"show running-config"})");
}

TEST_F(ConnectionTest, ReplyInPiecesIsPutTogetherAndTheNextOneKept) {
    g_calls.most_sent = 1000;
    peer.send_bytes("{\"result\":0,\"output\":\"one\"}\n{\"result\":1,");
    EXPECT_EQ(connection->ask("exec", "first").output, "one");
    peer.send_bytes("\"output\":\"two\"}\n");
    const Reply second = connection->ask("exec", "second");
    EXPECT_EQ(second.output, "two");
    EXPECT_EQ(second.result, 1);
}

TEST_F(ConnectionTest, SignalDuringTheWaitForTheReplyIsNotALoss) {
    peer.say(R"({"result":0,"output":"late"})");
    const Reply first = connection->ask("exec", "first");
    EXPECT_EQ(first.output, "late");
    peer.say(R"({"monitor":"%LDA-6-INFO: one"})");
    g_calls.interrupted = 1;
    EXPECT_EQ(fault_of_take(), "taken");
    EXPECT_EQ(messages, Lines{});
    EXPECT_EQ(fault_of_take(), "taken");
    EXPECT_EQ(messages, Lines{"%LDA-6-INFO: one"});
}

TEST_F(ConnectionTest, MessagesBeforeTheReplyArePassedOnInOrder) {
    peer.say(R"({"monitor":"%LDA-6-INFO: one"})");
    peer.say(R"({"monitor":"%LDA-6-INFO: two"})");
    peer.say(R"({"result":0,"output":"done"})");
    EXPECT_EQ(connection->ask("exec", "show clock").output, "done");
    EXPECT_EQ(messages, (Lines{"%LDA-6-INFO: one", "%LDA-6-INFO: two"}));
}

TEST_F(ConnectionTest, MessagesNobodyListensToAreDropped) {
    connection->on_message = nullptr;
    peer.say(R"({"monitor":"%LDA-6-INFO: one"})");
    EXPECT_EQ(fault_of_take(), "taken");
    peer.say(R"({"monitor":"%LDA-6-INFO: two"})");
    peer.say(R"({"result":0,"output":"done"})");
    EXPECT_EQ(connection->ask("exec", "show clock").output, "done");
}

TEST_F(ConnectionTest, MessagesBetweenRepliesAreTakenWithoutAWait) {
    EXPECT_EQ(fault_of_take(), "taken");
    peer.say(R"({"monitor":"%LDA-6-INFO: one"})");
    peer.say("[1]");
    peer.say("no JSON");
    peer.send_bytes("{\"monitor\":\"%LDA-6-IN");
    EXPECT_EQ(fault_of_take(), "taken");
    EXPECT_EQ(messages, Lines{"%LDA-6-INFO: one"});
    peer.say("FO: two\"}");
    EXPECT_EQ(fault_of_take(), "taken");
    EXPECT_EQ(messages, (Lines{"%LDA-6-INFO: one", "%LDA-6-INFO: two"}));
}

TEST_F(ConnectionTest, SwitchThatEndsTheSessionGivesTheReason) {
    peer.say(R"({"output":"% Too many sessions (limit 64).\r\n","result":-1,"end":true})");
    EXPECT_EQ(fault_of_ask(), "Too many sessions (limit 64).");
    peer.say(R"({"output":"Bye\n\n","result":-2,"end":true})");
    EXPECT_EQ(fault_of_take(), "Bye");
}

TEST_F(ConnectionTest, RefusalThatKeepsTheSessionIsAReply) {
    peer.say(R"({"output":"% Unknown command\n","result":-1,"end":false})");
    const Reply reply = connection->ask("exec", "shwo");
    EXPECT_EQ(reply.output, "% Unknown command\n");
    EXPECT_EQ(reply.result, -1);
}

TEST_F(ConnectionTest, ReasonOfASwitchThatHasClosedTheSessionIsStillRead) {
    peer.say(R"({"output":"% Idle for too long.\n","result":-1,"end":true})");
    peer.hang_up();
    EXPECT_EQ(fault_of_ask(), "Idle for too long.");
}

TEST_F(ConnectionTest, SwitchThatIsGoneIsALossAndNoSignal) {
    peer.hang_up();
    EXPECT_EQ(fault_of_ask(), kLost);
    EXPECT_EQ(fault_of_take(), kLost);
}

TEST_F(ConnectionTest, ErrorOfTheSocketIsALoss) {
    const std::string unread = R"({"exec":"show clock"})";
    EXPECT_EQ(::write(connection->fd(), unread.data(), unread.size()), 21);
    peer.hang_up();  // with a request in it, so that the session is reset
    EXPECT_EQ(fault_of_take(), kLost);
}

TEST_F(ConnectionTest, ReplyOtherThanAnObjectIsALoss) {
    peer.say("[]");
    EXPECT_EQ(fault_of_ask(), kLost);
}

TEST_F(ConnectionTest, OperatorIsNotifiedAfterThreeSecondsWithoutAnAnswer) {
    g_calls.silence = true;
    peer.say(R"({"result":0,"output":"late"})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(connection->ask("exec", "show clock").output, "late");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ldash: the switch has not answered yet, still waiting (Ctrl-C to leave)\n");
    EXPECT_EQ(g_calls.patience_ms, 3000);

    peer.say(R"({"result":0,"output":"at once"})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(connection->ask("exec", "show clock").output, "at once");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ConnectionTest, EndOfTheConnectionEndsTheSession) {
    connection.reset();
    EXPECT_EQ(peer.request(), "no request");
}

}  // namespace
}  // namespace ldash::test
