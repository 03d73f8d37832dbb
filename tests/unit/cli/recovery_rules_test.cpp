// "errdisable recovery interval ..." and "... backoff ...": which "no shutdown" the switch refuses,
// and until when.
#include "platform/cli/recovery_rules.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "qv/bridge.h"
#include "tests/unit/cli/errdisable_fixture.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

class RecoveryRules : public Errdisable {
 protected:
    RecoveryRules() { g_setting = "loop-detect enable shutdown access-mode"; }

    // "ACTION: REASON" of each event of the port.
    Lines story(const std::string& port) const {
        Lines lines;
        for (const cli::LoopEvent& event : held.events()) {
            if (event.port == port) {
                lines.push_back(std::string(event.action == cli::LoopAction::kShut      ? "shut"
                                            : event.action == cli::LoopAction::kRefused ? "refused"
                                                                                        : "other") +
                                (event.reason.empty() ? "" : ": " + event.reason));
            }
        }
        return lines;
    }
    // What the operator's line on swp1 prints.
    std::string on_swp1(const std::string& line) {
        rig.session.mode = "interface";
        rig.session.ifx = 101;
        const std::string text = rig.type(line);
        rig.session.mode = "exec";
        return text;
    }
    // The agent's timer at swp1: whether the port is up afterwards.
    bool comes_back() {
        bring_back(101);
        return up(101);
    }
};

// ---- The wait ----

TEST_F(RecoveryRules, PortComesBackNotBeforeTheInterval) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    pass(599s);
    EXPECT_FALSE(comes_back());
    EXPECT_TRUE(g_held.contains(101)) << "the agent saw the refusal";
    pass(1s);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, RefusalIsTheOutputOfTheLine) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    EXPECT_EQ(program(101, "no shutdown  \r\n"), 1);
    EXPECT_EQ(story("swp1"),
              (Lines{"shut",
                     "refused: errdisable recovery interval 600: not before 600 s after the "
                     "shutdown"}));
}

TEST_F(RecoveryRules, SameRefusalIsOneEventForEachShutdown) {
    constexpr char kRefused[] =
        "refused: errdisable recovery interval never: an operator must bring it back";
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    bring_back(101);
    bring_back(101);
    EXPECT_EQ(story("swp1"), (Lines{"shut", kRefused}));
    operator_types(101, "no shutdown");
    hold(101);
    bring_back(101);
    EXPECT_EQ(story("swp1"), (Lines{"shut", kRefused, "other", "shut", kRefused}));
}

TEST_F(RecoveryRules, NeverWaitsForAnOperator) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    pass(1000000s);
    EXPECT_FALSE(comes_back());
    operator_types(101, "no shutdown");
    EXPECT_TRUE(up(101));
}

TEST_F(RecoveryRules, OtherPortsDoNotWait) {
    operator_types(102, "errdisable recovery interval never");
    hold(101);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, ChangeOfTheRuleCountsForTheShutdownAtHand) {
    hold(101);
    operator_types(101, "errdisable recovery interval 600");
    EXPECT_FALSE(comes_back());
    operator_types(101, "no errdisable recovery interval");
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, RepeatedShutdownDoesNotBeginTheWaitAgain) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    pass(500s);
    hold(101);
    pass(100s);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, NextShutdownBeginsTheWaitAgain) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    pass(600s);
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_FALSE(comes_back());
}

TEST_F(RecoveryRules, WaitContinuesAfterARestart) {
    operator_types(101, "errdisable recovery interval 600");
    change(101, [](Port& port) { port.admin_up = false; });
    cli::LoopEvent shut;
    shut.time = *g_wall_time - 400s;
    shut.port = "swp1";
    shut.action = cli::LoopAction::kShut;
    held.restore({shut});
    hold(101);
    pass(199s);
    EXPECT_FALSE(comes_back());
    pass(1s);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, ClockThatWasSetBackDoesNotStretchTheWait) {
    operator_types(101, "errdisable recovery interval 600");
    change(101, [](Port& port) { port.admin_up = false; });
    cli::LoopEvent shut;
    shut.time = *g_wall_time + 9000s;
    shut.port = "swp1";
    shut.action = cli::LoopAction::kShut;
    held.restore({shut});
    hold(101);
    pass(600s);
    EXPECT_TRUE(comes_back());
}

