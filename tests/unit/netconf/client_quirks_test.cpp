// Corrections of a message before it is parsed, and messages that are left alone.
#include "services/netconf/client_quirks.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr const char* kBase = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr const char* kEvents = "urn:ietf:params:xml:ns:netconf:notification:1.0";

std::string adapted(std::string text) {
    netconf::adapt_message(text);
    return text;
}

std::string rpc(const std::string& content) {
    return "<rpc xmlns=\"" + std::string(kBase) + "\" message-id=\"7\">" + content + "</rpc>";
}

std::string edit(const std::string& attribute, const std::string& text = "") {
    return rpc("<edit-config><config><loop-detect xmlns=\"urn:a\"><loop-policy" + attribute +
               (text.empty() ? "/>" : ">" + text + "</loop-policy>") +
               "</loop-detect></config></edit-config>");
}

TEST(ClientHabits, FilterOfASubscriptionIsMovedIntoTheNamespaceOfNotifications) {
    EXPECT_EQ(
        adapted(rpc("<create-subscription xmlns=\"" + std::string(kEvents) +
                    "\"><nc:filter xmlns:nc=\"" + kBase +
                    "\" type=\"subtree\"><a xmlns=\"urn:a\"/>"
                    "</nc:filter></create-subscription>")),
        rpc("<create-subscription xmlns=\"" + std::string(kEvents) +
            "\"><filter type=\"subtree\"><a xmlns=\"urn:a\"/></filter></create-subscription>"));
}

TEST(ClientHabits, OperationWithoutANamespaceGetsThatOfTheBaseProtocol) {
    const std::string qualified =
        " xmlns:nc=\"" + std::string(kBase) + "\" nc:operation=\"delete\"";
    EXPECT_EQ(adapted(edit(" operation=\"delete\"")), edit(qualified));
    EXPECT_EQ(adapted(edit(" operation=\"delete\"", "2")), edit(qualified, "2"));
}

TEST(ClientHabits, EveryOperationOfAnEditIsQualified) {
    const auto deep = [](const std::string& attribute) {
        return rpc("<edit-config><config><a xmlns=\"urn:a\"" + attribute + "><b" + attribute +
                   "/><c" + attribute + "/></a></config></edit-config>");
    };
    const std::string first = " xmlns:nc=\"" + std::string(kBase) + "\" nc:operation=\"create\"";
    const std::string said = adapted(deep(" operation=\"create\""));
    EXPECT_EQ(said.find(" operation="), std::string::npos) << said;
    EXPECT_EQ(said.substr(0, said.find("<b")), deep(first).substr(0, deep(first).find("<b")));
}

TEST(ClientHabits, OperationAboveElementsWithoutOneIsQualified) {
    const auto above = [](const std::string& attribute) {
        return rpc("<edit-config><config><a xmlns=\"urn:a\"" + attribute +
                   "><b/><c/></a></config></edit-config>");
    };
    EXPECT_EQ(adapted(above(" operation=\"create\"")),
              above(" xmlns:nc=\"" + std::string(kBase) + "\" nc:operation=\"create\""));
}

TEST(ClientHabits, SecondAttributeIsSeenAfterOthers) {
    EXPECT_EQ(adapted(edit(" a=\"1\" operation=\"delete\"")),
              edit(" a=\"1\" xmlns:nc=\"" + std::string(kBase) + "\" nc:operation=\"delete\""));
}

TEST(ClientHabits, MessageWithoutAnOperationIsUnchanged) {
    const std::string empty = "<rpc  xmlns='urn:operation'/>";
    EXPECT_EQ(adapted(empty), empty);
    const std::string elsewhere =
        rpc("<edit-config  xmlns=\"urn:other\"><a operation='delete'/></edit-config>");
    EXPECT_EQ(adapted(elsewhere), elsewhere);
    const std::string bare =
        "<rpc  xmlns='urn:a'><edit-config xmlns=\"\"><a operation='delete'/></edit-config></rpc>";
    EXPECT_EQ(adapted(bare), bare);
}

TEST(ClientHabits, EverythingElseIsUnchanged) {
    for (const std::string& text :
         {edit(" xmlns:n=\"" + std::string(kBase) + "\" n:operation=\"delete\""),
          edit(" xmlns:n=\"urn:n\" n:operation=\"delete\""), edit("", "operation"),
          rpc("<get operation=\"delete\"/>"),
          rpc("<create-subscription xmlns=\"" + std::string(kEvents) +
              "\"><filter  type='xpath'/>"
              "</create-subscription>"),
          std::string("operation <create-subscription"), std::string("<operation/>"),
          std::string()}) {
        EXPECT_EQ(adapted(text), text);
    }
}

}  // namespace
