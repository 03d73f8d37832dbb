// The saved configuration: its content while ports are shut, and its effect at a start.
#include <gtest/gtest.h>

#include <algorithm>

#include "lda_main.h"
#include "lda_msg.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

const Lines kFeatureLines{"tarn port loop-detect warning", "storm-loop-detect enable"};

SwitchRig::Options saved(std::string text, unsigned ports = 2) {
    SwitchRig::Options options;
    options.ports = ports;
    options.saved_configuration = std::move(text);
    return options;
}

TEST(SavedConfiguration, PortShutByTheAgentIsSavedAsSuch) {
    SwitchRig rig(saved(""));
    rig.set_policy("shutdown access-mode");
    rig.report(2, 1, 2);
    rig.advance(10s);
    EXPECT_EQ(rig.saved_text(),
              "tarn enable\n"
              "tarn error-recover interval 90\n"
              "loop-detect enable shutdown access-mode\n"
              "interface swp1\n"
              " tarn port loop-detect warning\n"
              " storm-loop-detect enable\n"
              "!\n"
              "interface swp2\n"
              " shutdown\n"
              " tarn port loop-detect warning\n"
              " loop-detect apply shutdown-port\n"
              " storm-loop-detect enable\n"
              "!\n"
              "end\n");
}

TEST(SavedConfiguration, HeldPortIsRecoveredAfterARestart) {
    SwitchRig rig(
        saved("loop-detect enable shutdown access-mode\n"
              "loop-detect shutdown-recover-time 90\n"
              "interface swp2\n"
              " shutdown\n"
              " loop-detect apply shutdown-port\n"
              "!\n"));
    // The features for the policy, the shutdown for the mark, and the features once more for the
    // end of the replay.
    const Lines features{"config: tarn enable\r\n",
                         "config: tarn error-recover interval 90\r\n",
                         "interface 1: tarn port loop-detect warning\r\n",
                         "interface 1: storm-loop-detect enable\r\n",
                         "interface 2: tarn port loop-detect warning\r\n",
                         "interface 2: storm-loop-detect enable\r\n"};
    EXPECT_EQ(rig.take_executed(), together({features, {"interface 2: shutdown \r\n"}, features}));
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.section("swp2"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    rig.advance(89s);
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.advance(1s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 2: errdisable recovery \r\n", "interface 2: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp2"), kFeatureLines);
}

// The mark must not be judged by the mode that the port had before its line was replayed.
TEST(SavedConfiguration, HeldHybridPortIsNotOpenedByARestart) {
    SwitchRig rig(
        saved("loop-detect enable shutdown hybrid-mode\n"
              "interface swp2\n"
              " switchport mode hybrid\n"
              " shutdown\n"
              " loop-detect apply shutdown-port\n"
              "!\n"));
    const Lines executed = rig.take_executed();
    EXPECT_EQ(std::count(executed.begin(), executed.end(), "interface 2: shutdown \r\n"), 1);
    EXPECT_EQ(std::count(executed.begin(), executed.end(), "interface 2: no shutdown  \r\n"), 0);
    EXPECT_EQ(rig.section("swp2"),
              (Lines{"switchport mode hybrid", "shutdown", "tarn port loop-detect warning",
                     "loop-detect apply shutdown-port", "storm-loop-detect enable"}));
}

TEST(SavedConfiguration, HeldHybridPortStaysHeldWhenItIsRemovedAndAdded) {
    SwitchRig rig(saved("interface swp2\n switchport mode hybrid\n!\n"));
    rig.set_policy("shutdown hybrid-mode");
    rig.type({"configure terminal", "interface swp2", "storm-loop-rate ratelimit 123456", "end"});
    rig.report(2, 1, 2);
    rig.advance(1s);
    const Lines held{"switchport mode hybrid",        "shutdown",
                     "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable",      "storm-loop-rate ratelimit 123456"};
    EXPECT_EQ(rig.section("swp2"), held);
    rig.type("test port delete swp2");
    rig.advance(1s);
    EXPECT_EQ(rig.section("swp2"), held) << "the section of a port that is not there";
    rig.type("test port add swp2");
    rig.advance(1s);
    EXPECT_EQ(rig.section("swp2"), held);
    rig.advance(310s);
    EXPECT_EQ(rig.section("swp2"),
              (Lines{"switchport mode hybrid", "tarn port loop-detect warning",
                     "storm-loop-detect enable", "storm-loop-rate ratelimit 123456"}));
}

TEST(SavedConfiguration, RenamedPortKeepsItsStateAfterItsLoopHasEnded) {
    SwitchRig rig(saved(""));
    rig.set_policy("shutdown access-mode");
    rig.report(2, 1, 2);
    rig.advance(1s);
    rig.type("test port rename swp2 uplink");
    rig.advance(1s);
    EXPECT_EQ(rig.entry("swp2"), "policy=1 src_port=1") << "looped, it stays the old port";
    EXPECT_EQ(lda_loop_result_get(2)->name, std::string("swp2"));
    rig.report(2, 0, 2);
    rig.advance(400s);  // recovery, then the clear interval
    EXPECT_EQ(rig.entry("swp2"), "none");
    EXPECT_EQ(lda_loop_result_get(2)->name, std::string("uplink"));
    rig.report(2, 1, 2);
    rig.advance(1s);
    EXPECT_EQ(rig.entry("uplink"), "policy=1 src_port=1");
}

TEST(SavedConfiguration, LatePortIsMarkedWhenItAppears) {
    SwitchRig rig(
        saved("loop-detect enable shutdown access-mode\n"
              "interface swp9\n"
              " loop-detect apply shutdown-port\n"
              "!\n"));
    EXPECT_EQ(rig.take_log(),
              Lines{"CLI-3-REPLAY: " + rig.saved_file().string() +
                    ": line 2: interface swp9 does not exist; its lines wait for it."});
    rig.advance(10s);  // nothing is left to generate
    rig.trace();
    rig.type("test port add swp9");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 9: tarn port loop-detect warning\r\n",
                     "interface 9: storm-loop-detect enable\r\n", "interface 9: shutdown \r\n"}));
    const Lines log = rig.take_log();
    const Lines expected = traced({
        // Its lines come first: the port is not known to loop detection yet and is remembered.
        "<cfg_lda_cli_apply_shutdown_command> commnad cli_apply_shutdown=9",
        "<cfg_lda_cli_apply_shutdown_command_int> enter",
        "<lda_back_node_add> --- add backup_node_list :ifx=9",
        "<cfg_lda_cli_apply_shutdown_command_int> port 9 is shutdown",
        "<lda_lsm_event_handle> LDA receive lsm event 0, intf ifx=9",
        "<lda_add_intf> ifx=9, type=1",
        "<lda_add_intf> +++LDA add intf:ifx=9, name=swp9, intf_num=3",
        "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond signal[2,9,2,0].",
        "<lda_add_intf> cli cmd send done: ifx 9, mid 2, msg_type 1.",
        "<lda_add_intf> ---LDA find backup_node_list :ifx=9",
        "<lda_intf_ret_proc> ifx=9 act_shut=1/1,act_notify=1,",
        "<lda_send_shutcmd> enter ifx=9, shutdown=1",
    });
    ASSERT_GE(log.size(), expected.size());
    EXPECT_EQ(Lines(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(expected.size())),
              expected);
    EXPECT_EQ(lda_back_node_lookup(9), 0);
    rig.advance(310s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 9: errdisable recovery \r\n", "interface 9: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp9"), kFeatureLines);
}

