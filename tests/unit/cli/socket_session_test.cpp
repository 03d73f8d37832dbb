// The socket: requests and replies, many sessions, clients that misbehave.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/socket_server.h"
#include "platform/cli/socket_session.h"
#include "platform/cli/wire.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {
int g_accept_error = 0;  // of every accept while it is set
int g_refused_accepts = 0;
int g_accepts = 0;
}  // namespace

// The linker puts this in place of accept4.
extern "C" {
int __real_accept4(int fd, sockaddr* address, socklen_t* size, int flags);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
    if (g_accept_error == 0) {
        const int accepted = __real_accept4(fd, address, size, flags);
        g_accepts += accepted >= 0 ? 1 : 0;
        return accepted;
    }
    ++g_refused_accepts;
    errno = g_accept_error;
    // A client that has disconnected again fails one call only.
    g_accept_error = errno == ECONNABORTED ? 0 : g_accept_error;
    return -1;
}
}

namespace {

using qv::test::WireClient;

constexpr const char* kVersionReply =
    "{\"output\":\"lda 0.1.0\\n\",\"prompt\":\"lda# \",\"result\":0}\n";

int print_much(cli_pcdb*) {
    for (int i = 0; i < 1000; ++i) {
        cli_printf("%099d\n", i);
    }
    return 0;
}

int g_count = 0;
int count_calls(cli_pcdb*) {
    ++g_count;
    return 0;
}

class SocketSession : public ::testing::Test {
 protected:
    std::unique_ptr<WireClient> connect() {
        return std::make_unique<WireClient>(rig.platform.settings.cli_socket);
    }
    std::string ask(WireClient& client, const std::string& request) {
        client.send(request + "\n");
        rig.platform.run_ready();
        return client.receive();
    }

    qv::test::CliRig rig;
};

TEST_F(SocketSession, SocketIsForOwnerAndGroup) {
    struct stat status {};
    ASSERT_EQ(::stat(rig.platform.settings.cli_socket.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0660U);
}

TEST_F(SocketSession, ExecAnswersWithOutputResultAndPrompt) {
    const auto client = connect();
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})"), kVersionReply);
    EXPECT_EQ(ask(*client, R"({"exec": "configure terminal"})"),
              "{\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n");
    EXPECT_EQ(ask(*client, R"({"exec": "interface swp2"})"),
              "{\"output\":\"\",\"prompt\":\"lda(config-if-swp2)# \",\"result\":0}\n");
    EXPECT_EQ(ask(*client, R"({"exec": "frobnicate"})"),
              "{\"output\":\"% Unknown command: 'frobnicate'.\\n\",\"prompt\":"
              "\"lda(config-if-swp2)# \",\"result\":-1,\"wrong_at\":0}\n");
    EXPECT_EQ(ask(*client, R"({"exec": "end"})"),
              "{\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
}

TEST_F(SocketSession, LineInAModeOfItsOwnLeavesTheSessionWhereItWas) {
    const auto client = connect();
    EXPECT_EQ(ask(*client, R"({"exec": "shutdown \r\n", "mode": "interface", "ifx": 102})"),
              "{\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(ask(*client, R"({"exec": "shutdown", "mode": "interface", "ifx": 999})"),
              "{\"output\":\"% The interface does not exist.\\n\",\"prompt\":\"lda# \","
              "\"result\":-1}\n");
    for (const char* mode : {"kitchen", "ifrange"}) {
        EXPECT_EQ(ask(*client, R"({"exec": "shutdown", "mode": ")" + std::string(mode) + "\"}"),
                  "{\"output\":\"% Unknown mode.\\n\",\"prompt\":\"lda# \",\"result\":-1}\n");
    }
}

