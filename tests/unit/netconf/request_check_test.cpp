// Requests that libnetconf2 cannot parse, and the errors that they are answered with.
#include "services/netconf/request_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;

namespace {

const std::string kModel = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"";
const std::string kId = " message-id=\"1\"";

std::string rpc(const std::string& content, const std::string& attributes = kId) {
    return "<rpc xmlns=\"" + kBaseNamespace + "\"" + attributes + ">" + content + "</rpc>";
}

std::string in_edit(const std::string& content) {
    return "<edit-config><target><running/></target>" + content + "</edit-config>";
}

std::string element(const std::string& name) {
    return "<bad-element>" + name + "</bad-element>";
}

std::string protocol_error(const std::string& tag, const std::string& message,
                           const std::string& info = "") {
    return ErrorText{.type = "protocol", .tag = tag, .message = message, .info = info}.xml();
}

class RequestCheck : public ServedSession {
 protected:
    // The answer to a request that goes through the check.
    std::string answer_to(std::string text) {
        netconf::replace_bad_request(session().context, text);
        return exchange(text);
    }
    // The content of the reply with the message-id of the request.
    std::string error_for(const std::string& operation) {
        return content_of_reply(answer_to(rpc(operation)));
    }
};

TEST_F(RequestCheck, GoodRequestStaysUnchanged) {
    const std::vector<std::string> requests{
        rpc("<get/>"),
        rpc("<get><filter type=\"xpath\" select=\"/a\"/></get>"),
        rpc("<get/>", kId + " xmlns:x=\"urn:x\" x:y=\"2\" z=\"3\""),
        rpc("<get><filter type=\"subtree\"><a xmlns=\"urn:a\"/></filter></get>"),
        rpc(in_edit("<config>" + kModel + " xmlns:nc=\"" + kBaseNamespace +
                    "\" nc:operation=\"remove\"/></config>")),
        rpc(in_edit("<config><a xmlns=\"urn:a\"/></config>")),
        rpc("<close-session/>"),
    };
    for (const std::string& request : requests) {
        std::string text = request;
        netconf::replace_bad_request(session().context, text);
        EXPECT_EQ(text, request);
    }
}

TEST_F(RequestCheck, MissingMessageIdIsNamed) {
    const ErrorText error{.type = "rpc",
                          .tag = "missing-attribute",
                          .message = "the attribute \"message-id\" is missing",
                          .info = "<bad-attribute>message-id</bad-attribute>" + element("rpc")};
    EXPECT_EQ(answer_to(rpc("<get/>", "")),
              "<rpc-reply xmlns=\"" + kBaseNamespace + "\">" + error.xml() + "</rpc-reply>");
    // Also when nothing else is right.
    EXPECT_EQ(answer_to(rpc("<no-such/>", "")),
              "<rpc-reply xmlns=\"" + kBaseNamespace + "\">" + error.xml() + "</rpc-reply>");
}

TEST_F(RequestCheck, AttributesOfTheRequestAreReturned) {
    const std::string more = " message-id=\"a&lt;b\" xmlns:x=\"urn:x\" x:y=\"&quot;\"";
    const std::string start = "<rpc-reply xmlns=\"" + kBaseNamespace + "\"" + more + "><rpc-error>";
    EXPECT_EQ(answer_to(rpc("<no-such/>", more)).substr(0, start.size()), start);
}

TEST_F(RequestCheck, UnknownOperationIsNotSupported) {
    const std::string commit =
        protocol_error("operation-not-supported", "there is no operation \"commit\"");
    EXPECT_EQ(error_for("<commit/>"), commit);
    EXPECT_EQ(error_for("<a xmlns=\"urn:a\"/>"),
              protocol_error("unknown-namespace", "the namespace of \"a\" is unknown",
                             element("a") + "<bad-namespace>urn:a</bad-namespace>"));
}

TEST_F(RequestCheck, RequestHasOneOperation) {
    const std::string none = protocol_error("missing-element", "the request names no operation",
                                            element("rpcOperation"));
    EXPECT_EQ(error_for(""), none);
    EXPECT_EQ(error_for("text"), none);
    EXPECT_EQ(error_for("<get/><lock><target><running/></target></lock>"),
              protocol_error("unknown-element", "\"lock\" is not expected here", element("lock")));
    EXPECT_FALSE(session().lock.mine());
}

TEST_F(RequestCheck, UnknownElementIsNamedAtAnyDepth) {
    EXPECT_EQ(error_for("<get><a/></get>"),
              protocol_error("unknown-element", "\"a\" is not expected here", element("a")));
    EXPECT_EQ(error_for("<lock><target><candidate/></target></lock>"),
              protocol_error("unknown-element", "\"candidate\" is not expected here",
                             element("candidate")));
    EXPECT_EQ(error_for("<lock><target><running xmlns=\"urn:a\"/></target></lock>"),
              protocol_error("unknown-namespace", "the namespace of \"running\" is unknown",
                             element("running") + "<bad-namespace>urn:a</bad-namespace>"));
}

TEST_F(RequestCheck, AttributeThatIsUnknownOrBadIsNamed) {
    EXPECT_EQ(error_for("<get a=\"1\"/>"),
              protocol_error("unknown-attribute", "this attribute is unknown",
                             "<bad-attribute>a</bad-attribute>" + element("get")));
    EXPECT_EQ(error_for("<get><filter xmlns:x=\"urn:x\" x:type=\"subtree\"/></get>"),
              protocol_error("unknown-attribute", "this attribute is unknown",
                             "<bad-attribute>type</bad-attribute>" + element("filter")));
    EXPECT_EQ(error_for("<lock><target type=\"xpath\"><running/></target></lock>"),
              protocol_error("unknown-attribute", "this attribute is unknown",
                             "<bad-attribute>type</bad-attribute>" + element("target")));
    EXPECT_EQ(error_for("<get><filter type=\"b\"/></get>"),
              protocol_error("bad-attribute", "\"b\" is not a type of filter",
                             "<bad-attribute>type</bad-attribute>" + element("filter")));
    EXPECT_EQ(error_for(in_edit("<config>" + kModel + "><loop-policy xmlns:nc=\"" + kBaseNamespace +
                                "\" nc:operation=\"c\">1</loop-policy></loop-detect></config>")),
              protocol_error("bad-attribute", "\"c\" is not an operation",
                             "<bad-attribute>operation</bad-attribute>" + element("loop-policy")));
}

TEST_F(RequestCheck, ValueOutsideTheModelIsInvalid) {
    EXPECT_EQ(error_for(in_edit("<default-operation>a</default-operation><config/>")),
              protocol_error("invalid-value", "Invalid enumeration value \"a\"."));
    EXPECT_EQ(error_for("<kill-session><session-id>a</session-id></kill-session>"),
              protocol_error("invalid-value", "Invalid type uint32 value \"a\"."));
}

TEST_F(RequestCheck, PolicyInHexadecimalIsInvalid) {
    for (const std::string value : {"0x3", "0X3"}) {
        const std::string policy = "<loop-policy>" + value + "</loop-policy></loop-detect>";
        EXPECT_EQ(
            error_for(in_edit("<config>" + kModel + ">" + policy + "</config>")),
            (ErrorText{.type = "application",
                       .tag = "invalid-value",
                       .message = "loop-policy is a number from 0 to 4, not \"" + value + "\"",
                       .path = "/qvld:loop-detect/qvld:loop-policy"}
                 .xml()));
    }
}

TEST_F(RequestCheck, TimeThatDoesNotExistIsInvalid) {
    const auto subscribe = [this](const std::string& time) {
        return error_for(
            "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">"
            "<startTime>" +
            time + "</startTime></create-subscription>");
    };
    for (const std::string time :
         {"2020-13-01T00:00:00Z", "2020-00-01T00:00:00Z", "2021-02-29T00:00:00Z",
          "2020-01-01T24:00:00Z", "2020-01-01T00:60:00Z", "2020-01-01T00:00:61Z"}) {
        EXPECT_EQ(subscribe(time), protocol_error("invalid-value", "\"" + time + "\" is no time"));
    }
    EXPECT_EQ(subscribe("2020-02-29T23:59:60Z").find("is no time"), std::string::npos);
}

TEST_F(RequestCheck, NoDatastoreCanBeDeleted) {
    for (const std::string name : {"running", "startup"}) {
        EXPECT_EQ(error_for("<delete-config><target><" + name + "/></target></delete-config>"),
                  protocol_error("operation-not-supported", "no datastore can be deleted"));
    }
}

TEST_F(RequestCheck, FilterByAttributesIsNamed) {
    for (const std::string filter :
         {"<a xmlns=\"urn:a\"><b/><c d=\"1\">2</c></a>", "<a xmlns=\"urn:a\"/><c d=\"1\"/>"}) {
        EXPECT_EQ(error_for("<get><filter type=\"subtree\">" + filter + "</filter></get>"),
                  protocol_error("unknown-attribute", "filters by attributes are not supported",
                                 "<bad-attribute>d</bad-attribute>" + element("c")));
    }
}

TEST_F(RequestCheck, OtherMessageIsNoRequest) {
    const std::string answer = answer_to("<hello xmlns=\"" + kBaseNamespace + "\"/>");
    EXPECT_EQ(answer, "<rpc-reply xmlns=\"" + kBaseNamespace + "\">" +
                          protocol_error("unknown-element", "\"hello\" is not expected here",
                                         element("hello")) +
                          "</rpc-reply>");
}

TEST_F(RequestCheck, NothingIsLeftOfTextThatIsNotXml) {
    for (std::string text : {"<rpc", "a", "<rpc xmlns=\"urn:a\"/>a"}) {
        netconf::replace_bad_request(session().context, text);
        EXPECT_EQ(text, "<rpc");
    }
}

TEST_F(RequestCheck, RequestThatIsTooLongIsTooBig) {
    const ErrorText error{
        .type = "rpc", .tag = "too-big", .message = "a message is longer than 64 KiB"};
    const std::string start = "<rpc xmlns=\"" + kBaseNamespace + "\" message-id=";
    const std::string anonymous =
        "<rpc-reply xmlns=\"" + kBaseNamespace + "\">" + error.xml() + "</rpc-reply>";
    EXPECT_EQ(exchange(netconf::too_big_request(start + "'4'><get>")),
              "<rpc-reply xmlns=\"" + kBaseNamespace + "\" message-id=\"4\">" + error.xml() +
                  "</rpc-reply>");
    EXPECT_EQ(exchange(netconf::too_big_request("")), anonymous);
    EXPECT_EQ(exchange(netconf::too_big_request(start)), anonymous);
    EXPECT_EQ(exchange(netconf::too_big_request(start + "4 ")), anonymous);
    EXPECT_EQ(exchange(netconf::too_big_request(start + "\"4")), anonymous);
}

TEST_F(RequestCheck, ErrorFromAClientIsOnlyReturned) {
    const auto forged = [](const std::string& attributes) {
        return "<get><filter><refused-request xmlns=\"urn:qv:netconf:refused-request\"" +
               attributes + "/></filter></get>";
    };
    const std::string nonsense = reply_to(forged(" tag=\"99\" type=\"x\""));
    EXPECT_NE(nonsense.find("<rpc-error>"), std::string::npos) << nonsense;
    EXPECT_NE(reply_to(forged("")).find("<rpc-error>"), std::string::npos);
    EXPECT_EQ(reply_to("<get-config><source><running/></source></get-config>"), "<data/>");
}

}  // namespace