// ---- Only the timer waits ----

TEST_F(RecoveryRules, RemovedMarkBringsThePortBackAtOnce) {
    operator_types(101, "errdisable recovery interval never");
    for (const char* line : {"no loop-detect apply shutdown-port", "no loop-d app shut",
                             "default loop-detect apply shutdown-port"}) {
        hold(101);
        EXPECT_FALSE(comes_back());
        operator_types(101, line);
        EXPECT_TRUE(comes_back()) << line;
    }
    hold(101);
    EXPECT_FALSE(comes_back()) << "the next shutdown waits again";
    EXPECT_EQ(rig.type("clear errdisable interface swp1"), "");
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, RemovedMarkCountsForOneShutdownOfAPortThatStaysLooped) {
    operator_types(101, "errdisable recovery interval never");
    held.loop_found("swp1");
    hold(101);
    operator_types(101, "no loop-detect apply shutdown-port");
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_FALSE(comes_back());
}

TEST_F(RecoveryRules, RemovedMarksOfARangeBringAllPortsBack) {
    rig.session.mode = "ifrange";
    rig.session.range = {101, 102};
    rig.type("errdisable recovery interval never");
    hold(101);
    hold(102);
    hold(103);
    operator_types(103, "errdisable recovery interval never");
    rig.session.mode = "ifrange";
    rig.type("no loop-detect apply shutdown-port");
    for (const uint32_t ifx : {101U, 102U, 103U}) {
        bring_back(ifx);
    }
    EXPECT_TRUE(up(101) && up(102));
    EXPECT_FALSE(up(103)) << "not in the range";
}

TEST_F(RecoveryRules, OtherLinesDoNotEndTheWait) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    operator_types(101, "loop-detect apply shutdown-port");
    operator_types(101, "no errdisable recovery");
    program(101, "no loop-detect apply shutdown-port");
    EXPECT_FALSE(comes_back());
}

TEST_F(RecoveryRules, ChangeOfThePolicyEndsTheWait) {
    operator_types(101, "errdisable recovery interval never");
    for (const char* policy : {"loop-detect enable", "no policy at all",
                               "loop-detect enable shutdown access-hybrid-mode"}) {
        g_setting = "loop-detect enable shutdown access-mode";
        hold(101);
        EXPECT_FALSE(comes_back());
        g_setting = policy;
        EXPECT_TRUE(comes_back()) << policy;
    }
}

TEST_F(RecoveryRules, ChangeOfTheRecoveryTimeDoesNotEndTheWait) {
    g_setting = "loop-detect shutdown-recover-time 90";
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    g_setting = "loop-detect shutdown-recover-time 91";
    EXPECT_FALSE(comes_back());
}

TEST_F(RecoveryRules, ChangeOfTheVlanModeEndsTheWait) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    operator_types(101, "switchport mode hybrid");
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_FALSE(comes_back()) << "shut in this mode";
}

TEST_F(RecoveryRules, ShutdownThatIsRepeatedUnderANewPolicyWaits) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    g_setting = "loop-detect enable shutdown access-hybrid-mode";
    hold(101);
    EXPECT_FALSE(comes_back());
}

TEST_F(RecoveryRules, VirtualSwitchLinkDoesNotWait) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    change(101, [](Port& port) { port.vsl = true; });
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryRules, PortThatIsUpAlreadyIsNotRefused) {
    operator_types(101, "errdisable recovery interval never");
    held.loop_found("swp1");
    hold(101);
    operator_types(101, "no shutdown");
    EXPECT_EQ(program(101, "no shutdown  \r\n"), 0);
}

TEST_F(RecoveryRules, RenamedPortGoesOnWaiting) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    pass(300s);
    rig.hardware.rename(101, "lan1");
    EXPECT_FALSE(comes_back());
    pass(300s);
    EXPECT_TRUE(comes_back());
}

