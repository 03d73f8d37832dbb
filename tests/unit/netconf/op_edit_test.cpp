// <edit-config>, <copy-config> and <validate>: the requests to the agent and the answers to the
// client.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;
using netconf::EditTurn;
using qv::RunningLock;

namespace {

using Texts = std::vector<std::string>;

const std::string kLeafPath = "/qvld:loop-detect/qvld:loop-policy";
const std::string kRefused =
    "the loop-detection agent refused the request (result 7); nothing was changed";

std::string leaf(const std::string& policy) {
    return "<loop-detect xmlns=\"" + kModelNamespace + "\"><loop-policy>" + policy +
           "</loop-policy></loop-detect>";
}

std::string edit(const std::string& config, const std::string& options = "") {
    return "<edit-config><target><running/></target>" + options + "<config>" + config +
           "</config></edit-config>";
}

std::string copy(const std::string& source) {
    return "<copy-config><target><running/></target><source>" + source + "</source></copy-config>";
}

std::string validate(const std::string& source) {
    return "<validate><source>" + source + "</source></validate>";
}

class Edits : public ServedSession {
 protected:
    void SetUp() override {
        ServedSession::SetUp();
        run_agent();
    }
};

TEST_F(Edits, PolicyIsRequestedFromTheAgent) {
    EXPECT_EQ(reply_to(edit(leaf("3"))), "<ok/>");
    EXPECT_EQ(requests(), Texts{"2 3"});
}

TEST_F(Edits, OperationOfTheLeafIsRequestedFromTheAgent) {
    publish_policy(4);
    const auto with = [](const std::string& operation) {
        return edit("<loop-detect xmlns=\"" + kModelNamespace + "\"><loop-policy xmlns:nc=\"" +
                    kBaseNamespace + "\" nc:operation=\"" + operation + "\"/></loop-detect>");
    };
    EXPECT_EQ(reply_to(with("delete")), "<ok/>");
    EXPECT_EQ(reply_to(with("remove")), "<ok/>");
    EXPECT_EQ(requests(), (Texts{"3 0", "4 0"}));
}

TEST_F(Edits, DefaultOperationIsMergeUnlessGiven) {
    publish_policy(2);
    const std::string nothing = "<loop-detect xmlns=\"" + kModelNamespace + "\"/>";
    const auto by = [](const std::string& operation) {
        return "<default-operation>" + operation + "</default-operation>";
    };
    EXPECT_EQ(reply_to(edit(nothing)), "<ok/>");
    EXPECT_EQ(reply_to(edit(nothing, by("merge"))), "<ok/>");
    EXPECT_EQ(reply_to(edit(leaf("1"), by("none"))), "<ok/>");
    EXPECT_EQ(requests(), Texts{});
    EXPECT_EQ(reply_to(edit(nothing, by("replace"))), "<ok/>");
    EXPECT_EQ(reply_to(edit(leaf("1"), by("merge"))), "<ok/>");
    EXPECT_EQ(requests(), (Texts{"3 0", "2 1"}));
}

TEST_F(Edits, PolicyInForceDecides) {
    const std::string create =
        edit("<loop-detect xmlns=\"" + kModelNamespace + "\"><loop-policy xmlns:nc=\"" +
             kBaseNamespace + "\" nc:operation=\"create\">1</loop-policy></loop-detect>");
    EXPECT_EQ(reply_to(create), "<ok/>");
    publish_policy(1);
    EXPECT_EQ(reply_to(create), (ErrorText{.type = "application",
                                           .tag = "data-exists",
                                           .message = "loop-policy is set already",
                                           .path = kLeafPath}
                                     .xml()));
    EXPECT_EQ(requests(), Texts{"2 1"});
}

TEST_F(Edits, TestOnlyAsksForNothing) {
    const auto option = [](const std::string& name) {
        return "<test-option>" + name + "</test-option>";
    };
    EXPECT_EQ(reply_to(edit(leaf("1"), option("test-only"))), "<ok/>");
    EXPECT_EQ(requests(), Texts{});
    EXPECT_EQ(reply_to(edit(leaf("1"), option("set"))), "<ok/>");
    EXPECT_EQ(reply_to(edit(leaf("2"), option("test-then-set"))), "<ok/>");
    EXPECT_EQ(requests(), (Texts{"2 1", "2 2"}));
}

TEST_F(Edits, TestOnlyRefusesTheSameRequestsAsAnEdit) {
    EXPECT_EQ(reply_to(edit(leaf("5"), "<test-option>test-only</test-option>")),
              (ErrorText{.type = "application",
                         .tag = "invalid-value",
                         .message = "loop-policy is a number from 0 to 4, not \"5\"",
                         .path = kLeafPath}
                   .xml()));
}

TEST_F(Edits, RollbackIsNotPromised) {
    EXPECT_EQ(reply_to(edit(leaf("3"), "<error-option>rollback-on-error</error-option>")),
              (ErrorText{.type = "protocol",
                         .tag = "invalid-value",
                         .message = "rollback-on-error is not supported"}
                   .xml()));
    EXPECT_EQ(requests(), Texts{});
    EXPECT_EQ(reply_to(edit(leaf("3"), "<error-option>continue-on-error</error-option>")), "<ok/>");
}

TEST_F(Edits, ConfigurationOfTextIsRefused) {
    const std::string refusal = ErrorText{.type = "protocol",
                                          .tag = "bad-element",
                                          .message = "the configuration is text, not elements",
                                          .info = "<bad-element>config</bad-element>"}
                                    .xml();
    EXPECT_EQ(reply_to(edit("text")), refusal);
    EXPECT_EQ(reply_to(copy("<config>text</config>")), refusal);
    EXPECT_EQ(reply_to(validate("<config>text</config>")), refusal);
    EXPECT_EQ(requests(), Texts{});
}

TEST_F(Edits, RefusalOfTheAgentIsTheClientsError) {
    run_agent(7);
    EXPECT_EQ(reply_to(edit(leaf("3"))), (ErrorText{.type = "application",
                                                    .tag = "operation-failed",
                                                    .message = kRefused,
                                                    .path = kLeafPath}
                                              .xml()));
}

TEST_F(Edits, LockOfAnotherSessionForbidsThem) {
    RunningLock other(runtime_dir(), 300, "eve");
    other.take();
    const std::string refusal =
        ErrorText{.type = "application", .tag = "in-use", .message = "session 300 holds the lock"}
            .xml();
    EXPECT_EQ(reply_to(edit(leaf("3"))), refusal);
    EXPECT_EQ(reply_to(copy("<config>" + leaf("3") + "</config>")), refusal);
    EXPECT_EQ(requests(), Texts{});
    other.release();
    EXPECT_EQ(reply_to(edit(leaf("3"))), "<ok/>");
}

TEST_F(Edits, LockOfTheShellForbidsThem) {
    RunningLock shell(runtime_dir(), 0, "root (uid 0, pid 812)");
    shell.take();
    EXPECT_EQ(reply_to(edit(leaf("3"))),
              (ErrorText{.type = "application",
                         .tag = "in-use",
                         .message = "the operator root (uid 0, pid 812) holds the lock"}
                   .xml()));
    EXPECT_EQ(requests(), Texts{});
}

TEST_F(Edits, LockOfThisSessionAllowsThem) {
    session().lock.take();
    EXPECT_EQ(reply_to(edit(leaf("3"))), "<ok/>");
    EXPECT_EQ(requests(), Texts{"2 3"});
}

TEST_F(Edits, AreRefusedWhileAnotherSessionEdits) {
    const EditTurn other(runtime_dir());
    const std::string refusal =
        ErrorText{.type = "application", .tag = "in-use", .message = "another session is editing"}
            .xml();
    EXPECT_EQ(reply_to(edit(leaf("3"))), refusal);
    EXPECT_EQ(reply_to(copy("<config/>")), refusal);
    EXPECT_EQ(requests(), Texts{});
}

TEST_F(Edits, KeepTheirTurnUntilTheAgentHasAnswered) {
    bool other_had_turn = true;
    database().on_publish([&](const std::string&, const std::string&) {
        other_had_turn = EditTurn(runtime_dir()).ours();
        advance_clock(std::chrono::seconds(3));  // the answer never arrives
    });
    EXPECT_EQ(reply_to(edit(leaf("3"))),
              (ErrorText{.type = "application",
                         .tag = "operation-failed",
                         .message = "the loop-detection agent did not answer within 2 s; the agent "
                                    "may still do what was asked",
                         .path = kLeafPath}
                   .xml()));
    EXPECT_FALSE(other_had_turn);
    EXPECT_TRUE(EditTurn(runtime_dir()).ours());
}

TEST_F(Edits, CopyReplacesTheConfiguration) {
    publish_policy(2);
    EXPECT_EQ(reply_to(copy("<config>" + leaf("1") + "</config>")), "<ok/>");
    EXPECT_EQ(reply_to(copy("<config/>")), "<ok/>");
    EXPECT_EQ(requests(), (Texts{"2 1", "3 0"}));
}

TEST_F(Edits, RunningConfigurationIsNotCopiedOntoItself) {
    EXPECT_EQ(reply_to(copy("<running/>")),
              (ErrorText{.type = "protocol",
                         .tag = "invalid-value",
                         .message = "the running configuration cannot be copied onto itself"}
                   .xml()));
    EXPECT_EQ(requests(), Texts{});
}

TEST_F(Edits, ValidationIsThatOfTheGivenConfigurationAlone) {
    publish_policy(2);
    EXPECT_EQ(reply_to(validate("<running/>")), "<ok/>");
    EXPECT_EQ(reply_to(validate("<config>" + leaf("4") + "</config>")), "<ok/>");
    const std::string create = "<loop-detect xmlns=\"" + kModelNamespace +
                               "\"><loop-policy xmlns:nc=\"" + kBaseNamespace +
                               "\" nc:operation=\"create\">1</loop-policy></loop-detect>";
    EXPECT_EQ(reply_to(validate("<config>" + create + "</config>")), "<ok/>");
    EXPECT_EQ(reply_to(validate("<config>" + leaf("9") + "</config>")),
              (ErrorText{.type = "application",
                         .tag = "invalid-value",
                         .message = "loop-policy is a number from 0 to 4, not \"9\"",
                         .path = kLeafPath}
                   .xml()));
    EXPECT_EQ(requests(), Texts{});
}

TEST_F(Edits, ValidationDoesWithoutTheDatabase) {
    lose_database();
    EXPECT_EQ(reply_to(validate("<config>" + leaf("4") + "</config>")), "<ok/>");
}

TEST_F(Edits, FailWithoutTheDatabase) {
    const std::string reason = lose_database();
    EXPECT_EQ(
        reply_to(edit(leaf("1"))),
        (ErrorText{.type = "application", .tag = "operation-failed", .message = reason}.xml()));
}

}  // namespace
