#include "qv/syslog.h"

#include <thread>

#include <gtest/gtest.h>

#include "platform/base/message_log.h"
#include "platform/driver/embedded/stderr_log.h"
#include "platform/driver/linux/syslog_log.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

struct SyslogTest : testing::Test {
    ~SyslogTest() override { set_monitor_sink({}); }
    test::TestPlatform platform;
};

TEST_F(SyslogTest, MessageIsRenderedWithFacilitySeverityAndMnemonic) {
    printk_syslog(SYSLOG_SEVERITY_WARNING, "LDA", "LOOP_DETECT",
                  "Detected loop error on interface %s.\r\n", "swp1");
    EXPECT_EQ(platform.log.lines(),
              Lines{"LDA-4-LOOP_DETECT: Detected loop error on interface swp1."});
    ASSERT_FALSE(recent_log().empty());
    EXPECT_EQ(recent_log().back().text,
              "%LDA-4-LOOP_DETECT: Detected loop error on interface swp1.");
}

TEST_F(SyslogTest, OnlyLineEndsAtTheEndAreTrimmed) {
    printk_syslog(6, "LDA", "INFO", "first\nsecond\n\r\n");
    printk_syslog(6, "LDA", "INFO", "\r\n");
    EXPECT_EQ(platform.log.lines(), (Lines{"LDA-6-INFO: first\nsecond", "LDA-6-INFO: "}));
}

TEST_F(SyslogTest, OverlongTextIsCut) {
    const std::string text(5000, 'x');
    printk_syslog(6, "LDA", "INFO", "%s", text.c_str());
    EXPECT_EQ(platform.log.lines().front(), "LDA-6-INFO: " + std::string(2047, 'x'));
}

// The C locale has no multibyte form of this character, so the conversion fails.
TEST_F(SyslogTest, TextWithABrokenConversionIsLoggedAsItsFormat) {
    printk_syslog(4, "LDA", "LOOP_DETECT", "Detected loop error on interface %ls.\r\n", L"\x4e00");
    EXPECT_EQ(platform.log.lines(),
              Lines{"LDA-4-LOOP_DETECT: Detected loop error on interface %ls."});
}

TEST_F(SyslogTest, MonitorsSeeOnlyMessagesThatAskForIt) {
    Lines shown;
    set_monitor_sink([&](std::string_view line) { shown.emplace_back(line); });
    printk_syslog(6, "LDA", "INFO", "quiet\n");
    printk_syslog_ext(6, "LDA", "INFO", "loud\n");
    EXPECT_EQ(shown, Lines{"%LDA-6-INFO: loud"});
    set_monitor_sink({});
    printk_syslog_ext(6, "LDA", "INFO", "nobody listens\n");
    EXPECT_EQ(shown.size(), 1u);
    EXPECT_EQ(platform.log.lines().size(), 3u);
}

TEST_F(SyslogTest, MonitorSinkMayLogAndReplaceItself) {
    set_monitor_sink([](std::string_view) {
        printk_syslog(6, "CLI", "SINK", "from inside");
        set_monitor_sink({});
    });
    printk_syslog_ext(6, "LDA", "INFO", "once");
    printk_syslog_ext(6, "LDA", "INFO", "twice");
    EXPECT_EQ(platform.log.lines(),
              (Lines{"LDA-6-INFO: once", "CLI-6-SINK: from inside", "LDA-6-INFO: twice"}));
}

TEST_F(SyslogTest, RingKeepsTheLastMessages) {
    for (int i = 0; i < 300; ++i) {
        printk_syslog(6, "LDA", "INFO", "message %d", i);
    }
    const std::vector<LoggedMessage> ring = recent_log();
    ASSERT_EQ(ring.size(), 256u);
    EXPECT_EQ(ring.front().text, "%LDA-6-INFO: message 44");
    EXPECT_EQ(ring.back().text, "%LDA-6-INFO: message 299");
    EXPECT_LE(ring.front().time, ring.back().time);
}

TEST_F(SyslogTest, ThreadsMayLogWhileTheSinkChanges) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                printk_syslog_ext(6, "LDA", "INFO", "message %d", i);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        set_monitor_sink([](std::string_view line) { EXPECT_FALSE(line.empty()); });
        EXPECT_LE(recent_log().size(), 256u);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(platform.log.lines().size(), 800u);
}

// A driver's message, before anybody has named a system log.
TEST(MessageLog, MessageWithoutASystemLogIsKeptAmongTheRecentOnes) {
    log_message(kLogError, "PORT", "ADMIN", "%s cannot be shut.\n", "swp1");
    ASSERT_EQ(recent_log().size(), 1u);
    EXPECT_EQ(recent_log().front().text, "%PORT-3-ADMIN: swp1 cannot be shut.");
}

constexpr SystemLogMessage kMessage{
    .severity = 4, .facility = "LDA", .mnemonic = "RECOVER", .text = "text\r\n"};

TEST(StderrLog, WritesOneLineThatBeginsWithTheTime) {
    testing::internal::CaptureStderr();
    StderrLog().write(kMessage);
    const std::string line = testing::internal::GetCapturedStderr();
    ASSERT_EQ(line.size(), std::string("2026-01-31 23:59:59.123 %LDA-4-RECOVER: text\n").size());
    EXPECT_EQ(line[4], '-');
    EXPECT_EQ(line[13], ':');
    EXPECT_EQ(line[19], '.');
    EXPECT_EQ(line.substr(23), " %LDA-4-RECOVER: text\n");
}

TEST(WallTime, IsLocalTimeWithMilliseconds) {
    setenv("TZ", "UTC-1", 1);
    tzset();
    using std::chrono::system_clock;
    const auto time = system_clock::time_point(std::chrono::milliseconds(1'700'000'000'007));
    EXPECT_EQ(wall_time_text(time), "2023-11-14 23:13:20.007");
    const auto before_1970 = system_clock::time_point(std::chrono::milliseconds(-1));
    EXPECT_EQ(wall_time_text(before_1970), "1970-01-01 00:59:59.999");
}

}  // namespace
}  // namespace qv