// ---- The command ----

TEST_F(RecoveryRules, LineIsPartOfThePortsSection) {
    EXPECT_EQ(on_swp1("errdisable recovery interval 600"), "");
    EXPECT_EQ(rig.type("show running-config interface swp1"),
              "interface swp1\n errdisable recovery interval 600\n!\n");
    EXPECT_EQ(on_swp1("errdisable recovery interval never"), "");
    EXPECT_EQ(rig.type("show running-config interface swp1"),
              "interface swp1\n errdisable recovery interval never\n!\n");
    EXPECT_EQ(on_swp1("no errdisable recovery interval never"), "");
    EXPECT_EQ(rig.type("show running-config interface swp1"), "interface swp1\n!\n");
}

TEST_F(RecoveryRules, BadValuesAreRefused) {
    EXPECT_EQ(on_swp1("errdisable recovery interval 0"),
              "% Number out of range: '0' (1-1000000).\n");
    EXPECT_EQ(on_swp1("errdisable recovery interval 1000001"),
              "% Number out of range: '1000001' (1-1000000).\n");
    EXPECT_EQ(on_swp1("errdisable recovery interval"), "% Incomplete command.\n");
    EXPECT_EQ(on_swp1("errdisable recovery interval soon"),
              "% Invalid number: 'soon' (1-1000000).\n");
    EXPECT_EQ(on_swp1("errdisable recovery"), "");
    EXPECT_EQ(cli::rule_text(cli::recovery_rule(101)), "");
}

TEST_F(RecoveryRules, HelpListsNumberAndNever) {
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    EXPECT_EQ(cli::completions(rig.session, "errdisable recovery "),
              "backoff\ninterval\nprobation\n");
    EXPECT_EQ(cli::completions(rig.session, "errdisable recovery interval n"), "never\n");
    EXPECT_EQ(cli::help_text(rig.session, "errdisable recovery interval "),
              "  never                   Only an operator brings it back\n"
              "  <1-1000000>             Seconds from the shutdown\n");
}

TEST_F(RecoveryRules, DefaultsAndRemovalForgetTheRule) {
    operator_types(101, "errdisable recovery interval 600");
    EXPECT_EQ(rig.type("configure terminal"), "");
    EXPECT_EQ(rig.type("default interface swp1"), "");
    EXPECT_EQ(rig.type("end"), "");
    EXPECT_EQ(cli::recovery_rule(101), cli::RecoveryRule{});
    operator_types(102, "errdisable recovery interval never");
    rig.hardware.remove(102);
    EXPECT_EQ(cli::recovery_rule(102), cli::RecoveryRule{});
}

// ---- show errdisable ----

TEST_F(RecoveryRules, TimeShownIsTheFirstRecoveryThatIsNotRefused) {
    operator_types(101, "errdisable recovery interval 290");
    hold(101);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 300 - interval 290 -");
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:00:00 300 1 -");
    operator_types(101, "errdisable recovery interval 291");
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 600 - interval 291 -")
        << "the first one may be a tick early";
    operator_types(101, "errdisable recovery interval 590");
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 600 - interval 590 -");
    operator_types(101, "errdisable recovery interval 591");
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 900 - interval 591 -");
}

TEST_F(RecoveryRules, TimeAfterARefusalCountsFromIt) {
    operator_types(101, "errdisable recovery interval 580");
    hold(101);
    bring_back(101);
    pass(295s);
    bring_back(101);
    EXPECT_EQ(
        row("show errdisable recovery", "swp1"),
        "swp1 300 - interval 580 errdisable recovery interval 580: not before 580 s after the "
        "shutdown");
}

TEST_F(RecoveryRules, PortThatWaitsForAnOperatorHasNoTime) {
    operator_types(101, "errdisable recovery interval never");
    hold(101);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 - - interval never -");
    EXPECT_EQ(rig.type("show errdisable recovery | json"),
              R"({"version":1,"recovery_time_s":300,"ports":[{"port":"swp1","recovers_in_s":null,)"
              R"("recovers_at":null,"rule":"interval never","refused":null}]})"
              "\n");
}