TEST_F(SocketSession, LineInAModeOfItsOwnKeepsTheLevelOfTheSession) {
    const auto client = connect();
    EXPECT_EQ(ask(*client, R"({"exec": "disable"})"),
              "{\"output\":\"\",\"prompt\":\"lda> \",\"result\":0}\n");
    for (const char* mode : {"config", "interface"}) {
        EXPECT_EQ(ask(*client,
                      R"({"exec": "shutdown", "ifx": 102, "mode": ")" + std::string(mode) + "\"}"),
                  "{\"output\":\"% This mode needs \\\"enable\\\" first.\\n\",\"prompt\":\"lda> \","
                  "\"result\":-1}\n");
    }
    EXPECT_EQ(ask(*client, R"({"exec": "write", "mode": "exec"})"),
              "{\"output\":\"% Unknown command: 'write'.\\n\",\"prompt\":\"lda> \",\"result\":-1,"
              "\"wrong_at\":0}\n");
    EXPECT_EQ(ask(*client, R"({"exec": "enable", "mode": "exec"})"),
              "{\"output\":\"\",\"prompt\":\"lda> \",\"result\":0}\n")
        << "for this line only";
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    ask(*client, R"({"exec": "enable"})");
    ask(*client, R"({"exec": "shutdown", "mode": "interface", "ifx": 102})");
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
}

TEST_F(SocketSession, InterfaceIndexHasThirtyTwoBits) {
    const auto client = connect();
    for (const char* ifx : {"-1", "4294967296", "4294967398", "18446744073709551718", "1.0",
                            "\"102\"", "null", "[]"}) {
        EXPECT_EQ(ask(*client, R"({"exec": "shutdown", "mode": "interface", "ifx": )" +
                                   std::string(ifx) + "}"),
                  "{\"output\":\"% \\\"ifx\\\" is not a whole number from 0 to 4294967295.\\n\","
                  "\"prompt\":\"lda# \",\"result\":-1}\n")
            << ifx;
    }
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(ask(*client, R"({"exec": "shutdown", "mode": "interface", "ifx": 4294967295})"),
              "{\"output\":\"% The interface does not exist.\\n\",\"prompt\":\"lda# \","
              "\"result\":-1}\n");
    EXPECT_EQ(
        ask(*client, R"({"exec": "shutdown", "mode": 7})"),
        "{\"output\":\"% \\\"mode\\\" is not a text.\\n\",\"prompt\":\"lda# \",\"result\":-1}\n");
}

TEST_F(SocketSession, OutputIsCutAtTheEndOfALine) {
    const qv::cli::SessionState session;
    const std::string line(1023, 'x');
    std::string output;
    for (int i = 0; i < 16 * 1024; ++i) {
        output += line + "\n";
    }
    const std::string whole = qv::cli::reply({0, output}, session);
    EXPECT_EQ(whole.find("% The output"), std::string::npos) << "exactly 16 MiB";
    const std::string cut = qv::cli::reply({0, "a\n" + output}, session);
    EXPECT_EQ(cut.substr(cut.find("\\n% ") - 5),
              "xxxxx\\n% The output is cut: it is longer than 16 MiB.\\n\",\"prompt\":\"lda# \","
              "\"result\":0}\n");
    EXPECT_LT(cut.size(), whole.size());
    const std::string endless = qv::cli::reply({0, std::string(size_t{17} << 20, 'x')}, session);
    EXPECT_EQ(endless.find("% The output is cut"), (size_t{16} << 20) + 11) << "no line end";
}

TEST_F(SocketSession, InvalidUtf8IsEscapedInTheReply) {
    rig.hardware.add("sw\xffp", 120);
    const auto client = connect();
    const std::string reply = ask(*client, R"({"exec": "show interfaces status"})");
    EXPECT_NE(reply.find(R"(\nsw\\xffp)"), std::string::npos) << reply;
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SocketSession, HelpAndCompletionAnswerInOutput) {
    const auto client = connect();
    EXPECT_EQ(ask(*client, R"({"complete": "show ver"})"),
              "{\"output\":\"version\\n\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_EQ(ask(*client, R"({"help": "show ver"})"),
              "{\"output\":\"  version                 Version of the program\\n\",\"prompt\":"
              "\"lda# \",\"result\":0}\n");
}

