// Ports that change, leave and return while the agent has them in a loop.
#include <gtest/gtest.h>

#include "lda_msg.h"
#include "platform/client/platform.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

const Lines kFeatureLines{"tarn port loop-detect warning", "storm-loop-detect enable"};
const Lines kHeldLines{"shutdown", "tarn port loop-detect warning",
                       "loop-detect apply shutdown-port", "storm-loop-detect enable"};

SwitchRig::Options four_ports() {
    SwitchRig::Options options;
    options.ports = 4;
    return options;
}

std::string table_line(SwitchRig& rig) {
    const std::string text = rig.type("show lda detect-result");
    const size_t start = text.find("loop-detect intf_num");
    return text.substr(start, text.find('\n', start) - start);
}

std::vector<std::string> set_mode(SwitchRig& rig, const std::string& port, const char* mode) {
    rig.type(
        {"configure terminal", "interface " + port, std::string("switchport mode ") + mode, "end"});
    return rig.take_executed();
}

// ---- VLAN mode ----

TEST(PortEvents, LoopedPortFollowsItsVlanMode) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.section("swp3"), kHeldLines);
    rig.forget();

    EXPECT_EQ(set_mode(rig, "swp3", "hybrid"),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "0", "1")});
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=1");

    EXPECT_EQ(set_mode(rig, "swp3", "access"), Lines{"interface 3: shutdown \r\n"});
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "1", "1")});
    EXPECT_EQ(rig.entry("swp3"), "policy=1 src_port=1");

    EXPECT_EQ(set_mode(rig, "swp3", "trunk"),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "0", "0")});
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=0");

    // Between two modes that are never shut down: notified, nothing executed.
    EXPECT_EQ(set_mode(rig, "swp3", "hybrid"), Lines{});
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "0", "1")});
    EXPECT_EQ(rig.take_log(), Lines{});
}

TEST(PortEvents, MoveBetweenAccessAndHybridUnderBothChangesNothing) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-hybrid-mode");
    rig.report(3, 1, 3);
    rig.forget();
    EXPECT_EQ(set_mode(rig, "swp3", "hybrid"), Lines{});
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"switchport mode hybrid", "shutdown", "tarn port loop-detect warning",
                     "loop-detect apply shutdown-port", "storm-loop-detect enable"}));
}

TEST(PortEvents, ModeChangeOfAQuietPortDoesNothing) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    EXPECT_EQ(set_mode(rig, "swp3", "hybrid"), Lines{});
    EXPECT_EQ(set_mode(rig, "swp3", "access"), Lines{});
    EXPECT_EQ(rig.take_notifications(), Lines{});
}

TEST(PortEvents, HeldPortThatLeavesTheBridgeIsRecovered) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    EXPECT_EQ(rig.type("test port leave swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "0", "0")});
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=0");
}

// ---- Defaults ----

TEST(PortEvents, DefaultsReleaseAHeldPortAndCleanItsStormLines) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    EXPECT_EQ(rig.type({"configure terminal", "default interface swp3", "end"}), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n",
                     "interface 3: no storm-loop-detect enable\r\n",
                     "interface 3: no storm-loop-rate ratelimit\r\n"}));
    EXPECT_EQ(rig.section("swp3"), Lines{});
    EXPECT_EQ(rig.entry("swp3"), "policy=1 src_port=1");  // the loop is still there
    EXPECT_EQ(rig.take_log(), Lines{});
}

// ---- Aggregate ports ----

