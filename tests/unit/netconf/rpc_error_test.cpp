// The <rpc-error> that each tag becomes (RFC 6241, appendix A, says what it carries).
#include "services/netconf/rpc_error.h"

#include <gtest/gtest.h>

#include <string>

#include "services/netconf/schema.h"
#include "tests/unit/netconf/intercepted.h"

using netconf::Context;
using netconf::RpcError;

namespace {

class Error : public testing::Test {
 protected:
    void SetUp() override { netconf::test::reset_interception(); }

    // The XML of the reply, without the element around it.
    std::string xml_of(const RpcError& error) {
        nc_server_reply* const reply = netconf::reply_of(context_.get(), error);
        EXPECT_NE(reply, nullptr);
        nc_server_reply_free(reply);
        const std::string xml = netconf::test::last_error_xml();
        const size_t start = xml.find('>') + 1;
        return xml.substr(start, xml.rfind("</rpc-error>") - start);
    }

    static std::string head(const std::string& type, const std::string& tag) {
        return "<error-type>" + type + "</error-type><error-tag>" + tag +
               "</error-tag><error-severity>error</error-severity>";
    }

    static std::string message(const std::string& text) {
        return "<error-message xml:lang=\"en\">" + text + "</error-message>";
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
};

TEST_F(Error, TagsThatCarryAttributeAndElementNameBoth) {
    const std::string info =
        "<error-info><bad-attribute>select</bad-attribute><bad-element>filter</bad-element>"
        "</error-info>";
    for (const auto& [tag, name] : {std::pair{NC_ERR_MISSING_ATTR, "missing-attribute"},
                                    {NC_ERR_BAD_ATTR, "bad-attribute"},
                                    {NC_ERR_UNKNOWN_ATTR, "unknown-attribute"}}) {
        EXPECT_EQ(xml_of(RpcError(tag, NC_ERR_TYPE_PROT, "why").about("filter", "select")),
                  head("protocol", name) + message("why") + info);
    }
}

TEST_F(Error, TagsThatCarryAnElementNameIt) {
    const std::string info = "<error-info><bad-element>target</bad-element></error-info>";
    for (const auto& [tag, name] : {std::pair{NC_ERR_MISSING_ELEM, "missing-element"},
                                    {NC_ERR_BAD_ELEM, "bad-element"},
                                    {NC_ERR_UNKNOWN_ELEM, "unknown-element"}}) {
        EXPECT_EQ(xml_of(RpcError(tag, NC_ERR_TYPE_APP, "why").about("target")),
                  head("application", name) + message("why") + info);
    }
}

TEST_F(Error, UnknownNamespaceNamesTheElementAndTheNamespace) {
    EXPECT_EQ(xml_of(RpcError(NC_ERR_UNKNOWN_NS, NC_ERR_TYPE_APP, "why")
                         .about("other")
                         .in_namespace("urn:other")),
              head("application", "unknown-namespace") + message("why") +
                  "<error-info><bad-element>other</bad-element><bad-namespace>urn:other"
                  "</bad-namespace></error-info>");
}

TEST_F(Error, DeniedLockNamesItsHolder) {
    EXPECT_EQ(xml_of(RpcError(NC_ERR_LOCK_DENIED, NC_ERR_TYPE_PROT, "why").held_by(17)),
              head("protocol", "lock-denied") + message("why") +
                  "<error-info><session-id>17</session-id></error-info>");
}

TEST_F(Error, DataTagsAreTheApplications) {
    for (const auto& [tag, name] :
         {std::pair{NC_ERR_DATA_EXISTS, "data-exists"}, {NC_ERR_DATA_MISSING, "data-missing"}}) {
        EXPECT_EQ(xml_of(RpcError(tag, NC_ERR_TYPE_APP, "why")),
                  head("application", name) + message("why"));
    }
    EXPECT_EQ(xml_of(RpcError(NC_ERR_MALFORMED_MSG, NC_ERR_TYPE_RPC, "why")),
              head("rpc", "malformed-message") + message("why"));
}

TEST_F(Error, OtherTagsCarryTheirType) {
    for (const auto& [tag, name] : {std::pair{NC_ERR_IN_USE, "in-use"},
                                    {NC_ERR_INVALID_VALUE, "invalid-value"},
                                    {NC_ERR_ACCESS_DENIED, "access-denied"},
                                    {NC_ERR_OP_NOT_SUPPORTED, "operation-not-supported"},
                                    {NC_ERR_OP_FAILED, "operation-failed"}}) {
        EXPECT_EQ(xml_of(RpcError(tag, NC_ERR_TYPE_PROT, "why")),
                  head("protocol", name) + message("why"));
    }
}

TEST_F(Error, PathDeclaresItsPrefix) {
    EXPECT_EQ(xml_of(RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP, "a < \"b\"",
                              "/qvld:loop-detect/qvld:loop-policy")),
              head("application", "invalid-value") +
                  "<error-path xmlns:qvld=\"urn:qv:yang:qv-loop-detect-server\">"
                  "/qvld:loop-detect/qvld:loop-policy</error-path>" +
                  message("a &lt; \"b\""));
}

TEST_F(Error, UnknownTagHasNoReply) {
    EXPECT_EQ(netconf::reply_of(context_.get(), RpcError(NC_ERR_UNKNOWN, NC_ERR_TYPE_APP, "why")),
              nullptr);
}

}  // namespace
