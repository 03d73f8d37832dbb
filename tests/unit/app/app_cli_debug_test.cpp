// The agent's debug and show commands: their trees, effects and output.
#include "app_cli_debug.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "app_debug.h"
#include "lda_debug.h"
#include "lda_state.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::info;
using fake::Lines;

namespace {

constexpr char kIntervalTree[] = "debug lda result clear interval";
constexpr char kLoggingTree[] = "debug lda logging status";
constexpr char kShowTree[] = "show lda client";

using Nodes = std::vector<const cli_node*>;

// The nodes that the next word may match when a line with or without "no" continues at `node`.
Nodes offered(const cli_node* node, bool no) {
    Nodes nodes;
    while (node != nullptr && node != &Tno_alt) {
        if (node->action == noprefix_action) {
            node = no ? node->accept : node->alternative;
            continue;
        }
        nodes.push_back(node);
        node = node->alternative;
    }
    return nodes;
}

template <typename Block>
const Block& block(const cli_node* node) {
    return *static_cast<const Block*>(node->argument);
}

bool is_keyword(const cli_node* node, const std::string& word) {
    return node->action == common_keyword_action && word == block<cli_keyword_arg>(node).keyword;
}

bool is_number(const cli_node* node, const std::string& word) {
    if (node->action != common_number_action ||
        word.find_first_not_of("0123456789") != std::string::npos)
        return false;
    int64_t number = std::stoll(word);
    return number >= block<cli_number_arg>(node).low && number <= block<cli_number_arg>(node).high;
}

// The trees as an operator meets them: complete words, numbers, a leading "no".
class DebugCommands : public AgentTest {
 protected:
    static const cli_node* tree(const char* description) {
        int chain = description == kShowTree ? 6 : 17;
        const cli_node* root = fake::command_root(chain, description);
        EXPECT_NE(root, nullptr) << description;
        EXPECT_EQ(root->action, append_point_action);
        return root;
    }

    // The words that may follow `line`, which begins after the attachment point.
    static Nodes after(const char* description, const std::string& line, cli_pcdb* pcdb) {
        std::istringstream words(line);
        std::string word;
        bool no = pcdb->prefix == CLI_PREFIX_NO;
        Nodes nodes = offered(tree(description)->accept, no);
        while (words >> word) {
            const cli_node* taken = nullptr;
            for (const cli_node* node : nodes)
                if (is_keyword(node, word) || is_number(node, word))
                    taken = node;
            if (taken == nullptr)
                return {};
            if (taken->action == common_number_action)
                pcdb->number[block<cli_number_arg>(taken).slot] = std::stoll(word);
            nodes = offered(taken->accept, no);
        }
        return nodes;
    }

    // Executes a line; returns false when the tree does not have it.
    static bool run(const char* description, const std::string& line, uint32_t prefix = 0,
                    unsigned long flags = 0) {
        cli_pcdb pcdb{};
        pcdb.prefix = prefix;
        pcdb.flags = flags;
        for (const cli_node* node : after(description, line, &pcdb)) {
            if (node->action != eol_action)
                continue;
            EXPECT_EQ(block<cli_eol_arg>(node).one, 1u);
            EXPECT_EQ(block<cli_eol_arg>(node).handler(&pcdb), 0);
            return true;
        }
        return false;
    }

    static bool run_no(const char* description, const std::string& line) {
        return run(description, line, CLI_PREFIX_NO);
    }

    // "word: help" of the keywords and "low-high: help" of the numbers that follow a line.
    static Lines helps(const char* description, const std::string& line) {
        cli_pcdb pcdb{};
        Lines lines;
        for (const cli_node* node : after(description, line, &pcdb)) {
            if (node->action == common_keyword_action) {
                const auto& keyword = block<cli_keyword_arg>(node);
                lines.push_back(std::string(keyword.keyword) + ": " + keyword.help);
            } else if (node->action == common_number_action) {
                const auto& number = block<cli_number_arg>(node);
                lines.push_back(std::to_string(number.low) + "-" + std::to_string(number.high) +
                                ": " + number.help);
            }
        }
        return lines;
    }
};

}  // namespace

// ---- Trees ----

