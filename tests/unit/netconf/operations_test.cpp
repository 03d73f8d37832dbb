// The checks of requests before their operations run, and the answers to failures.
#include "services/netconf/operations.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;
using qv::RunningLock;

namespace {

const std::string kTarget = "<target><running/></target>";
const std::string kSource = "<source><running/></source>";

std::string missing(const std::string& name) {
    return ErrorText{.type = "protocol",
                     .tag = "missing-element",
                     .message = "\"" + name + "\" is missing",
                     .info = "<bad-element>" + name + "</bad-element>"}
        .xml();
}

std::string bad(const std::string& name, const std::string& message) {
    return ErrorText{.type = "protocol",
                     .tag = "bad-element",
                     .message = "\"" + name + "\" " + message,
                     .info = "<bad-element>" + name + "</bad-element>"}
        .xml();
}

class Operations : public ServedSession {};

TEST_F(Operations, ParameterThatIsMissingIsNamed) {
    const std::vector<std::pair<std::string, std::string>> requests{
        {"<get-config/>", "source"},
        {"<get-schema xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"/>",
         "identifier"},
        {"<edit-config><config/></edit-config>", "target"},
        {"<edit-config>" + kTarget + "</edit-config>", "config"},
        {"<copy-config><source><config/></source></copy-config>", "target"},
        {"<copy-config>" + kTarget + "</copy-config>", "source"},
        {"<validate/>", "source"},
        {"<lock/>", "target"},
        {"<unlock/>", "target"},
        {"<kill-session/>", "session-id"},
    };
    for (const auto& [request, name] : requests) {
        EXPECT_EQ(reply_to(request), missing(name)) << request;
    }
    EXPECT_FALSE(session().lock.mine());
}

TEST_F(Operations, ParameterThatIsGivenTwiceIsRefused) {
    EXPECT_EQ(reply_to("<get><filter/><filter/></get>"), bad("filter", "is given twice"));
    EXPECT_EQ(reply_to("<lock>" + kTarget + kTarget + "</lock>"), bad("target", "is given twice"));
    EXPECT_EQ(reply_to("<edit-config>" + kTarget +
                       "<config/><test-option>set</test-option><config/></edit-config>"),
              bad("config", "is given twice"));
    EXPECT_FALSE(session().lock.mine());
}

TEST_F(Operations, ParameterOfADatastoreNamesOne) {
    EXPECT_EQ(reply_to("<lock><target/></lock>"), bad("target", "must name one datastore"));
    EXPECT_EQ(reply_to("<validate><source><running/><config/></source></validate>"),
              bad("source", "must name one datastore"));
    EXPECT_EQ(reply_to("<get-config><source/></get-config>"),
              bad("source", "must name one datastore"));
    EXPECT_FALSE(session().lock.mine());
}

TEST_F(Operations, ConfigurationMayHoldAnyNumberOfElements) {
    EXPECT_EQ(reply_to("<edit-config>" + kTarget + "<config/></edit-config>"), "<ok/>");
    EXPECT_EQ(reply_to("<get-config>" + kSource +
                       "<filter><a xmlns=\"urn:a\"/><b xmlns=\"urn:b\"/></filter></get-config>"),
              "<data/>");
}

TEST_F(Operations, OnlyTheWriteGroupChangesThings) {
    run_agent();
    reserve_changes_for("admins");
    const std::string denied =
        ErrorText{.type = "protocol",
                  .tag = "access-denied",
                  .message = "only members of the group \"admins\" may do this"}
            .xml();
    const std::string config = "<config><loop-detect xmlns=\"" + kModelNamespace +
                               "\"><loop-policy>2</loop-policy></loop-detect></config>";
    EXPECT_EQ(reply_to("<edit-config>" + kTarget + config + "</edit-config>"), denied);
    EXPECT_EQ(reply_to("<copy-config>" + kTarget + "<source>" + config + "</source></copy-config>"),
              denied);
    EXPECT_EQ(reply_to("<lock>" + kTarget + "</lock>"), denied);
    EXPECT_EQ(reply_to("<edit-config/>"), denied) << "before anything is looked at";
    EXPECT_TRUE(requests().empty());
    EXPECT_FALSE(session().lock.mine());
    EXPECT_EQ(reply_to("<get-config>" + kSource + "</get-config>"), "<data/>");
    EXPECT_EQ(reply_to("<validate><source>" + config + "</source></validate>"), "<ok/>");
}

TEST_F(Operations, FailureIsAnErrorOfTheApplication) {
    const std::string reason = lose_database();
    EXPECT_EQ(
        reply_to("<get-config>" + kSource + "</get-config>"),
        (ErrorText{.type = "application", .tag = "operation-failed", .message = reason}.xml()));
}

TEST_F(Operations, NeedTheirModules) {
    ly_ctx* bare = nullptr;
    ASSERT_EQ(ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &bare),
              LY_SUCCESS);
    const netconf::Context context(bare);
    try {
        netconf::start_server(bare);
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "no operation /ietf-netconf:get");
    }
}

}  // namespace
