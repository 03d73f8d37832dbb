// The logging facility: thresholds, texts, the budget of the system log, and its start-up.
#include "app_debug.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fake_qv/fake_qv.h"

using fake::Lines;

namespace {

constexpr char kLevelFile[] = "/data/lda/lda.dbg";

void log_fatal() {
    APP_FATAL("text\n");
}
void log_error() {
    APP_ERROR("text\n");
}
void log_warn() {
    APP_WARN("text\n");
}
void log_info() {
    APP_INFO("text\n");
}
void log_debug() {
    APP_DEBUG("text\n");
}

// The agent's logging, with an empty list of calls.
class Log : public ::testing::Test {
 protected:
    Log() {
        fake::no_file(kLevelFile);
        app_debug_init("lda", "LDA");
        fake::clear_calls();
    }

    static Lines written(void (*log)(), int zlog_level, int slog_level) {
        g_app_zlog_level = zlog_level;
        g_dbg_slog_level = slog_level;
        log();
        return fake::take_calls();
    }

    // The levels from `lowest` on write exactly `line`, those below write nothing.
    static void expect_zlog_from(int lowest, void (*log)(), const std::string& line) {
        for (int level = 0; level <= 5; level++)
            EXPECT_EQ(written(log, level, 0), level >= lowest ? Lines{line} : Lines{}) << level;
    }

    static void expect_slog_from(int lowest, void (*log)(), const std::string& line) {
        g_app_zlog_category = nullptr;
        for (int level = 0; level <= 3; level++)
            EXPECT_EQ(written(log, 5, level), level >= lowest ? Lines{line} : Lines{}) << level;
    }
};

}  // namespace

// ---- Log file ----

