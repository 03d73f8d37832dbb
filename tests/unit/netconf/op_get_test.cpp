// <get>, <get-config> and <get-schema> as the client reads them.
#include <gtest/gtest.h>

#include <string>

#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;

namespace {

const std::string kMonitoring = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
const std::string kDefaults = "urn:ietf:params:xml:ns:yang:ietf-netconf-with-defaults";
const std::string kFilter = "<filter><loop-detect xmlns=\"" + kModelNamespace + "\"/></filter>";
const std::string kPort =
    "<looped-port><name>swp1</name><policy>1</policy><src-port>false</src-port></looped-port>";

std::string get(const std::string& parameters = "") {
    return "<get>" + parameters + "</get>";
}

std::string get_config(const std::string& parameters = "") {
    return "<get-config><source><running/></source>" + parameters + "</get-config>";
}

std::string get_schema(const std::string& parameters) {
    return "<get-schema xmlns=\"" + kMonitoring + "\">" + parameters + "</get-schema>";
}

std::string with_defaults(const std::string& mode) {
    return "<with-defaults xmlns=\"" + kDefaults + "\">" + mode + "</with-defaults>";
}

std::string data(const std::string& content) {
    return "<data>" + content + "</data>";
}

std::string container(const std::string& content) {
    return "<loop-detect xmlns=\"" + kModelNamespace + "\">" + content + "</loop-detect>";
}

std::string policy(const std::string& value) {
    return "<loop-policy>" + value + "</loop-policy>";
}

class Gets : public ServedSession {};

TEST_F(Gets, ConfigurationIsThePolicyAlone) {
    publish_port("swp1", 1, false);
    publish_policy(3);
    EXPECT_EQ(reply_to(get_config()), data(container(policy("3"))));
}

TEST_F(Gets, GetReportsConfigurationAndState) {
    publish_port("swp1", 1, false);
    publish_policy(3);
    EXPECT_EQ(reply_to(get(kFilter)), data(container(policy("3") + kPort)));
    const std::string everything = reply_to(get());
    EXPECT_NE(everything.find(container(policy("3") + kPort)), std::string::npos);
    EXPECT_NE(everything.find("<netconf-state xmlns=\"" + kMonitoring + "\">"), std::string::npos);
}

TEST_F(Gets, FilterOfTheConfigurationIsApplied) {
    publish_policy(3);
    EXPECT_EQ(reply_to(get_config("<filter/>")), "<data/>");
    EXPECT_EQ(reply_to(get_config(kFilter)), data(container(policy("3"))));
}

TEST_F(Gets, DefaultPolicyIsReportedOnRequestOnly) {
    publish_port("swp1", 1, false);
    for (const std::string& mode : {std::string(), with_defaults("trim")}) {
        EXPECT_EQ(reply_to(get_config(mode)), "<data/>") << mode;
        EXPECT_EQ(reply_to(get(kFilter + mode)), data(container(kPort))) << mode;
    }
    EXPECT_EQ(reply_to(get_config(with_defaults("report-all"))), data(container(policy("0"))));
    EXPECT_EQ(reply_to(get(kFilter + with_defaults("report-all"))),
              data(container(policy("0") + kPort)));
}

TEST_F(Gets, OtherModesOfDefaultsAreRefused) {
    const std::string refusal = ErrorText{.type = "protocol",
                                          .tag = "operation-not-supported",
                                          .message = "with-defaults can be trim or report-all"}
                                    .xml();
    for (const char* const mode : {"explicit", "report-all-tagged"}) {
        EXPECT_EQ(reply_to(get(with_defaults(mode))), refusal) << mode;
        EXPECT_EQ(reply_to(get_config(with_defaults(mode))), refusal) << mode;
    }
}

TEST_F(Gets, FilterThatSelectsNoNodesIsRefused) {
    const std::string refusal = ErrorText{.type = "protocol",
                                          .tag = "invalid-value",
                                          .message = "the filter \"1 + 1\" selects no nodes"}
                                    .xml();
    const std::string filter = "<filter type=\"xpath\" select=\"1 + 1\"/>";
    EXPECT_EQ(reply_to(get(filter)), refusal);
    EXPECT_EQ(reply_to(get_config(filter)), refusal);
}

TEST_F(Gets, SchemaIsTheModulesText) {
    const std::string text = reply_to(get_schema("<identifier>qv-loop-detect-server</identifier>"));
    const std::string start =
        "<data xmlns=\"" + kMonitoring + "\">module qv-loop-detect-server {\n  yang-version 1;\n";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_NE(text.find("leaf loop-policy {"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 9), "}\n</data>");
}

TEST_F(Gets, SchemaIsEscaped) {
    const std::string text = reply_to(get_schema("<identifier>ietf-netconf</identifier>"));
    EXPECT_NE(text.find("&lt;get-config&gt;"), std::string::npos);
    EXPECT_EQ(text.find("<get-config"), std::string::npos);
}

TEST_F(Gets, SchemaIsFoundByItsRevisionAndFormat) {
    const std::string named = "<identifier>ietf-netconf</identifier>";
    const std::string whole = reply_to(get_schema(named));
    EXPECT_NE(whole.find("module ietf-netconf {"), std::string::npos);
    EXPECT_EQ(reply_to(get_schema(named + "<version>2011-06-01</version><format>yang</format>")),
              whole);
}

TEST_F(Gets, SchemaThatIsNotThereIsRefused) {
    const auto refusal = [](const std::string& message) {
        return ErrorText{.type = "application", .tag = "invalid-value", .message = message}.xml();
    };
    EXPECT_EQ(reply_to(get_schema("<identifier>ietf-netconf-monitoring2</identifier>")),
              refusal("there is no schema \"ietf-netconf-monitoring2\""));
    EXPECT_EQ(reply_to(get_schema("<identifier>ietf-netconf</identifier>"
                                  "<version>2011-06-02</version>")),
              refusal("there is no schema \"ietf-netconf\" of version 2011-06-02"));
    EXPECT_EQ(reply_to(get_schema("<identifier>ietf-netconf</identifier><format>yin</format>")),
              refusal("schemas exist only as yang"));
}

TEST_F(Gets, FailWithoutTheDatabase) {
    const std::string refusal =
        ErrorText{.type = "application", .tag = "operation-failed", .message = lose_database()}
            .xml();
    EXPECT_EQ(reply_to(get()), refusal);
    EXPECT_EQ(reply_to(get_config()), refusal);
}

}  // namespace