TEST(PortEvents, MemberTakesTheModeOfItsAggregateAndIsConfiguredAtOnce) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown hybrid-mode");
    rig.type("test aggregate create ag1");
    // A port like any other: both detections are switched on for it.
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 5: tarn port loop-detect warning\r\n",
                     "interface 5: storm-loop-detect enable\r\n"}));
    set_mode(rig, "ag1", "hybrid");
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), Lines{});  // swp3 is an access port
    rig.forget();

    EXPECT_EQ(rig.type("test aggregate join ag1 swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"inline config: tarn enable\r\n",
                     "inline config: tarn error-recover interval 90\r\n",
                     "inline interface 3: tarn port loop-detect warning\r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(lda_loop_result_get(3)->mode, 7U);
    EXPECT_EQ(lda_loop_result_get(3)->mode_arg, 5);
    rig.report(3, 1, 3);  // the loop again: now it is a hybrid port
    EXPECT_EQ(rig.take_executed(), Lines{"interface 3: shutdown \r\n"});

    // Leaving restores the port's own mode and decides nothing.
    EXPECT_EQ(rig.type("test aggregate leave ag1 swp3"), "");
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(lda_loop_result_get(3)->mode, 1U);
    EXPECT_EQ(lda_loop_result_get(3)->mode_arg, 0);
    EXPECT_EQ(rig.section("swp3"), kHeldLines);
    rig.advance(300s);
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
}

TEST(PortEvents, MemberIsAddedWhenItsLineCannotBeExecuted) {
    SwitchRig rig(four_ports());
    rig.set_policy("");
    rig.type({"test aggregate create ag1", "debug lda syslog level 1", "test fail-sessions 1"});
    rig.forget();
    rig.type("test aggregate join ag1 swp3");
    EXPECT_EQ(rig.take_log(),
              Lines{"LDA-6-ERROR: <lda_intf_loop_cmd_enable> LDA cli_sub_create_session fail, "
                    "fd=-1"});
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(lda_loop_result_get(3)->mode_arg, 5);
}

TEST(PortEvents, LeavingAnAggregateNeverShutsAPort) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.type("test aggregate create ag1");
    set_mode(rig, "ag1", "trunk");
    rig.type("test aggregate join ag1 swp3");
    rig.report(3, 1, 3);
    rig.forget();
    EXPECT_EQ(rig.type("test aggregate leave ag1 swp3"), "");
    EXPECT_EQ(lda_loop_result_get(3)->mode, 1U);  // one that the policy shuts down
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
}

TEST(PortEvents, ModeChangeOfAnAggregateReachesEveryMember) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown hybrid-mode");
    rig.type({"test aggregate create ag1", "test aggregate join ag1 swp2",
              "test aggregate join ag1 swp4"});
    rig.report(2, 1, 4);
    rig.forget();
    EXPECT_EQ(set_mode(rig, "ag1", "hybrid"),
              (Lines{"interface 2: shutdown \r\n", "interface 4: shutdown \r\n"}));
    EXPECT_EQ(rig.take_notifications(),
              (Lines{notified("swp2", "1", "1", "1"), notified("swp4", "1", "1", "1")}));
    EXPECT_EQ(set_mode(rig, "ag1", "trunk"),
              (Lines{"interface 2: errdisable recovery \r\n", "interface 2: no shutdown  \r\n",
                     "interface 4: errdisable recovery \r\n", "interface 4: no shutdown  \r\n"}));
    EXPECT_EQ(rig.entry("swp2"), "policy=0 src_port=0");
    EXPECT_EQ(rig.entry("swp4"), "policy=0 src_port=0");
}

// ---- Virtual switch links ----

TEST(PortEvents, LoopedPortThatBecomesAVslIsReleasedAndRemovedFromDetection) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    EXPECT_EQ(rig.type("test vsl create swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "2", "0", "0")});
    EXPECT_EQ(rig.entry("swp3"), "none");
    EXPECT_EQ(rig.section("swp3"), Lines{"tarn port loop-detect warning"});
    // It stays in the count, and the timer that its recovery armed reports the end.
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");
    rig.report(3, 1, 3);
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error."});
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");

    EXPECT_EQ(rig.type("test vsl remove swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 3: tarn port loop-detect warning\r\n",
                     "interface 3: storm-loop-detect enable\r\n"}));
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=1");
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
    EXPECT_EQ(lda_loop_result_get(3)->vsl_member, 0U);
}

TEST(PortEvents, VslKeepsItsRecordWhileDetectionIsDisabled) {
    SwitchRig rig(four_ports());
    rig.type("test vsl create swp3");
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=0");
    EXPECT_EQ(lda_loop_result_get(3)->vsl_member, 1U);
    EXPECT_EQ(lda_loop_result_get(3)->mode, 0U);
    rig.type("test vsl remove swp3");
    EXPECT_EQ(lda_loop_result_get(3)->vsl_member, 0U);
    EXPECT_EQ(rig.take_executed(), Lines{});
}

// ---- Ports that leave ----

TEST(PortEvents, PortDeletedWhileItsClearTimerRunsIsStillRemovedFromTheTable) {
    SwitchRig rig(four_ports());
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.report(3, 0, 3);
    rig.advance(30s);
    rig.forget();
    EXPECT_EQ(rig.type("test port delete swp3"), "");
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=1");
    rig.advance(30s);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error."});
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "2", "0", "1")});
    EXPECT_EQ(rig.entry("swp3"), "none");
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=0");
}