TEST_F(SocketSession, ExitEndsTheSessionAfterItsReply) {
    const auto client = connect();
    EXPECT_EQ(ask(*client, R"({"exec": "exit"})"),
              "{\"end\":true,\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_TRUE(client->closed_by_server());
}

TEST_F(SocketSession, InvalidRequestIsAnsweredAndTheSessionContinues) {
    const auto client = connect();
    for (const char* request : {"not json", "[]", "{}", "{\"exec\": 5}", "\x01\xff", "",
                                "{\"exec\": \"exit\", \"mode\": 7}",
                                "{\"exec\": \"exit\", \"mode\": \"config\", \"ifx\": \"x\"}",
                                "{\"exec\": \"exit\", \"mode\": \"config\", \"ifx\": 1.5}"}) {
        const std::string reply = ask(*client, request);
        EXPECT_NE(reply.find("\"result\":-1}\n"), std::string::npos) << request;
    }
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SocketSession, RequestsInOnePieceAndInPiecesAreTheSame) {
    const auto client = connect();
    client->send("{\"exec\": \"show version\"}\n{\"exec\": \"show version\"}\n{\"exec\": ");
    rig.platform.run_ready();
    EXPECT_EQ(client->receive(), std::string(kVersionReply) + kVersionReply);
    client->send("\"show version\"}");
    rig.platform.run_ready();
    EXPECT_EQ(client->receive(), "");
    client->send("\n");
    rig.platform.run_ready();
    EXPECT_EQ(client->receive(), kVersionReply);
}

TEST_F(SocketSession, RequestWithoutEndIsRefusedAndTheSessionClosed) {
    const auto client = connect();
    std::string reply;
    for (int i = 0; i < 80 && !client->closed_by_server(); ++i) {
        client->send(std::string(1024, 'x'));
        rig.platform.run_ready();
        reply += client->receive();
    }
    EXPECT_EQ(reply,
              "{\"output\":\"% Request too long.\\n\",\"prompt\":\"lda# \",\"result\":-1}\n");
    EXPECT_TRUE(client->closed_by_server());
}

TEST_F(SocketSession, CompleteRequestThatIsTooLongIsRefusedAndTheSessionContinues) {
    const auto client = connect();
    for (int i = 0; i < 64; ++i) {
        client->send(std::string(1024, ' '));
        rig.platform.run_ready();
    }
    EXPECT_EQ(client->receive(), "") << "64 KB may still become a request";
    const std::string version = "{\"exec\": \"show version\"}";
    EXPECT_EQ(ask(*client, version),
              "{\"output\":\"% Request too long.\\n\",\"prompt\":\"lda# \",\"result\":-1}\n");
    EXPECT_EQ(ask(*client, version), kVersionReply);
}

TEST_F(SocketSession, SixtyFourSessionsAtOnceAreServed) {
    std::vector<std::unique_ptr<WireClient>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(connect());
    }
    for (const auto& client : clients) {
        client->send("{\"exec\": \"show version\"}\n");
    }
    rig.platform.run_ready();
    for (const auto& client : clients) {
        EXPECT_EQ(client->receive(), kVersionReply);
    }
}

TEST_F(SocketSession, NewClientsAreTakenThirtyTwoAtATime) {
    std::vector<std::unique_ptr<WireClient>> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(connect());
    }
    std::vector<int> seen;
    int turns = 0;
    std::function<void()> look = [&] {
        if (seen.empty() || seen.back() != g_accepts) {
            seen.push_back(g_accepts);
        }
        if (++turns < 100) {
            rig.platform.loop().post(look);
        }
    };
    look();
    rig.platform.run_ready();
    EXPECT_EQ(seen, (std::vector<int>{0, 32, 40}));
}

