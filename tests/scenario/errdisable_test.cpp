// Why a port is down, since when, and when it comes back, on a whole switch.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "platform/driver/embedded/scripted_faults.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

// The rows of a table, with single blanks and TIME in place of each date and time.
Lines rows(SwitchRig& rig, std::string_view line) {
    std::istringstream table(rig.type(line));
    Lines found;
    std::string row;
    while (std::getline(table, row)) {
        row = std::regex_replace(row, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}"), "TIME");
        row = std::regex_replace(row, std::regex(" +"), " ");
        if (row.starts_with("swp")) {
            found.push_back(row);
        }
    }
    return found;
}

Lines status_of(SwitchRig& rig, const char* port) {
    Lines found;
    for (const std::string& row : rows(rig, "show interfaces status")) {
        if (row.starts_with(std::string(port) + " ")) {
            found.push_back(row);
        }
    }
    return found;
}

TEST(Errdisable, PluggedCableIsExplainedOnBothPorts) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type("test loop plug swp3 swp7");
    EXPECT_EQ(rows(rig, "show errdisable"),
              (Lines{"swp3 loop tarn swp7 1 TIME 300 1 -", "swp7 loop tarn swp3 1 TIME 300 1 -"}));
    EXPECT_EQ(status_of(rig, "swp7"), Lines{"swp7 7 down down access - loop-detect"});
    rig.type("test loop unplug swp3 swp7");
    rig.advance(100s);
    EXPECT_EQ(rows(rig, "show errdisable"),
              (Lines{"swp3 loop tarn swp7 1 TIME 200 1 -", "swp7 loop tarn swp3 1 TIME 200 1 -"}));
    rig.advance(200s);
    EXPECT_EQ(rows(rig, "show errdisable"), Lines{});
    EXPECT_EQ(status_of(rig, "swp7"), Lines{"swp7 7 up up access -"});
}

TEST(Errdisable, PortComesBackAtMostTenSecondsBeforeTheTimeShown) {
    SwitchRig rig;
    rig.type({"configure terminal", "loop-detect shutdown-recover-time 95", "end"});
    rig.set_policy("shutdown access-mode");
    rig.advance(3s);  // the next tick of the agent is somewhere
    rig.report(3, 1, 3);
    EXPECT_EQ(rows(rig, "show errdisable recovery"), Lines{"swp3 100 - - -"});
    rig.advance(89s);
    EXPECT_EQ(rows(rig, "show errdisable recovery"), Lines{"swp3 11 - - -"});
    rig.advance(11s);
    EXPECT_EQ(rows(rig, "show errdisable recovery"), Lines{});
}

TEST(Errdisable, StormIsNamedAsTheSource) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type("test storm swp1 10000");
    rig.advance(16s);
    ASSERT_EQ(rows(rig, "show errdisable").size(), 1U);
    rig.advance(2s);
    EXPECT_TRUE(rows(rig, "show errdisable")[0].starts_with("swp1 loop storm - - TIME "));
}

TEST(Errdisable, ReportsAreForgottenWithTheirRecordsAndReadAgain) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 5);
    const Lines looped{"swp3 loop tarn swp5 1 TIME 300 1 still looped",
                       "swp5 loop tarn swp3 1 TIME 300 1 still looped"};
    const Lines quiet{"swp3 loop tarn swp5 1 TIME 300 1 -", "swp5 loop tarn swp3 1 TIME 300 1 -"};
    EXPECT_EQ(rows(rig, "show errdisable"), looped);
    rig.type({"test database drop 4", "test database restore 4"});
    EXPECT_EQ(rows(rig, "show errdisable"), looped) << "the record is still stored";
    constexpr char kKey[] = "p_bridge.tarn_loop_info/ifx=3";
    std::string stored;
    rig.on_main([&] {
        stored = rig.store().get(4, kKey).value_or("");
        rig.store().erase(4, kKey,
                          {reinterpret_cast<const uint8_t*>(stored.data()), stored.size()});
    });
    EXPECT_EQ(rows(rig, "show errdisable"), quiet);
    rig.report(3, 1, 5);
    EXPECT_EQ(rows(rig, "show errdisable"), looped);
    rig.type("test database drop 4");
    rig.on_main([&] {
        rig.store().erase(4, kKey,
                          {reinterpret_cast<const uint8_t*>(stored.data()), stored.size()});
    });
    rig.type("test database restore 4");
    EXPECT_EQ(rows(rig, "show errdisable"), quiet);
}

