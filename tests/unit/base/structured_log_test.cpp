#include "platform/base/structured_log.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/base/message_log.h"

namespace qv {
namespace {

constexpr LogOrigin kOrigin{
    .priority = 28, .time = 1767225599, .host = "sw1", .program = "lda", .pid = 4711};

TEST(StructuredLog, MessageHasTheFormOfRfc5424) {
    EXPECT_EQ(
        rfc5424_datagram(kOrigin, {{"facility", "PORT"}, {"mnemonic", "ADMIN"}, {"port", "swp3"}},
                         "%PORT-4-ADMIN: swp3 cannot be shut."),
        "<28>1 2025-12-31T23:59:59Z sw1 lda 4711 PORT-ADMIN "
        "[lda@32473 facility=\"PORT\" mnemonic=\"ADMIN\" port=\"swp3\"] "
        "%PORT-4-ADMIN: swp3 cannot be shut.");
}

TEST(StructuredLog, ValuesAreEscaped) {
    const std::string datagram =
        rfc5424_datagram(kOrigin, {{"cause", "a\"b\\c]d[e =f\n\x85"}}, "text");
    EXPECT_NE(datagram.find(R"([lda@32473 cause="a\"b\\c\]d[e =f\\x0a\\x85"] text)"),
              std::string::npos)
        << datagram;
}

TEST(StructuredLog, HeaderHasADashForWhatIsNotKnownOrNotAllowed) {
    LogOrigin origin = kOrigin;
    for (const std::string& host : {std::string(), std::string("a b"), std::string(256, 'h')}) {
        origin.host = host;
        EXPECT_NE(rfc5424_datagram(origin, {}, "t").find("Z - lda 4711 "), std::string::npos);
    }
    const std::string id_of_32(28, 'M');
    EXPECT_NE(rfc5424_datagram(kOrigin, {{"facility", "LDA"}, {"mnemonic", id_of_32}}, "t")
                  .find(" 4711 LDA-" + id_of_32 + " ["),
              std::string::npos);
    EXPECT_NE(rfc5424_datagram(kOrigin, {{"facility", "LDA"}, {"mnemonic", id_of_32 + "M"}}, "t")
                  .find(" 4711 - ["),
              std::string::npos);
}

TEST(StructuredLog, JournalGetsOneFieldOnALine) {
    EXPECT_EQ(journal_datagram(kOrigin, {{"port", "swp3"}, {"event", "7"}}, "a = b"),
              "MESSAGE=a = b\nPRIORITY=4\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=lda\n"
              "SYSLOG_PID=4711\nLDA_PORT=swp3\nLDA_EVENT=7\n");
}

TEST(StructuredLog, JournalGetsTheSizeOfAValueWithALineEnd) {
    const std::string text(300, 'x');
    const std::string datagram = journal_datagram(kOrigin, {}, text + "\nPRIORITY=0");
    EXPECT_EQ(datagram.substr(0, 16), std::string("MESSAGE\n\x37\x01\0\0\0\0\0\0", 16));
    EXPECT_EQ(datagram.substr(16, 312), text + "\nPRIORITY=0\n");
    EXPECT_EQ(datagram.find("PRIORITY=4\n"), 328U);
}

TEST(StructuredLog, FieldsAreThoseThatAreKnown) {
    const LogFields least{{"facility", "PORT"}, {"mnemonic", "ADMIN"}};
    SystemLogMessage message{.severity = 3, .facility = "PORT", .mnemonic = "ADMIN", .text = "x"};
    EXPECT_EQ(fields_of(message), least);
    const LogSubject subject{.port = "swp3", .source = "tarn", .cause = "it is busy"};
    message.number = 12;
    message.subject = &subject;
    const LogFields all{{"facility", "PORT"}, {"mnemonic", "ADMIN"}, {"event", "12"},
                        {"port", "swp3"},     {"source", "tarn"},    {"cause", "it is busy"}};
    EXPECT_EQ(fields_of(message), all);
    const LogSubject nothing;
    message.subject = &nothing;
    message.number = 0;
    EXPECT_EQ(fields_of(message), least);
}

// ---- Subjects ----

struct FieldLog final : SystemLog {
    void write(const SystemLogMessage& message) override {
        ports.push_back(message.subject != nullptr ? message.subject->port : "none");
        numbers.push_back(message.number);
    }
    std::vector<std::string> ports;
    std::vector<uint64_t> numbers;
};

struct LogAboutTest : testing::Test {
    LogAboutTest() { use_system_log(log); }
    static void message() { log_message(6, "TEST", "LINE", "text"); }
    FieldLog& log = *new FieldLog;  // a log must outlive the last message
};

TEST_F(LogAboutTest, MessagesHaveTheInnermostSubject) {
    message();
    {
        const LogAbout outer({.port = "swp1"});
        message();
        {
            const LogAbout inner({.port = "swp2"});
            message();
        }
        message();
    }
    message();
    EXPECT_EQ(log.ports, (std::vector<std::string>{"none", "swp1", "swp2", "swp1", "none"}));
}

TEST_F(LogAboutTest, SubjectIsThatOfItsThread) {
    const LogAbout about({.port = "swp1"});
    std::thread(message).join();
    EXPECT_EQ(log.ports, std::vector<std::string>{"none"});
}

TEST_F(LogAboutTest, MessagesAreNumberedWithoutAGap) {
    message();
    message();
    message();
    ASSERT_EQ(log.numbers.size(), 3U);
    EXPECT_GE(log.numbers[0], 1U);
    EXPECT_EQ(log.numbers[1], log.numbers[0] + 1);
    EXPECT_EQ(log.numbers[2], log.numbers[0] + 2);
}

}  // namespace
}  // namespace qv