TEST_F(SocketSession, ClientThatLeavesInMidRequestDisturbsNobody) {
    const auto stays = connect();
    auto leaves = connect();
    leaves->send("{\"exec\": \"show ver");
    rig.platform.run_ready();
    leaves.reset();
    rig.platform.run_ready();
    EXPECT_EQ(ask(*stays, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SocketSession, ClientThatLeavesBeforeItsReplyDisturbsNobody) {
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("much", "", qv::cli::end_of_line(print_much)), "test");
    const auto stays = connect();
    auto leaves = connect();
    leaves->send("{\"exec\": \"much\"}\n{\"exec\": \"much\"}\n{\"exec\": \"much\"}\n");
    leaves.reset();
    rig.platform.run_ready();
    EXPECT_EQ(ask(*stays, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SocketSession, ClientThatNeverReadsIsNotServedFurtherAndDroppedInTheEnd) {
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("much", "", qv::cli::end_of_line([](cli_pcdb* pcdb) {
                                         ++g_count;
                                         return print_much(pcdb);
                                     })),
                    "test");
    const auto client = connect();
    const auto other = connect();
    for (int i = 0; i < 1000; ++i) {
        client->send("{\"exec\": \"much\"}\n");
    }
    rig.platform.run_ready();
    // 100 KB each: a socket buffer's worth was executed, not a thousand.
    EXPECT_LT(g_count, 20);
    EXPECT_GT(g_count, 0);
    EXPECT_EQ(ask(*other, R"({"exec": "show version"})"), kVersionReply);
    rig.platform.run_for(std::chrono::seconds(61));
    client->receive();
    EXPECT_TRUE(client->closed_by_server());
    EXPECT_EQ(ask(*other, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SocketSession, ClientThatReadsLateGetsEveryReply) {
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("much", "", qv::cli::end_of_line(print_much)), "test");
    const auto client = connect();
    for (int i = 0; i < 50; ++i) {
        client->send("{\"exec\": \"much\"}\n");
    }
    client->send("{\"exec\": \"show version\"}\n");
    std::string all;
    for (int i = 0; i < 1000 && !all.ends_with(kVersionReply); ++i) {
        rig.platform.run_ready();
        all += client->receive();
    }
    EXPECT_TRUE(all.ends_with(kVersionReply));
    EXPECT_GT(all.size(), 50U * 100 * 1000);
}

TEST_F(SocketSession, HalfClosedClientStillGetsItsReplies) {
    const auto client = connect();
    // More than one turn's worth of requests.
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("count", "", qv::cli::end_of_line(count_calls)), "test");
    std::string requests;
    for (int i = 0; i < 40; ++i) {
        requests += "{\"exec\": \"count\"}\n";
    }
    client->send(requests + "{\"exec\": \"show version\"}\n{\"exec\": \"half");
    client->end_output();
    rig.platform.run_ready();
    EXPECT_EQ(g_count, 40);
    EXPECT_TRUE(client->receive().ends_with(kVersionReply));
    EXPECT_TRUE(client->closed_by_server());
}

TEST_F(SocketSession, HalfClosedClientThatReadsLateGetsEveryReply) {
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("much", "", qv::cli::end_of_line(print_much)), "test");
    const auto client = connect();
    // The last reply is what the session still holds, less than makes it stop reading.
    const std::string more = "{\"exec\": \"much\"}\n";
    client->send(more + more + more + "{\"exec\": \"show version\"}\n");
    client->end_output();
    std::string all;
    for (int i = 0; i < 1000 && !client->closed_by_server(); ++i) {
        rig.platform.run_ready();
        char some[1000];
        all.append(some, client->receive_some(some, sizeof some));
    }
    EXPECT_GT(all.size(), 3U * 100 * 1000);
    EXPECT_TRUE(all.ends_with(kVersionReply));
}

int g_count_at_mark = -1;

TEST_F(SocketSession, ClientWithManyRequestsWaitingDoesNotHoldUpTheOthers) {
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("count", "", qv::cli::end_of_line(count_calls)), "test");
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("mark", "", qv::cli::end_of_line([](cli_pcdb*) {
                                         g_count_at_mark = g_count;
                                         return 0;
                                     })),
                    "test");
    const auto busy = connect();
    const auto other = connect();
    rig.platform.run_ready();
    std::string requests;
    for (int i = 0; i < 200; ++i) {
        requests += "{\"exec\": \"count\"}\n";
    }
    busy->send(requests);
    other->send("{\"exec\": \"mark\"}\n");
    rig.platform.run_ready();
    EXPECT_EQ(g_count_at_mark, 16);
    EXPECT_EQ(g_count, 200);
}