TEST(Errdisable, ClearBringsThePortBackThroughTheAgent) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.report(5, 1, 5);
    rig.forget();
    EXPECT_EQ(rig.type("clear errdisable interface swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
    EXPECT_EQ(rig.type("clear errdisable interface swp3"),
              "% Interface swp3 is not held shut by loop-detect.\n");
    EXPECT_EQ(rig.type("clear errdisable all"), "");
    EXPECT_EQ(rows(rig, "show errdisable"), Lines{});
}

TEST(Errdisable, ClearIsRefusedWhileDetectionIsDisabled) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    cli::refuse_next_line("no shutdown", "% Still in error", 0);
    rig.type({"configure terminal", "no loop-detect enable", "end"});
    EXPECT_EQ(rows(rig, "show errdisable").size(), 1U) << "the agent has marked it again";
    EXPECT_EQ(rig.type("clear errdisable interface swp3"),
              "% Interface swp3: not possible while loop-detect is disabled.\n");
    EXPECT_EQ(rig.section("swp3"), (Lines{"shutdown", "loop-detect apply shutdown-port"}));
}

// ---- errdisable recovery interval ----

// A port that loops alone and is held under a rule; the probe's record says that the loop is over.
void hold_swp3(SwitchRig& rig, const char* rule) {
    rig.type({"configure terminal", "interface swp3", rule, "end"});
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.report(3, 0, 3);
    rig.forget();
}

TEST(RecoveryInterval, AgentTriesAgainAfterAnotherRecoveryTime) {
    SwitchRig rig;
    hold_swp3(rig, "errdisable recovery interval 400");
    EXPECT_EQ(rows(rig, "show errdisable recovery"), Lines{"swp3 600 - interval 400 -"});
    rig.advance(300s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(
        rig.section("swp3"),
        (Lines{"shutdown", "errdisable recovery interval 400", "tarn port loop-detect warning",
               "loop-detect apply shutdown-port", "storm-loop-detect enable"}));
    rig.advance(300s);
    EXPECT_EQ(rows(rig, "show errdisable"), Lines{});
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"});
}

TEST(RecoveryBackoff, PortThatLoopsAgainWaitsTwiceAsLong) {
    SwitchRig rig;
    hold_swp3(rig, "errdisable recovery backoff 2 1000");
    rig.advance(300s);
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"}) << "as without the rule";
    for (const auto& [wait, text] : {std::pair{600s, "600"}, std::pair{1200s, "1200"}}) {
        rig.report(3, 1, 3);
        rig.report(3, 0, 3);
        EXPECT_EQ(rows(rig, "show errdisable recovery"),
                  Lines{std::string("swp3 ") + text + " - backoff 2 1000 -"})
            << "the agent tries every 300 s, and 1000 s is the longest wait";
        rig.advance(wait - 300s);
        EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 down down access - loop-detect"});
        rig.advance(300s);
        EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"});
    }
}

TEST(RecoveryInterval, NeverHoldsForTheTimerOnly) {
    SwitchRig rig;
    hold_swp3(rig, "errdisable recovery interval never");
    rig.advance(1000s);
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 down down access - loop-detect"});
    EXPECT_EQ(rig.type("clear errdisable interface swp3"), "");
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"});
}

TEST(RecoveryInterval, PortIsNotDarkAfterTheEndOfDetection) {
    SwitchRig rig;
    hold_swp3(rig, "errdisable recovery interval never");
    rig.type({"configure terminal", "no loop-detect enable", "end"});
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"});
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 down down access - loop-detect"});
    rig.type({"configure terminal", "loop-detect enable", "end"});
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"}) << "it only warns now";
}

TEST(RecoveryInterval, MarkedPortIsBroughtBackByAnyChangeOfThePolicy) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type({"configure terminal", "interface swp3", "errdisable recovery interval never",
              "loop-detect apply shutdown-port", "end"});
    rig.advance(1000s);
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 down down access - loop-detect"});
    rig.set_policy("shutdown access-hybrid-mode");
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up access -"});
}

TEST(RecoveryInterval, ChangeOfTheVlanModeBringsThePortBack) {
    SwitchRig rig;
    hold_swp3(rig, "errdisable recovery interval never");
    rig.type({"configure terminal", "interface swp3", "switchport mode trunk", "end"});
    EXPECT_EQ(status_of(rig, "swp3"), Lines{"swp3 3 up up trunk -"});
}

TEST(RecoveryInterval, HoldsAPortOfTheSavedConfiguration) {
    SwitchRig::Options options;
    options.saved_configuration =
        "loop-detect enable shutdown access-mode\n"
        "interface swp2\n shutdown\n errdisable recovery interval 700\n"
        " loop-detect apply shutdown-port\n!\n";
    SwitchRig rig(options);
    rig.advance(650s);
    EXPECT_EQ(status_of(rig, "swp2"), Lines{"swp2 2 down down access - loop-detect"});
    rig.advance(300s);
    EXPECT_EQ(status_of(rig, "swp2"), Lines{"swp2 2 up up access -"});
}

}  // namespace
}  // namespace qv::test