// ---- errdisable recovery backoff ----

class RecoveryBackoff : public RecoveryRules {
 protected:
    // "S s, time N" of each decision about swp1.
    Lines waits() const {
        Lines lines;
        for (const cli::LoopEvent& event : held.events()) {
            if (event.port == "swp1" && event.action == cli::LoopAction::kWaits) {
                lines.push_back(std::to_string(event.duration->count()) + " s, time " +
                                std::to_string(*event.times));
            }
        }
        return lines;
    }
    // The port is shut, and is up again after `shut_for`.
    void one_round(std::chrono::seconds shut_for) {
        hold(101);
        pass(shut_for);
        EXPECT_TRUE(comes_back());
    }
};

TEST_F(RecoveryBackoff, EachShutdownInARowWaitsLongerUpToTheMost) {
    operator_types(101, "errdisable recovery backoff 3 2000");
    one_round(300s);
    one_round(900s);
    one_round(2000s);
    one_round(2000s);
    EXPECT_EQ(waits(),
              (Lines{"300 s, time 1", "900 s, time 2", "2000 s, time 3", "2000 s, time 4"}));
}

TEST_F(RecoveryBackoff, FirstShutdownWaitsForTheAgentOnly) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    hold(101);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryBackoff, RecoveryMayBeATickEarlyAsTheAgentsOwn) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    hold(101);
    pass(589s);
    EXPECT_FALSE(comes_back());
    pass(1s);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryBackoff, IntervalIsTheFirstWaitAndTheShortest) {
    operator_types(101, "errdisable recovery interval 500");
    operator_types(101, "errdisable recovery backoff 2 400");
    hold(101);
    pass(499s);
    EXPECT_FALSE(comes_back());
    pass(1s);
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_EQ(waits(), (Lines{"500 s, time 1", "500 s, time 2"}));
    pass(499s);
    EXPECT_FALSE(comes_back()) << "no tick early";
    pass(1s);
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryBackoff, RecoveryTimeOfTheAgentIsTheFirstWait) {
    g_setting = "loop-detect shutdown-recover-time 90";
    operator_types(101, "errdisable recovery backoff 2 3600");
    hold(101);
    EXPECT_EQ(waits(), Lines{"90 s, time 1"});
}

TEST_F(RecoveryBackoff, CalmTimeBeginsAnew) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    pass(300s);
    one_round(600s);
    pass(601s);
    one_round(300s);
    EXPECT_EQ(waits(), (Lines{"300 s, time 1", "600 s, time 2", "300 s, time 1"}));
}

TEST_F(RecoveryBackoff, RepeatedLineIsNoShutdownInARow) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    hold(101);
    hold(101);
    EXPECT_EQ(waits(), Lines{"300 s, time 1"});
}

TEST_F(RecoveryBackoff, NeverIsStronger) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    hold(101);
    operator_types(101, "errdisable recovery interval never");
    pass(10000s);
    EXPECT_FALSE(comes_back());
    operator_types(101, "no shutdown");
    hold(101);
    EXPECT_EQ(waits(), (Lines{"300 s, time 1", "600 s, time 2"}));
}

TEST_F(RecoveryBackoff, WithoutTheLineTheDecisionDoesNotCount) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    hold(101);
    operator_types(101, "no errdisable recovery backoff");
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryBackoff, LineDoesNotCountForAShutdownThatBeganBeforeIt) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    one_round(600s);
    operator_types(101, "no errdisable recovery backoff");
    hold(101);
    operator_types(101, "errdisable recovery backoff 2 3600");
    EXPECT_TRUE(comes_back());
}