TEST_F(SocketSession, MonitoringSessionIsShownMessagesAndOthersAreNot) {
    const auto monitors = connect();
    const auto other = connect();
    ask(*monitors, R"({"exec": "terminal monitor"})");
    ask(*other, R"({"exec": "show version"})");
    printk_syslog_ext(4, "LDA", "LOOP_DETECT", "Detected loop error on interface %s.\r\n", "swp1");
    printk_syslog(4, "LDA", "QUIET", "not for terminals");
    rig.platform.run_ready();
    EXPECT_EQ(monitors->receive(),
              "{\"monitor\":\"%LDA-4-LOOP_DETECT: Detected loop error on interface swp1.\"}\n");
    EXPECT_EQ(other->receive(), "");
    ask(*monitors, R"({"exec": "terminal monitor no"})");
    ask(*monitors, R"({"exec": "terminal no monitor"})");
    printk_syslog_ext(4, "LDA", "LOOP_DETECT", "again");
    rig.platform.run_ready();
    EXPECT_EQ(monitors->receive(), "");
}

TEST_F(SocketSession, MonitoringClientThatNeverReadsUsesOnlyItsBuffer) {
    const auto client = connect();
    ask(*client, R"({"exec": "terminal monitor"})");
    for (int i = 0; i < 20000; ++i) {
        printk_syslog_ext(6, "LDA", "FLOOD", "%0100d", i);
    }
    rig.platform.run_ready();
    // The messages sent before the buffers were full, complete ones only.
    const std::string shown = client->receive();
    EXPECT_LT(shown.size(), 2000000U);
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})").ends_with(kVersionReply), true);
}

TEST_F(SocketSession, RunningOutOfDescriptorsOrMemoryIsSurvived) {
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        const auto first = connect();
        rig.platform.run_ready();
        const auto waiting = connect();
        g_refused_accepts = 0;
        g_accept_error = error;
        rig.platform.run_ready();
        EXPECT_EQ(g_refused_accepts, 1) << "a listener that stays readable must not spin";
        EXPECT_EQ(ask(*first, R"({"exec": "show version"})"), kVersionReply);
        g_accept_error = 0;
        rig.platform.run_for(std::chrono::milliseconds(999));
        waiting->send("{\"exec\": \"show version\"}\n");
        rig.platform.run_ready();
        EXPECT_EQ(waiting->receive(), "");
        rig.platform.run_for(std::chrono::milliseconds(1));
        EXPECT_EQ(waiting->receive(), kVersionReply);
    }
}

TEST_F(SocketSession, ClientThatLeavesTheQueueKeepsNobodyWaiting) {
    const auto client = connect();
    g_accept_error = ECONNABORTED;
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})"), kVersionReply);
    EXPECT_EQ(g_refused_accepts, 1);
}

TEST_F(SocketSession, RequestOf64KiBIsServedAndOneMoreByteIsTooMuch) {
    const std::string exact = [] {
        const std::string request = R"({"exec": "show version"})";
        return request + std::string(65536 - request.size(), ' ');
    }();
    for (const bool more : {false, true}) {
        const auto client = connect();
        const std::string request = exact + (more ? " \n" : "\n");
        std::string reply;
        for (size_t sent = 0; sent < request.size();) {
            sent += client->send(request.substr(sent, 8192));
            rig.platform.run_ready();
            reply += client->receive();
        }
        EXPECT_EQ(reply, more ? "{\"output\":\"% Request too long.\\n\",\"prompt\":\"lda# \","
                                "\"result\":-1}\n"
                              : kVersionReply);
    }
}