TEST_F(DebugCommands, TreesAreRegisteredUnderDebugAndShow) {
    std::vector<std::string> found;
    for (const fake::Command& command : fake::commands())
        if (command.chain == 17 || (command.chain == 6 && command.description == kShowTree))
            found.push_back(std::to_string(command.chain) + " " + command.description);
    EXPECT_EQ(found, (Lines{"17 debug lda result clear interval", "17 debug lda logging status",
                            "6 show lda client"}));
}

TEST_F(DebugCommands, NodesOfTheLoggingTree) {
    fake::name(reinterpret_cast<const void*>(app_cli_logfile_level), "app_cli_logfile_level");
    fake::name(reinterpret_cast<const void*>(app_cli_slog_level), "app_cli_slog_level");
    fake::name(reinterpret_cast<const void*>(app_cli_show_logfile), "app_cli_show_logfile");
    const std::string logging = fake::tree(tree(kLoggingTree));
    EXPECT_NE(logging.find("append\n"
                           "  keyword \"lda\" [\"LDA\"] 0 14,14 1,2,0,0,0 \"lda\" 1\n"
                           "    keyword \"logfile\" [\"Log file\"] 0 14,14 1,2,0,0,0 "
                           "\"logfile\" 1\n"
                           "      keyword \"level\" [\"level\"] 0 14,14 1,2,0,0,0 \"level\" 1\n"
                           "        noprefix\n"
                           "          eol 1 app_cli_logfile_level\n"),
              std::string::npos)
        << logging;
    EXPECT_NE(logging.find("        else number [\"fatal: 0, error: 1, warn: 2, notice: 3, "
                           "debug: 4\"] 0..4 0 258 slot 0\n"
                           "          eol 1 app_cli_logfile_level\n"),
              std::string::npos)
        << logging;
    EXPECT_NE(logging.find("        else number [\"none: 0, error: 1, info: 2, debug: 3\"] 0..3 0 "
                           "258 slot 0\n"
                           "          eol 1 app_cli_slog_level\n"),
              std::string::npos)
        << logging;
    EXPECT_NE(logging.find("    else keyword \"show-logfile\" [\"show logfile\"] 0 14,14 "
                           "1,2,0,0,0 \"show-logfile\" 1\n"
                           "      eol 1 app_cli_show_logfile\n"),
              std::string::npos)
        << logging;
}

TEST_F(DebugCommands, NodesOfTheIntervalAndShowTrees) {
    fake::name(reinterpret_cast<const void*>(exec_lda_clear_interval_debug), "interval");
    fake::name(reinterpret_cast<const void*>(exec_show_lda_result), "result");
    EXPECT_EQ(fake::tree(tree(kIntervalTree)),
              "append\n"
              "  keyword \"lda\" [\"Loop-detect administrator\"] 0 14,14 1,2,0,0,0 \"lda\" 1\n"
              "    keyword \"clear-interval\" [\"result clear interval\"] 0 14,14 1,2,0,0,0 "
              "\"clear-interval\" 1\n"
              "      number [\"clear interval number\"] 1..5 0 258 slot 0\n"
              "        eol 1 interval\n");
    EXPECT_EQ(fake::tree(tree(kShowTree)),
              "append\n"
              "  keyword \"lda\" [\"Loop-detect administrator\"] 0 14,14 1,2,0,0,0 \"lda\" 1\n"
              "    keyword \"detect-result\" [\"loop-detect result\"] 0 14,14 1,2,0,0,0 "
              "\"detect-result\" 1\n"
              "      eol 1 result\n");
}

TEST_F(DebugCommands, HelpTextsOfTheLoggingTree) {
    EXPECT_EQ(helps(kLoggingTree, ""), (Lines{"lda: LDA"}));
    EXPECT_EQ(helps(kLoggingTree, "lda"),
              (Lines{"logfile: Log file", "syslog: syslog", "show-logfile: show logfile",
                     "storm-detect: storm-detect"}));
    EXPECT_EQ(helps(kLoggingTree, "lda logfile"), (Lines{"level: level"}));
    EXPECT_EQ(helps(kLoggingTree, "lda logfile level"),
              (Lines{"0-4: fatal: 0, error: 1, warn: 2, notice: 3, debug: 4"}));
    EXPECT_EQ(helps(kLoggingTree, "lda syslog"),
              (Lines{"level: syslog level", "log-max-number: set syslog max number"}));
    EXPECT_EQ(helps(kLoggingTree, "lda syslog level"),
              (Lines{"0-3: none: 0, error: 1, info: 2, debug: 3"}));
    Lines maximum = helps(kLoggingTree, "lda syslog log-max-number");
    ASSERT_EQ(maximum.size(), 3u);
    EXPECT_EQ(maximum[0].substr(0, 14), "1-4294967295: ");
    EXPECT_EQ(maximum[1], "nolimit: set app syslog max to no limit");
    EXPECT_EQ(maximum[2], "default: set app syslog max to default");
}