TEST_F(RecoveryBackoff, DecisionsSurviveARestart) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    change(101, [](Port& port) { port.admin_up = false; });
    cli::LoopEvent shut;
    shut.time = *g_wall_time - 100s;
    shut.port = "swp1";
    shut.action = cli::LoopAction::kShut;
    cli::LoopEvent waits_again = shut;
    waits_again.action = cli::LoopAction::kWaits;
    waits_again.duration = 600s;
    waits_again.times = 2;
    held.restore({shut, waits_again});
    hold(101);
    pass(489s);
    EXPECT_FALSE(comes_back());
    pass(1s);
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_EQ(waits(), (Lines{"600 s, time 2", "1200 s, time 3"}));
}

TEST_F(RecoveryBackoff, CalmTimeContinuesAfterARestart) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    for (const auto& [calm, expected] :
         {std::pair{200s, "1200 s, time 3"}, std::pair{601s, "300 s, time 1"}}) {
        cli::LoopEvent waited;
        waited.time = *g_wall_time - 2000s;
        waited.port = "swp1";
        waited.action = cli::LoopAction::kWaits;
        waited.duration = 600s;
        waited.times = 2;
        cli::LoopEvent back = waited;
        back.time = *g_wall_time - calm;
        back.action = cli::LoopAction::kBroughtBack;
        held.restore({waited, back});
        hold(101);
        EXPECT_EQ(waits().back(), expected);
        bring_back(101);
        operator_types(101, "no shutdown");
    }
}

TEST_F(RecoveryBackoff, RenamedPortKeepsItsWaitAndARemovedOneDoesNot) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    one_round(300s);
    hold(101);
    rig.hardware.rename(101, "lan1");
    pass(589s);
    EXPECT_FALSE(comes_back());
    pass(1s);
    EXPECT_TRUE(comes_back());
    EXPECT_EQ(held.wait_before("lan1")->times, 2U);
    rig.hardware.remove(101);
    EXPECT_FALSE(held.wait_before("lan1"));
}

TEST_F(RecoveryBackoff, LinesShowsAndRefusalNameIt) {
    EXPECT_EQ(on_swp1("errdisable recovery backoff 2 3600"), "");
    EXPECT_EQ(on_swp1("errdisable recovery interval 100"), "");
    EXPECT_EQ(rig.type("show running-config interface swp1"),
              "interface swp1\n errdisable recovery interval 100\n"
              " errdisable recovery backoff 2 3600\n!\n");
    one_round(100s);
    hold(101);
    bring_back(101);
    EXPECT_EQ(
        row("show errdisable recovery", "swp1"),
        "swp1 300 - interval 100, backoff 2 3600 errdisable recovery backoff 2 3600: not before "
        "200 s after the shutdown, time 2 in a row");
    EXPECT_EQ(on_swp1("no errdisable recovery backoff 2 3600"), "");
    EXPECT_EQ(cli::rule_text(cli::recovery_rule(101)), "interval 100");
    EXPECT_EQ(on_swp1("no errdisable recovery interval"), "");
    EXPECT_EQ(cli::recovery_rule(101), cli::RecoveryRule{});
}

TEST_F(RecoveryBackoff, TimeShownIsTheOneOfTheDecision) {
    operator_types(101, "errdisable recovery backoff 2 3600");
    hold(101);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 300 - backoff 2 3600 -");
    pass(300s);
    EXPECT_TRUE(comes_back());
    hold(101);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 600 - backoff 2 3600 -");
}

TEST_F(RecoveryBackoff, BadValuesAreRefused) {
    EXPECT_EQ(on_swp1("errdisable recovery backoff 1 3600"),
              "% Number out of range: '1' (2-100).\n");
    EXPECT_EQ(on_swp1("errdisable recovery backoff 101 3600"),
              "% Number out of range: '101' (2-100).\n");
    EXPECT_EQ(on_swp1("errdisable recovery backoff 2 0"),
              "% Number out of range: '0' (1-1000000).\n");
    EXPECT_EQ(on_swp1("errdisable recovery backoff 2 1000001"),
              "% Number out of range: '1000001' (1-1000000).\n");
    EXPECT_EQ(on_swp1("errdisable recovery backoff 2"), "% Incomplete command.\n");
    EXPECT_EQ(cli::recovery_rule(101), cli::RecoveryRule{});
}

}  // namespace
}  // namespace qv::test
