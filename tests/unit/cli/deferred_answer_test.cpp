// Commands that answer later: who waits for them, and for how long.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using qv::cli::Completion;
using qv::cli::Result;
using qv::test::WireClient;

constexpr const char* kVersion = "{\"exec\": \"show version\"}\n";
constexpr const char* kVersionReply =
    "{\"output\":\"lda 0.1.0\\n\",\"prompt\":\"lda# \",\"result\":0}\n";
constexpr const char* kSlow = "{\"exec\": \"slow\"}\n";
constexpr const char* kSlowReply =
    "{\"output\":\"begun\\ndone\\n\",\"prompt\":\"lda# \",\"result\":3}\n";

std::vector<Completion> g_deferred;
int g_refused = 0;

// Prints a line, and answers at once when it cannot defer.
int run_slow(cli_pcdb*) {
    cli_printf("begun\n");
    Completion later = qv::cli::defer();
    if (!later) {
        ++g_refused;
        return 7;
    }
    EXPECT_FALSE(qv::cli::defer()) << "an answer is deferred once";
    g_deferred.push_back(std::move(later));
    return 5;
}

int run_slow_inline(cli_pcdb*) {
    qv::cli::SessionState inner;
    return qv::cli::execute(inner, "slow").code;
}

class DeferredAnswer : public ::testing::Test {
 protected:
    DeferredAnswer() {
        using namespace qv::cli;
        attach(kChainView, keyword("slow", "", end_of_line(run_slow)), "test");
        attach(kChainView, keyword("inner", "", end_of_line(run_slow_inline)), "test");
        attach(CLI_CHAIN_INTERFACE, keyword("slow", "", end_of_line(run_slow)), "test");
    }

    void finish(size_t which) { g_deferred.at(which)({3, "done\n"}); }

    qv::test::CliRig rig;
    std::vector<Result> results;
    Completion keep = [this](Result result) {
        results.push_back(std::move(result));
    };
};

TEST_F(DeferredAnswer, IsSentOnceWithTheOutputOfBothParts) {
    qv::cli::execute(rig.session, "slow", keep);
    EXPECT_TRUE(results.empty());
    finish(0);
    finish(0);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].code, 3);
    EXPECT_EQ(results[0].output, "begun\ndone\n");
}

TEST_F(DeferredAnswer, OfASessionThatIsGoneIsStillHandedOver) {
    auto session = std::make_unique<qv::cli::SessionState>();
    qv::cli::execute(*session, "slow", keep);
    session.reset();
    finish(0);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].code, 3);
}

TEST_F(DeferredAnswer, MayBeGivenBeforeTheHandlerReturns) {
    using namespace qv::cli;
    attach(kChainView, keyword("hasty", "", end_of_line([](cli_pcdb*) {
                                   const Completion later = defer();
                                   later({2, "early\n"});
                                   cli_printf("lost\n");
                                   return 9;
                               })),
           "test");
    execute(rig.session, "hasty", keep);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].code, 2);
    EXPECT_EQ(results[0].output, "early\n");
}

TEST_F(DeferredAnswer, CommandThatDoesNotDeferAnswersAtOnce) {
    qv::cli::execute(rig.session, "show version", keep);
    qv::cli::execute(rig.session, "frobnicate", keep);
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0].code, 0);
    EXPECT_EQ(results[0].output, "lda 0.1.0\n");
    EXPECT_EQ(results[1].code, -1);
    EXPECT_EQ(results[1].output, "% Unknown command: 'frobnicate'.\n");
}

TEST_F(DeferredAnswer, IsRefusedWhereNobodyCanWait) {
    EXPECT_FALSE(qv::cli::defer()) << "no command";
    const Result result = qv::cli::execute(rig.session, "slow");
    EXPECT_EQ(result.code, 7);
    EXPECT_EQ(result.output, "begun\n");
    // The line that a handler executes runs inline, even when the handler itself could wait.
    qv::cli::execute(rig.session, "inner", keep);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].code, 7);
    // One line of a range is several commands.
    rig.session.mode = qv::cli::kModeRange;
    rig.session.range = {101, 102};
    qv::cli::execute(rig.session, "slow", keep);
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[1].code, 7);
    EXPECT_EQ(g_refused, 4);
    EXPECT_TRUE(g_deferred.empty());
}

TEST_F(DeferredAnswer, LaterRequestsWaitInOrderAndOtherSessionsDoNot) {
    WireClient client(rig.platform.settings.cli_socket);
    WireClient other(rig.platform.settings.cli_socket);
    client.send(std::string(kVersion) + kSlow + kSlow + kVersion);
    other.send(kVersion);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), kVersionReply);
    EXPECT_EQ(other.receive(), kVersionReply);
    ASSERT_EQ(g_deferred.size(), 1U) << "one command of a session at a time";
    client.send(kVersion);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), "");
    finish(0);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), kSlowReply);
    ASSERT_EQ(g_deferred.size(), 2U);
    finish(1);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), std::string(kSlowReply) + kVersionReply + kVersionReply);
}

TEST_F(DeferredAnswer, SessionThatWaitsForItRefusesAnEndlessRequest) {
    WireClient client(rig.platform.settings.cli_socket);
    client.send(kSlow);
    rig.platform.run_ready();
    size_t sent = 0;
    for (int i = 0; i < 2000; ++i) {
        sent += client.send(std::string(1024, 'x'));
        rig.platform.run_ready();
    }
    EXPECT_LT(sent, 1500U * 1024) << "what the session and the kernel's buffers hold";
    finish(0);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(),
              std::string(kSlowReply) +
                  "{\"output\":\"% Request too long.\\n\",\"prompt\":\"lda# \",\"result\":-1}\n");
    EXPECT_TRUE(client.closed_by_server());
}

TEST_F(DeferredAnswer, ClientThatHasLeftIsNotAnswered) {
    WireClient other(rig.platform.settings.cli_socket);
    {
        WireClient client(rig.platform.settings.cli_socket);
        client.send(kSlow);
        rig.platform.run_ready();
    }
    rig.platform.run_ready();
    finish(0);
    rig.platform.run_ready();
    other.send(kVersion);
    rig.platform.run_ready();
    EXPECT_EQ(other.receive(), kVersionReply);
}

TEST_F(DeferredAnswer, HalfClosedClientStillGetsIt) {
    WireClient client(rig.platform.settings.cli_socket);
    client.send(std::string(kSlow) + kVersion);
    client.end_output();
    rig.platform.run_ready();
    EXPECT_FALSE(client.closed_by_server());
    finish(0);
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(), std::string(kSlowReply) + kVersionReply);
    EXPECT_TRUE(client.closed_by_server());
}

TEST_F(DeferredAnswer, OfASessionThatIsDestroyedTouchesNothing) {
    {
        WireClient client(rig.platform.settings.cli_socket);
        client.send(std::string("{\"exec\": \"terminal monitor\"}\n") + kSlow + kSlow);
        rig.platform.run_ready();
        client.receive();
    }
    // A message that cannot be sent ends the session.
    printk_syslog_ext(4, "LDA", "NOTE", "nobody reads this");
    rig.platform.run_ready();
    finish(0);
    rig.platform.run_ready();
    EXPECT_EQ(g_deferred.size(), 1U) << "the second request went with the session";
}

}  // namespace