TEST_F(DebugCommands, HelpTextsOfTheIntervalTree) {
    EXPECT_EQ(helps(kIntervalTree, ""), (Lines{"lda: Loop-detect administrator"}));
    EXPECT_EQ(helps(kIntervalTree, "lda"), (Lines{"clear-interval: result clear interval"}));
    EXPECT_EQ(helps(kIntervalTree, "lda clear-interval"), (Lines{"1-5: clear interval number"}));
}

TEST_F(DebugCommands, HelpTextsOfTheShowTree) {
    EXPECT_EQ(helps(kShowTree, ""), (Lines{"lda: Loop-detect administrator"}));
    EXPECT_EQ(helps(kShowTree, "lda"), (Lines{"detect-result: loop-detect result"}));
    EXPECT_EQ(helps(kShowTree, "lda detect-result"), Lines{});
}

TEST_F(DebugCommands, IncompleteLinesHaveNoHandler) {
    for (const char* line : {"", "lda", "lda logfile", "lda logfile level", "lda syslog",
                             "lda syslog level", "lda syslog log-max-number"})
        EXPECT_FALSE(run(kLoggingTree, line)) << line;
    EXPECT_FALSE(run(kIntervalTree, "lda clear-interval"));
    EXPECT_FALSE(run(kShowTree, "lda"));
}

// ---- Levels ----

TEST_F(DebugCommands, LogFileLevelIsSetAndLogged) {
    for (int level = 0; level <= 4; level++) {
        EXPECT_TRUE(run(kLoggingTree, "lda logfile level " + std::to_string(level)));
        EXPECT_EQ(g_app_zlog_level, level);
    }
    EXPECT_EQ(fake::calls(), (Lines{info("app_cli_logfile_level", "set logfile level to 4")}));
}

TEST_F(DebugCommands, LogFileLevelFiveCannotBeEntered) {
    EXPECT_FALSE(run(kLoggingTree, "lda logfile level 5"));
    EXPECT_EQ(g_app_zlog_level, 5);
}

TEST_F(DebugCommands, NoLogFileLevelRestoresWarn) {
    EXPECT_TRUE(run_no(kLoggingTree, "lda logfile level"));
    EXPECT_EQ(g_app_zlog_level, 2);
}