TEST(PortEvents, PortDeletedBeforeItsQueuedShutdownIsExecuted) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.trace();
    rig.on_main([&] {
        // The report arrives and its message is posted after the port has left the switch and
        // before the agent learns of that.
        const uint8_t record[] = {0x2a, 0x02, 0x08, 0x03, 0x30, 0x01, 0x38, 0x01, 0x40, 0x03};
        rig.store().put(4, "p_bridge.tarn_loop_info/ifx=3", record);
        cli::SessionState session;
        EXPECT_EQ(cli::execute(session, "test port delete swp3").output, "");
    });
    EXPECT_EQ(rig.take_executed(), Lines{"interface 3: shutdown \r\n"});
    EXPECT_EQ(rig.take_delivery_log(),
              traced({
                  "<lda_cli_msg_thread_proc> ---The number of cli msg is 0, receive a "
                  "signal[2,3,0,0,1,2]",
                  "<cli_exec_shutdown> enter ifx=3, is_shutdown=1",
                  "LDA-6-ERROR: <lda_loop_cmd_execute> cli_execute_cmd_buf fail:cmd=shutdown \r\n"
                  ", ret=-1",
                  "<lda_loop_cmd_execute> ifx 3 cmd shutdown \r\n out ret=2 % The interface does "
                  "not exist.",
              }));
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");
}

TEST(PortEvents, PortDeletedDuringItsRecoveryIsUpWhenItReturns) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.advance(1s);
    rig.trace();
    rig.on_main([] {
        cli::SessionState session;
        cli::execute(session, "configure terminal");
        cli::execute(session, "loop-detect enable");  // brings the port back
        cli::SessionState other;
        EXPECT_EQ(cli::execute(other, "test port delete swp3").output, "");
    });
    const Lines log = rig.take_delivery_log();
    ASSERT_GE(log.size(), 5U);
    // The first one counts the messages that are still queued, which may be the next one already.
    EXPECT_EQ(Lines(log.begin() + 1, log.begin() + 5),
              traced({
                  "<cli_exec_shutdown> enter ifx=3, is_shutdown=0",
                  "LDA-6-ERROR: <lda_loop_cmd_execute> cli_execute_cmd_buf fail:cmd=errdisable "
                  "recovery \r\n, ret=-1",
                  "<lda_loop_cmd_execute> ifx 3 cmd errdisable recovery \r\n out ret=2 % The "
                  "interface does not exist.",
                  "<lda_loop_cmd_execute> ifx 3 cmd no shutdown  \r\n out ret=0 ",
              }));
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");
    rig.type("test port add swp3");
    rig.advance(1s);
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
}

TEST(PortEvents, DeletedLoopedPortKeepsItsPlaceUntilDetectionIsDisabled) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.type("test port delete swp3");
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 3, loop_num=1");
    EXPECT_EQ(rig.entry("swp3"), "policy=1 src_port=1");
    rig.advance(400s);
    rig.forget();

    EXPECT_EQ(rig.type("test port add swp3"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 3: tarn port loop-detect warning\r\n",
                     "interface 3: storm-loop-detect enable\r\n",
                     // Its section was kept, including the line that it is held.
                     "interface 3: shutdown \r\n"}));
    rig.report(3, 1, 3);
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=2");
    rig.type({"configure terminal", "no loop-detect enable", "end"});
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=0");
    EXPECT_EQ(rig.entry("swp3"), "none");
}

TEST(PortEvents, PortDeletedAndAddedAgainIsANewPortThatIsStillHeld) {
    SwitchRig rig(four_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    rig.on_main([] {
        cli::SessionState session;
        EXPECT_EQ(cli::execute(session, "test port delete swp3").output, "");
        EXPECT_EQ(cli::execute(session, "test port add swp3").output, "");
    });
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=1");
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(600s);
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error."});
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=1");
}

// ---- Ports that appear ----

TEST(PortEvents, SamePortAddedTwiceIsOnePort) {
    SwitchRig rig(four_ports());
    rig.set_policy("");
    EXPECT_EQ(rig.type("test port add swp3"), "% port swp3 exists already\n");
    rig.on_main([] {
        PortModel& ports = platform().ports();
        const Port again = *ports.find(3);
        ports.port_added(again);  // as by a driver that reads its switch again
    });
    EXPECT_EQ(table_line(rig), "loop-detect intf_num: 4, loop_num=0");
    EXPECT_EQ(rig.take_executed(), Lines{});
}

TEST(PortEvents, NewPortIsConfiguredWhileDetectionIsActive) {
    SwitchRig rig(four_ports());
    rig.type("test port add swp5");
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.set_policy("");
    rig.type("test port add lan-uplink");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 6: tarn port loop-detect warning\r\n",
                     "interface 6: storm-loop-detect enable\r\n"}));
    EXPECT_EQ(rig.section("lan-uplink"), kFeatureLines);
}

}  // namespace
}  // namespace qv::test