class SlowClient : public SocketSession {
 protected:
    SlowClient() {
        qv::cli::attach(qv::cli::kChainView,
                        qv::cli::keyword("much", "", qv::cli::end_of_line(print_much)), "test");
        // More than the kernel's buffer holds.
        for (int i = 0; i < 8; ++i) {
            client->send("{\"exec\": \"much\"}\n");
        }
        rig.platform.run_ready();
    }

    std::unique_ptr<WireClient> client = connect();
};

TEST_F(SlowClient, ThatReadsALittleEveryMinuteIsNeverDropped) {
    char some[40960];
    size_t got = 0;
    while (got < 8U * 100 * 1000) {
        rig.platform.run_for(std::chrono::seconds(59));
        const size_t size = client->receive_some(some, sizeof some);
        ASSERT_GT(size, 0U) << "dropped after " << got << " bytes";
        got += size;
        rig.platform.run_ready();
    }
}

TEST_F(SlowClient, ThatHasCaughtUpIsNotDropped) {
    rig.platform.run_for(std::chrono::seconds(30));
    std::string all;
    for (int i = 0; i < 100; ++i) {
        all += client->receive();
        rig.platform.run_ready();
    }
    EXPECT_GT(all.size(), 8U * 100 * 1000);
    rig.platform.run_for(std::chrono::seconds(120));
    EXPECT_EQ(ask(*client, R"({"exec": "show version"})"), kVersionReply);
}

TEST_F(SlowClient, ThatReadsNothingForAMinuteIsDropped) {
    rig.platform.run_for(std::chrono::seconds(59));
    client->receive();
    rig.platform.run_for(std::chrono::seconds(59));
    EXPECT_FALSE(client->closed_by_server());
    rig.platform.run_for(std::chrono::seconds(2));
    client->receive();
    EXPECT_TRUE(client->closed_by_server());
}

TEST_F(SocketSession, ClientThatWaitsWhenTheFileIsRemovedIsServed) {
    rig.platform.run_for(std::chrono::milliseconds(4500));
    const auto client = connect();
    client->send("{\"exec\": \"show version\"}\n");
    g_accept_error = EMFILE;
    rig.platform.run_ready();
    g_accept_error = 0;
    EXPECT_EQ(client->receive(), "");
    ::unlink(rig.platform.settings.cli_socket.c_str());
    rig.platform.run_for(std::chrono::milliseconds(500));
    EXPECT_EQ(client->receive(), kVersionReply);
}

TEST_F(SocketSession, RemovedPortEndsTheModeOfItsSession) {
    const auto client = connect();
    ask(*client, R"({"exec": "configure terminal"})");
    ask(*client, R"({"exec": "interface swp2"})");
    rig.hardware.remove(102);
    EXPECT_EQ(ask(*client, R"({"exec": "shutdown"})"),
              "{\"output\":\"% The interface does not exist.\\n\",\"prompt\":\"lda(config)# \","
              "\"result\":-1}\n");
}

TEST_F(SocketSession, StaleSocketIsReplacedAndOneInUseIsNot) {
    qv::EventLoop& loop = rig.platform.loop();
    const std::string path = rig.folder.file("second.sock");
    {
        const int left_behind = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(left_behind, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::close(left_behind);
    }
    const qv::cli::SocketServer server(loop, path, {});
    EXPECT_THROW(qv::cli::SocketServer(loop, path, {}), std::runtime_error);
    const std::string file = rig.folder.file("file");
    qv::test::write_text(file, "precious");
    EXPECT_THROW(qv::cli::SocketServer(loop, file, {}), std::runtime_error);
    EXPECT_EQ(qv::test::read_text(file), "precious");
    EXPECT_THROW(qv::cli::SocketServer(loop, "/" + std::string(200, 'x'), {}), std::runtime_error);
}

}  // namespace