TEST(SavedConfiguration, MarkWithoutAPolicyIsRefusedWithAMessage) {
    SwitchRig rig(saved("interface swp2\n loop-detect apply shutdown-port\n!\n"));
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: loop-detect shutdown-port policy can not "
                                    "be applied while loop-detect is disabled."});
    EXPECT_EQ(rig.section("swp2"), Lines{});
    EXPECT_EQ(rig.take_executed(), Lines{});
}

TEST(SavedConfiguration, BadLinesAreReportedWithTheirNumbersAndTheRestIsApplied) {
    SwitchRig rig(
        saved("loop-detect enable shutdown acces-hybrid-mod\n"
              "loop-detect shutdown-recover-time 89\n"
              "\x01\xff\xfe\n"
              "loop-detect shutdown-recover-time 120\n"
              "loop-detect enable shutdown access-hybrid-mode\n"
              "interface swp2\n"
              " loop-detect aply shutdown-port\n"
              " loop-detect apply shutdown-port\n"
              "!\n"
              "loop-det"));
    const std::string file = "CLI-3-REPLAY: " + rig.saved_file().string();
    EXPECT_EQ(rig.take_log(),
              (Lines{file + ": line 1: \"loop-detect enable shutdown acces-hybrid-mod\": % Unknown "
                            "command: 'acces-hybrid-mod'.",
                     file + ": line 2: \"loop-detect shutdown-recover-time 89\": % Number out of "
                            "range: '89' (90-1000000).",
                     file + ": line 3: \"\\x01\\xff\\xfe\": % Line contains control characters.",
                     file + ": line 7: \"loop-detect aply shutdown-port\": % Unknown command: "
                            "'aply'.",
                     file + ": line 10: \"loop-det\": % Incomplete command."}));
    EXPECT_EQ(g_lda_recover_time.time, 120U);
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown access-hybrid-mode"));
    EXPECT_EQ(rig.section("swp2"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
}

}  // namespace
}  // namespace qv::test