TEST_F(Log, FatalIsAlwaysWrittenToTheLogFile) {
    expect_zlog_from(0, log_fatal, R"(zlog 120 log_fatal "<log_fatal:#> text\n")");
    EXPECT_EQ(written(log_fatal, -1, 0).size(), 1u);
}

TEST_F(Log, ErrorIsWrittenToTheLogFileAboveFatal) {
    expect_zlog_from(1, log_error, R"(zlog 100 log_error "<log_error:#> text\n")");
}

TEST_F(Log, WarnIsWrittenToTheLogFileFromLevelTwo) {
    expect_zlog_from(2, log_warn, R"(zlog 80 log_warn "<log_warn:#> text\n")");
}

TEST_F(Log, InfoIsWrittenToTheLogFileAboveNotice) {
    expect_zlog_from(4, log_info, R"(zlog 40 log_info "<log_info:#> text\n")");
}

TEST_F(Log, DebugIsWrittenToTheLogFileAtItsOwnLevel) {
    expect_zlog_from(5, log_debug, R"(zlog 20 log_debug "<log_debug:#> text\n")");
}

TEST_F(Log, LogFileLineCarriesSourceFileFunctionAndLine) {
    g_app_zlog_level = 4;
    APP_INFO("ready\n");
    int line = __LINE__ - 1;
    std::vector<fake::ZlogLine> lines = fake::zlog_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].file, "tests/unit/app/app_debug_test.cpp");
    EXPECT_EQ(lines[0].function, "TestBody");
    EXPECT_EQ(lines[0].line, line);
    EXPECT_EQ(lines[0].level, 40);
    EXPECT_EQ(lines[0].text, "<TestBody:" + std::to_string(line) + "> ready\n");
}

TEST_F(Log, TextsWithoutALineEndGetNone) {
    g_app_zlog_level = 4;
    APP_INFO("cli ready");
    EXPECT_EQ(fake::calls(), (Lines{R"(zlog 40 TestBody "<TestBody:#> cli ready")"}));
}

TEST_F(Log, LineMayCarryAnotherFunctionsName) {
    g_app_zlog_level = 5;
    APP_INFO_AS("other_function", "ifx=%d\n", 7);
    EXPECT_EQ(fake::calls(), (Lines{fake::info("other_function", "ifx=7\n")}));
}

TEST_F(Log, WithoutACategoryNothingIsWrittenToTheLogFile) {
    g_app_zlog_category = nullptr;
    EXPECT_EQ(written(log_fatal, 5, 0), Lines{});
    EXPECT_EQ(written(log_fatal, 5, 1), (Lines{R"(syslog 6 LDA FATAL "<log_fatal:#> text\n")"}));
}

TEST_F(Log, LineIsCutAtTheBuffer) {
    g_app_zlog_level = 4;
    g_dbg_slog_level = 3;
    APP_INFO("%s", std::string(3000, 'x').c_str());
    const std::string text = fake::zlog_lines().at(0).text;
    EXPECT_EQ(text.size(), 1024u);
    EXPECT_EQ(text.substr(0, 10), "<TestBody:");
    EXPECT_EQ(text.back(), 'x');
    EXPECT_EQ(strlen(g_dbg_print_buf), 1024u);
}

TEST_F(Log, FunctionThatFillsTheBufferLeavesNoRoomForTheText) {
    g_app_zlog_level = 4;
    const std::string function(3000, 'f');
    APP_INFO_AS(function.c_str(), "%s", "text");
    EXPECT_EQ(fake::zlog_lines().at(0).text, "<" + std::string(1023, 'f'));
}

TEST_F(Log, SuppressedLineIsStillFormattedUnderTheLock) {
    g_app_zlog_level = 3;
    g_dbg_slog_level = 1;
    Lines under_lock;
    fake::on_lock(&g_dbg_lock, [&](bool taken) {
        if (!taken) {
            under_lock.push_back(g_dbg_print_buf);
        }
    });
    APP_INFO_AS("somewhere", "ifx=%d", 7);
    const int line = __LINE__ - 1;
    fake::on_lock(nullptr, nullptr);
    EXPECT_EQ(under_lock, (Lines{"<somewhere:" + std::to_string(line) + "> ifx=7"}));
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(Log, TextIsNotReadAsAFormat) {
    g_app_zlog_level = 4;
    g_dbg_slog_level = 3;
    APP_INFO("%s", "100%s %d%n");
    EXPECT_EQ(fake::calls(), (Lines{
                                 R"(zlog 40 TestBody "<TestBody:#> 100%s %d%n")",
                                 R"(syslog 6 LDA INFO "<TestBody:#> 100%s %d%n")",
                             }));
}

// ---- System log ----

TEST_F(Log, FatalErrorAndWarnGoToTheSystemLogFromLevelOne) {
    expect_slog_from(1, log_fatal, R"(syslog 6 LDA FATAL "<log_fatal:#> text\n")");
    expect_slog_from(1, log_error, R"(syslog 6 LDA ERROR "<log_error:#> text\n")");
    expect_slog_from(1, log_warn, R"(syslog 6 LDA WARN "<log_warn:#> text\n")");
}

TEST_F(Log, InfoGoesToTheSystemLogFromLevelTwo) {
    expect_slog_from(2, log_info, R"(syslog 6 LDA INFO "<log_info:#> text\n")");
}

TEST_F(Log, DebugGoesToTheSystemLogFromLevelThree) {
    expect_slog_from(3, log_debug, R"(syslog 6 LDA DEBUG "<log_debug:#> text\n")");
}

TEST_F(Log, LogFileIsWrittenBeforeTheSystemLog) {
    EXPECT_EQ(written(log_error, 2, 1), (Lines{
                                            R"(zlog 100 log_error "<log_error:#> text\n")",
                                            R"(syslog 6 LDA ERROR "<log_error:#> text\n")",
                                        }));
}

TEST_F(Log, SystemLogLinesAreShownOnMonitoringTerminals) {
    written(log_error, 0, 1);
    EXPECT_EQ(fake::count("printk_syslog_ext"), 1);
    EXPECT_EQ(fake::count("printk_syslog"), 0);
}

TEST_F(Log, OnlySystemLogLinesAreCounted) {
    written(log_error, 5, 1);
    written(log_error, 5, 0);
    written(log_info, 5, 1);
    written(log_warn, 0, 1);
    EXPECT_EQ(g_dbg_slog_cnt, 2u);
}

TEST_F(Log, LockIsHeldWhileALineIsWrittenAndFreeAfterwards) {
    auto held = [] {
        bool result = false;
        std::thread([&] {
            result = pthread_mutex_trylock(&g_dbg_lock) != 0;
            if (!result)
                pthread_mutex_unlock(&g_dbg_lock);
        }).join();
        return result;
    };
    bool at_log_file = false;
    bool at_system_log = false;
    fake::on_call("qvdf_zlog", [&] { at_log_file = held(); });
    fake::on_call("printk_syslog_ext", [&] { at_system_log = held(); });
    written(log_error, 5, 3);
    EXPECT_TRUE(at_log_file);
    EXPECT_TRUE(at_system_log);
    EXPECT_FALSE(held());
}

TEST_F(Log, LinesOfManyThreadsStayWhole) {
    g_app_zlog_level = 4;
    auto write = [](char letter) {
        for (int i = 0; i < 200; i++)
            APP_INFO("%s\n", std::string(200, letter).c_str());
    };
    std::thread first(write, 'a');
    std::thread second(write, 'b');
    first.join();
    second.join();
    std::vector<fake::ZlogLine> lines = fake::zlog_lines();
    ASSERT_EQ(lines.size(), 400u);
    for (const fake::ZlogLine& line : lines) {
        std::string letters = line.text.substr(line.text.find("> ") + 2);
        EXPECT_TRUE(letters == std::string(200, 'a') + "\n" ||
                    letters == std::string(200, 'b') + "\n");
    }
}

// ---- Budget ----

TEST_F(Log, BudgetOfOneThousandLinesThenTheSystemLogSwitchesItselfOff) {
    g_app_zlog_category = nullptr;
    g_dbg_slog_level = 3;
    for (int i = 0; i < 1000; i++)
        log_info();
    EXPECT_EQ(fake::take_calls().size(), 1000u);
    EXPECT_EQ(g_dbg_slog_cnt, 1000u);
    EXPECT_EQ(g_dbg_slog_level, 3);

    log_info();
    EXPECT_EQ(fake::take_calls(),
              (Lines{R"(syslog 6 APP DEBUG "app number of debugs reach the maximum 1000\n")"}));
    EXPECT_EQ(g_dbg_slog_cnt, 0u);
    EXPECT_EQ(g_dbg_slog_level, 0);

    log_error();
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(Log, RefusedLineStillGoesToTheLogFile) {
    g_dbg_slog_max = 1;
    written(log_error, 0, 3);
    EXPECT_EQ(written(log_error, 5, 3),
              (Lines{R"(zlog 100 log_error "<log_error:#> text\n")",
                     R"(syslog 6 APP DEBUG "app number of debugs reach the maximum 1\n")"}));
}

TEST_F(Log, NoLimitNeverTrips) {
    g_dbg_slog_max = 0;
    g_dbg_slog_cnt = 4294967295u;
    EXPECT_EQ(app_dbg_slog_num_reach_max(), 0);
    EXPECT_EQ(written(log_error, 0, 1).size(), 1u);
    EXPECT_EQ(fake::count("printk_syslog_ext"), 1);
}

TEST_F(Log, BudgetAboveTheCountDoesNotTrip) {
    g_dbg_slog_max = 6;
    g_dbg_slog_cnt = 5;
    g_dbg_slog_level = 2;
    EXPECT_EQ(app_dbg_slog_num_reach_max(), 0);
    EXPECT_EQ(g_dbg_slog_cnt, 5u);
    EXPECT_EQ(g_dbg_slog_level, 2);
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(Log, BudgetReachedTripsAndResets) {
    for (uint32_t count : {5u, 6u}) {
        g_dbg_slog_max = 5;
        g_dbg_slog_cnt = count;
        g_dbg_slog_level = 2;
        EXPECT_EQ(app_dbg_slog_num_reach_max(), 1);
        EXPECT_EQ(g_dbg_slog_cnt, 0u);
        EXPECT_EQ(g_dbg_slog_level, 0);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{R"(syslog 6 APP DEBUG "app number of debugs reach the maximum 5\n")"}));
    }
}

TEST_F(Log, LinesBelowTheThresholdDoNotTripTheBudget) {
    g_dbg_slog_max = 1;
    g_dbg_slog_cnt = 1;
    EXPECT_EQ(written(log_info, 0, 1), Lines{});
    EXPECT_EQ(g_dbg_slog_cnt, 1u);
}

// ---- Start-up ----

namespace {

struct Levels {
    int zlog;
    int slog;
    bool operator==(const Levels&) const = default;
};

// Before anything is set up, with an empty list of calls.
class LogStart : public ::testing::Test {
 protected:
    LogStart() { fake::clear_calls(); }
};

Levels levels_after(const char* content) {
    fake::file(kLevelFile, content);
    g_app_zlog_level = 77;
    g_dbg_slog_level = 77;
    EXPECT_EQ(app_debug_init("lda", "LDA"), 0);
    EXPECT_EQ(fake::open_files(), 0);
    return {g_app_zlog_level, g_dbg_slog_level};
}

}  // namespace

TEST(LogDefaults, BeforeStart) {
    EXPECT_EQ(g_app_zlog_level, 2);
    EXPECT_EQ(g_dbg_slog_level, 0);
    EXPECT_EQ(g_app_zlog_category, nullptr);
    EXPECT_EQ(g_dbg_slog_cnt, 0u);
    EXPECT_EQ(g_dbg_slog_max, 1000u);
}

TEST_F(LogStart, SetsUpTheLockThenTheLogFileThenReadsTheLevels) {
    fake::file(kLevelFile, "4 1\n");
    EXPECT_EQ(app_debug_init("lda", "LDA"), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 "pthread_mutex_init default",
                                 "qv_zlog_init \"lda\"",
                                 "fopen \"/data/lda/lda.dbg\" \"r\"",
                                 "fclose",
                             }));
    EXPECT_STREQ(app_dbg_module, "LDA");
    EXPECT_STREQ(app_dbg_path, "/data/lda/lda.dbg");
    EXPECT_EQ(g_app_zlog_category, fake::zlog_category());
    EXPECT_EQ(g_app_zlog_level, 4);
    EXPECT_EQ(g_dbg_slog_level, 1);
}

TEST_F(LogStart, MissingLevelFileIsNoError) {
    fake::no_file(kLevelFile);
    EXPECT_EQ(app_debug_init("lda", "LDA"), 0);
    EXPECT_EQ(g_app_zlog_level, 2);
    EXPECT_EQ(g_dbg_slog_level, 0);
}

TEST_F(LogStart, LevelFileWithOneNumberGivesTheDefaults) {
    EXPECT_EQ(levels_after("5"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("5\n"), (Levels{2, 0}));
}

TEST_F(LogStart, LevelFileWithoutNumbersGivesTheDefaults) {
    EXPECT_EQ(levels_after(""), (Levels{2, 0}));
    EXPECT_EQ(levels_after("debug"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("5 x"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("x 5"), (Levels{2, 0}));
}

TEST_F(LogStart, LevelsAreNotRangeChecked) {
    EXPECT_EQ(levels_after("0 0"), (Levels{0, 0}));
    EXPECT_EQ(levels_after("-1 99"), (Levels{-1, 99}));
    EXPECT_EQ(levels_after("99 -1"), (Levels{99, -1}));
    EXPECT_EQ(levels_after("3\n2 and more"), (Levels{3, 2}));
}

TEST_F(LogStart, LevelsMayBeSeparatedByAnyWhiteSpace) {
    EXPECT_EQ(levels_after("3\n2\n"), (Levels{3, 2}));
    EXPECT_EQ(levels_after("\n\t 3 \r\n\v\f 2"), (Levels{3, 2}));
    EXPECT_EQ(levels_after("+3-2"), (Levels{3, -2}));
    const std::string gap(100000, '\n');
    EXPECT_EQ(levels_after((gap + "3" + gap + "2").c_str()), (Levels{3, 2}));
}

TEST_F(LogStart, LevelMayHaveAnyNumberOfDigits) {
    const std::string zeros(100000, '0');
    EXPECT_EQ(levels_after((zeros + "3 -" + zeros + "2").c_str()), (Levels{3, -2}));
}

TEST_F(LogStart, SignWithoutANumberIsNoLevel) {
    EXPECT_EQ(levels_after("- 3 2"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("3 +"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("3, 2"), (Levels{2, 0}));
}

TEST_F(LogStart, LevelThatOverflowsAnIntegerIsNoLevel) {
    EXPECT_EQ(levels_after("2147483647 -2147483648"), (Levels{2147483647, -2147483647 - 1}));
    EXPECT_EQ(levels_after("2147483648 1"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("1 -2147483649"), (Levels{2, 0}));
    EXPECT_EQ(levels_after("4294967299 1"), (Levels{2, 0})) << "3 in its lower 32 bits";
    EXPECT_EQ(levels_after("18446744073709551619 1"), (Levels{2, 0})) << "3 in its lower 64 bits";
    EXPECT_EQ(levels_after("99999999999999999999 -99999999999999999999"), (Levels{2, 0}));
    APP_FATAL("still alive\n");
    EXPECT_EQ(fake::zlog_lines().size(), 1u);
}

TEST_F(LogStart, LockThatCannotBeMade) {
    fake::fail("pthread_mutex_init", 12);
    EXPECT_EQ(app_debug_init("lda", "LDA"), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default"}));
}

TEST_F(LogStart, LogFileThatCannotBeOpenedEndsBeforeTheLevels) {
    fake::file(kLevelFile, "5 3");
    fake::fail("qv_zlog_init");
    EXPECT_EQ(app_debug_init("lda", "LDA"), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default", "qv_zlog_init \"lda\""}));
    EXPECT_STREQ(app_dbg_module, "LDA");
    EXPECT_EQ(g_app_zlog_level, 2);
}

TEST_F(LogStart, LogFileThatCannotBeOpenedIsFatalInTheSystemLog) {
    g_dbg_slog_level = 1;
    fake::fail("qv_zlog_init");
    EXPECT_EQ(app_debug_init("lda", "LDA"), -17);
    EXPECT_EQ(fake::calls().back(),
              R"(syslog 6 LDA FATAL "<app_zlog_init:#> snp_ds_ser zlog init fail.")");
}

TEST_F(LogStart, OpeningTheLogFileAgainKeepsTheCategory) {
    EXPECT_EQ(app_zlog_init("other"), 0);
    EXPECT_EQ(fake::calls(), (Lines{"qv_zlog_init \"other\""}));
    EXPECT_EQ(g_app_zlog_category, fake::zlog_category());
}

TEST_F(LogStart, NamesAreCutToTheirFields) {
    std::string name(100, 'n');
    std::string upper(100, 'U');
    EXPECT_EQ(app_debug_init(name.c_str(), upper.c_str()), 0);
    EXPECT_EQ(std::string(app_dbg_module), std::string(63, 'U'));
    EXPECT_EQ(std::string(app_dbg_path), "/data/" + std::string(57, 'n'));
}

// ---- Level names ----

TEST(LogLevelNames, OfTheLogFile) {
    const char* const names[] = {"fatal", "error", "warn", "notice", "info", "debug"};
    for (int i = 0; i < 6; i++) {
        EXPECT_STREQ(g_logfile_level_str[i], names[i]);
        EXPECT_STREQ(app_logfile_level_name(i), names[i]);
    }
}

TEST(LogLevelNames, OfTheSystemLog) {
    const char* const names[] = {"none", "error", "info", "debug"};
    for (int i = 0; i < 4; i++) {
        EXPECT_STREQ(g_slog_level_str[i], names[i]);
        EXPECT_STREQ(app_slog_level_name(i), names[i]);
    }
}

TEST(LogLevelNames, LevelsWithoutANameAreLookedUpSafely) {
    for (int level : {-1, 6, 2147483647, -2147483647}) {
        EXPECT_NE(app_logfile_level_name(level), nullptr);
        EXPECT_NE(app_slog_level_name(level), nullptr);
    }
    EXPECT_NE(app_slog_level_name(4), nullptr);
}