TEST_F(DebugCommands, NoFormsLogTheResultingLevel) {
    g_app_zlog_category = nullptr;
    g_dbg_slog_level = 2;
    EXPECT_TRUE(run_no(kLoggingTree, "lda logfile level"));
    EXPECT_EQ(fake::take_calls(),
              (Lines{R"(syslog 6 LDA INFO "<app_cli_logfile_level:#> set logfile level to 2")"}));

    g_app_zlog_category = fake::zlog_category();
    g_app_zlog_level = 4;
    EXPECT_TRUE(run_no(kLoggingTree, "lda syslog level"));
    EXPECT_EQ(g_dbg_slog_level, 0);
    EXPECT_EQ(fake::calls(), (Lines{info("app_cli_slog_level", "set syslog level to 0")}));
}

TEST_F(DebugCommands, SystemLogLevelIsSetAndLogged) {
    for (int level = 0; level <= 3; level++) {
        EXPECT_TRUE(run(kLoggingTree, "lda syslog level " + std::to_string(level)));
        EXPECT_EQ(g_dbg_slog_level, level);
    }
    Lines calls = fake::calls_of({"zlog"});
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[3], info("app_cli_slog_level", "set syslog level to 3"));
}

TEST_F(DebugCommands, SystemLogLevelFourCannotBeEntered) {
    EXPECT_FALSE(run(kLoggingTree, "lda syslog level 4"));
    EXPECT_EQ(g_dbg_slog_level, 0);
}

// ---- Budget ----

TEST_F(DebugCommands, BudgetIsSet) {
    EXPECT_TRUE(run(kLoggingTree, "lda syslog log-max-number 1"));
    EXPECT_EQ(g_dbg_slog_max, 1u);
    EXPECT_TRUE(run(kLoggingTree, "lda syslog log-max-number 4294967295"));
    EXPECT_EQ(g_dbg_slog_max, 4294967295u);
}

TEST_F(DebugCommands, BudgetOutsideItsRangeIsRefused) {
    EXPECT_FALSE(run(kLoggingTree, "lda syslog log-max-number 0"));
    EXPECT_FALSE(run(kLoggingTree, "lda syslog log-max-number 4294967296"));
    EXPECT_EQ(g_dbg_slog_max, 1000u);
}

TEST_F(DebugCommands, NoLimitStoresZero) {
    EXPECT_TRUE(run(kLoggingTree, "lda syslog log-max-number nolimit"));
    EXPECT_EQ(g_dbg_slog_max, 0u);
}

TEST_F(DebugCommands, DefaultStoresOneThousand) {
    g_dbg_slog_max = 5;
    EXPECT_TRUE(run(kLoggingTree, "lda syslog log-max-number default"));
    EXPECT_EQ(g_dbg_slog_max, 1000u);
}

TEST_F(DebugCommands, NoFormOfTheBudgetStoresOneThousand) {
    g_dbg_slog_max = 5;
    EXPECT_TRUE(run_no(kLoggingTree, "lda syslog log-max-number"));
    EXPECT_EQ(g_dbg_slog_max, 1000u);
    cli_pcdb pcdb{};
    pcdb.prefix = CLI_PREFIX_NO;
    pcdb.number[0] = 7;
    app_cli_slog_max_log_num(&pcdb);
    EXPECT_EQ(g_dbg_slog_max, 1000u);
}

TEST_F(DebugCommands, BudgetCommandsKeepTheCount) {
    g_dbg_slog_cnt = 7;
    for (const char* value : {"50", "nolimit", "default", "3"})
        EXPECT_TRUE(run(kLoggingTree, std::string("lda syslog log-max-number ") + value));
    EXPECT_TRUE(run_no(kLoggingTree, "lda syslog log-max-number"));
    EXPECT_EQ(g_dbg_slog_cnt, 7u);
}

// ---- Showing the level ----

TEST_F(DebugCommands, ShowLogFilePrintsTheLevelsName) {
    const char* const names[] = {"fatal", "error", "warn", "notice", "info", "debug"};
    for (int level = 0; level < 6; level++) {
        g_app_zlog_level = level;
        EXPECT_TRUE(run(kLoggingTree, "lda show-logfile"));
        EXPECT_EQ(fake::take_cli_output(),
                  "debug logfile level: " + std::string(names[level]) + "\n");
    }
}

TEST_F(DebugCommands, ShowLogFileSurvivesALevelWithoutAName) {
    for (int level : {-1, 6, 99}) {
        g_app_zlog_level = level;
        EXPECT_TRUE(run(kLoggingTree, "lda show-logfile"));
        EXPECT_EQ(fake::take_cli_output().substr(0, 21), "debug logfile level: ");
    }
}

TEST_F(DebugCommands, NoFormOfShowLogFilePrintsNothing) {
    cli_pcdb pcdb{};
    pcdb.prefix = CLI_PREFIX_NO;
    app_cli_show_logfile(&pcdb);
    EXPECT_EQ(fake::take_cli_output(), "");
}

TEST_F(DebugCommands, StormDetectPrintsItsTable) {
    EXPECT_TRUE(run(kLoggingTree, "lda storm-detect"));
    EXPECT_EQ(fake::take_cli_output(),
              "ifx   intf_name     phyid     rate      burst     packet_count   byte_count   "
              "flow_over_times   unloop_times   poll_times   timer_notify   is_loop\r\n");
}

// ---- Clear interval ----

TEST_F(DebugCommands, ClearIntervalIsGivenInMinutes) {
    EXPECT_EQ(g_lda_clear_interval, 60);
    EXPECT_TRUE(run(kIntervalTree, "lda clear-interval 5"));
    EXPECT_EQ(g_lda_clear_interval, 300);
    EXPECT_TRUE(run(kIntervalTree, "lda clear-interval 1"));
    EXPECT_EQ(g_lda_clear_interval, 60);
}

TEST_F(DebugCommands, ClearIntervalOutsideItsRangeIsRefused) {
    EXPECT_FALSE(run(kIntervalTree, "lda clear-interval 0"));
    EXPECT_FALSE(run(kIntervalTree, "lda clear-interval 6"));
    EXPECT_EQ(g_lda_clear_interval, 60);
}

TEST_F(DebugCommands, NextClearTimerUsesTheNewInterval) {
    run(kIntervalTree, "lda clear-interval 3");
    lda_intf_t* record = add_looped(5);
    record->tarn_result = 0;
    lda_clear_loop_timer(record);
    EXPECT_EQ(fake::calls_of({"qv_thread_add_timer"}), (Lines{"qv_thread_add_timer 180"}));
}

// ---- Help and completion ----

TEST_F(DebugCommands, HelpAndCompletionDoNothing) {
    g_dbg_slog_max = 5;
    g_dbg_slog_level = 3;
    for (const char* line : {"lda logfile level 1", "lda syslog level 1",
                             "lda syslog log-max-number 9", "lda syslog log-max-number nolimit",
                             "lda syslog log-max-number default", "lda show-logfile"})
        EXPECT_TRUE(run(kLoggingTree, line, 0, CLI_FLAG_HELP)) << line;
    EXPECT_TRUE(run(kIntervalTree, "lda clear-interval 5", 0, CLI_FLAG_HELP));
    EXPECT_TRUE(run(kShowTree, "lda detect-result", 0, CLI_FLAG_HELP));
    EXPECT_EQ(g_app_zlog_level, 5);
    EXPECT_EQ(g_dbg_slog_level, 3);
    EXPECT_EQ(g_dbg_slog_max, 5u);
    EXPECT_EQ(g_lda_clear_interval, 60);
    EXPECT_EQ(fake::calls(), Lines{});
}

// ---- Debug switch ----

TEST_F(DebugCommands, SwitchIsRegisteredUnderItsName) {
    EXPECT_EQ(fake::debug_control("lda-debug"), lda_debug_ctrl);
}

TEST_F(DebugCommands, SwitchTurnsDebugLinesOnAndOff) {
    lda_debug_ctrl(1);
    EXPECT_EQ(g_dbg_slog_level, 3);
    lda_debug_ctrl(2);
    EXPECT_EQ(g_dbg_slog_level, 0);
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(DebugCommands, SwitchPrintsItsState) {
    g_dbg_slog_level = 2;
    g_dbg_slog_cnt = 17;
    lda_debug_ctrl(3);
    EXPECT_EQ(fake::take_cli_output(),
              "lda debugging status:\n"
              "    current syslog count is 17.\n"
              "    the maximum of syslog is 1000.\n"
              "    debug slog level: info\n");
}

TEST_F(DebugCommands, SwitchPrintsFromLevelOne) {
    g_dbg_slog_level = 1;
    lda_debug_ctrl(3);
    EXPECT_NE(fake::take_cli_output().find("    debug slog level: error\n"), std::string::npos);
    g_dbg_slog_level = 0;
    lda_debug_ctrl(3);
    EXPECT_EQ(fake::take_cli_output(), "");
}

TEST_F(DebugCommands, SwitchSurvivesALevelWithoutAName) {
    g_dbg_slog_level = 99;
    lda_debug_ctrl(3);
    EXPECT_NE(fake::take_cli_output(), "");
}

TEST_F(DebugCommands, SwitchIgnoresOtherOperations) {
    g_dbg_slog_level = 2;
    for (int operation : {0, 4, -1})
        lda_debug_ctrl(operation);
    EXPECT_EQ(g_dbg_slog_level, 2);
    EXPECT_EQ(fake::calls(), Lines{});
}

// ---- Result table ----

namespace {

const char kResultHeader[] =
    "ifx      interface  name\t     total-state   tarn-state   storm-state     status     "
    "mode\r\n";

}  // namespace

TEST_F(DebugCommands, ResultTableOfAFreshAgent) {
    EXPECT_TRUE(run(kShowTree, "lda detect-result"));
    EXPECT_EQ(fake::take_cli_output(), std::string("loop-detect state: disable\n"
                                                   "loop-detect policy: 0\n"
                                                   "loop-detect clear interval: 60(s)\n"
                                                   "\n"
                                                   "loop-detect shutdown-recover-time: 300(s)\n"
                                                   "\n"
                                                   "loop-detect intf_num: 0, loop_num=0\n"
                                                   "\n") +
                                           kResultHeader);
}

TEST_F(DebugCommands, ResultTableListsEveryPortInListOrder) {
    lda_intf_t* looped = add_looped(5, 1);
    lda_intf_t* member = add_record(1234567, 7);
    add_record(3, 2);
    looped->is_shutdown = 1;
    looped->storm_result = 1;
    member->storm_result = 9;
    member->mode_arg = 40;
    g_lda_loop_set->policy = 4;
    g_lda_clear_interval = 120;
    lda_cli_recover_time_set(90, 1);

    EXPECT_TRUE(run(kShowTree, "lda detect-result"));
    EXPECT_EQ(fake::take_cli_output(),
              std::string("loop-detect state: enable\n"
                          "loop-detect policy: 4\n"
                          "loop-detect clear interval: 120(s)\n"
                          "\n"
                          "loop-detect shutdown-recover-time: 90(s)\n"
                          "\n"
                          "loop-detect intf_num: 3, loop_num=1\n"
                          "\n") +
                  kResultHeader +
                  "5      swp5                            loop          loop          loop         "
                  "shutdown  access 0\n"
                  "1234567swp1234567                      normal        normal        loop         "
                  "warning   hybrid 40\n"
                  "3      swp3                            normal        normal        normal       "
                  "warning   trunk 0\n");
}

TEST_F(DebugCommands, ResultTableHasEachStateInItsOwnColumn) {
    add_record(1)->total_result = 1;
    add_record(2)->tarn_result = 1;
    add_record(3)->storm_result = 1;
    EXPECT_TRUE(run(kShowTree, "lda detect-result"));
    const std::string output = fake::take_cli_output();
    EXPECT_EQ(output.substr(output.find("\r\n") + 2),
              "1      swp1                            loop          normal        normal       "
              "normal    access 0\n"
              "2      swp2                            normal        loop          normal       "
              "normal    access 0\n"
              "3      swp3                            normal        normal        loop         "
              "normal    access 0\n");
}

TEST_F(DebugCommands, ResultTableShowsNormalWhileDetectionIsDisabled) {
    add_looped(5)->is_shutdown = 1;
    EXPECT_TRUE(run(kShowTree, "lda detect-result"));
    std::string output = fake::take_cli_output();
    EXPECT_EQ(output.substr(output.find("\r\n") + 2),
              "5      swp5                            loop          loop          normal       "
              "normal    access 0\n");
}

TEST_F(DebugCommands, ResultTableIsPrintedWithoutTheLoopLock) {
    add_record(5);
    bool held = true;
    fake::on_call("swport_vlan_mode_name", [&] { held = is_held(&g_lda_loop_set->lock); });
    run(kShowTree, "lda detect-result");
    EXPECT_FALSE(held);
}

// ---- Words ----

TEST_F(DebugCommands, DisplayWords) {
    EXPECT_STREQ(detect_intf_policy_name(0), "warning");
    EXPECT_STREQ(detect_intf_policy_name(1), "shutdown");
    EXPECT_STREQ(detect_intf_policy_name(7), "shutdown");
    EXPECT_STREQ(detect_state_to_dsp(0), "normal");
    EXPECT_STREQ(detect_state_to_dsp(1), "loop");
    EXPECT_STREQ(detect_state_to_dsp(255), "loop");
    EXPECT_STREQ(client_to_str(0), "tarn");
    EXPECT_STREQ(client_to_str(1), "storm");
    EXPECT_STREQ(client_to_str(2), "Error");
    EXPECT_STREQ(client_to_str(0xffffffff), "Error");
}

TEST_F(DebugCommands, StatusWordDependsOnThePolicy) {
    EXPECT_STREQ(detect_intf_status(0), "normal");
    EXPECT_STREQ(detect_intf_status(1), "normal");
    g_lda_loop_set->policy = 1;
    EXPECT_STREQ(detect_intf_status(0), "warning");
    EXPECT_STREQ(detect_intf_status(1), "shutdown");
}
