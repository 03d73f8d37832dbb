// Everything the agent says on its way through the life of one loop, compared whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "app_debug.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

SwitchRig::Options two_ports() {
    SwitchRig::Options options;
    options.ports = 2;
    return options;
}

// The platform decides when it generates the running configuration. The agent's lines about that
// are the subject of one test and are left out of the others.
Lines without_generation(Lines lines) {
    std::erase_if(lines, [](const std::string& line) {
        constexpr std::string_view kGenerating[] = {
            "LDA-6-INFO: <cfg_lda_cli_warning_command> enter",
            "LDA-6-INFO: <lda_policy_set> enter type=1, pcdb=16",
            "LDA-6-INFO: <lda_policy_set> su=",
            "LDA-6-INFO: <cfg_lda_cli_apply_shutdown_command",
        };
        return std::any_of(std::begin(kGenerating), std::end(kGenerating),
                           [&](std::string_view start) { return line.starts_with(start); });
    });
    return lines;
}

TEST(Transcript, StartWithTwoPorts) {
    SwitchRig::Options options = two_ports();
    options.prepare = [] {
        g_dbg_slog_level = 2;
    };
    SwitchRig rig(options);
    EXPECT_EQ(
        joined(rig.take_log()),
        joined(traced({
            "<main> LDA:qv_thread_master_create start.",
            "<main> LDA:qv_thread_master_create end.",
            "<main> qv_mom_client_init",
            "<main> qv_mom_client_init end",
            "<main> LDA:qv_thread_fetch start.",
            "<hot_standby_callback> It Works! This function will run on master or on switch.",
            "<hot_standby_callback> LDA:lda_init start.",
            "<hot_standby_callback> LDA:lda_init end.",
            "<hot_standby_callback> LDA:lda_cli_init start.",
            "<hot_standby_callback> LDA: register CLI success.",
            "<hot_standby_callback> LDA:lda_cli_init end.",
            "<hot_standby_callback> LDA:lda_lsm_init start.",
            "<hot_standby_callback> LDA: register LSM success.",
            "<hot_standby_callback> LDA:lda_lsm_init end.",
            "<lda_bridge_init> enter",
            "<hot_standby_callback> LDA:lda_bridge_init end.",
            "<lda_mom_cfg_db_reg_callback> QV_MOM_CFG_DB reg start",
            "<lda_mom_cfg_db_reg_callback> QV_MOM_CFG_DB reg end",
            "<lda_mom_local_db_reg_callback> QV_MOM_APP_DB reg start",
            "<lda_mom_local_db_reg_callback> QV_MOM_APP_DB reg end",
            "<lda_mom_app_db_reg_callback> QV_MOM_APP_DB reg start",
            "<lda_mom_app_db_reg_callback> QV_MOM_APP_DB reg end",
            "<std_load_cap_value> url p_cmps_sln/lda/storm_dct_ratelimit/default_value, value 8000",
            "<storm_mom_udp_db_reg_callback> QV_MOM_APP_DB reg start",
            "<storm_mom_udp_db_reg_callback> QV_MOM_APP_DB reg end",
            "LDA-6-WARN: <storm_init> storm init done.",
            "<lda_bridge_con_handle> enter",
            "<lda_bridge_con_handle> rv: 0",
            "<lda_mom_cfg_db_connect> lda_mom_cfg_db_connect",
            "<lda_mom_local_db_connect> lda_mom_local_db_connect",
            "<lda_mom_app_db_connect> lda_mom_app_db_connect",
            "<lda_mom_del_all_loop_entry> delete all loop entry",
            "<storm_mom_udp_db_connect> storm_mom_local_db_connect",
            "<lda_storm_ready> storm init ready",
            "<lda_lsm_event_handle> LDA receive lsm event 0, intf ifx=1",
            "<lda_add_intf> ifx=1, type=1",
            "<lda_add_intf> +++LDA add intf:ifx=1, name=swp1, intf_num=1",
            "<lda_lsm_event_handle> LDA receive lsm event 0, intf ifx=2",
            "<lda_add_intf> ifx=2, type=1",
            "<lda_add_intf> +++LDA add intf:ifx=2, name=swp2, intf_num=2",
            "<lda_lsm_bridge_event_handle> event = 48",
            "<lda_lsm_event_handle> lsm port ready",
            "<lda_try_notify_cli_ready> cli ready",
            "<lda_nc_msg_policy> recv mom msg, cmd[29]",
            "<lda_nc_msg_policy> subscribe success",
            "<lda_loop_config_delivery> enter",
            "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[29]",
            "<lda_tarn_mom_subscribe_callback> mom subscribe success",
        })));
    EXPECT_EQ(rig.take_delivery_log(), Lines{});
    EXPECT_EQ(rig.take_executed(), Lines{});
}

TEST(Transcript, PolicyCommandSwitchesBothDetectionsOnForEveryPort) {
    SwitchRig rig(two_ports());
    rig.type("no storm-loop-detect enable");  // a mode too early: refused, changes nothing
    rig.trace();
    EXPECT_EQ(rig.type({"configure terminal", "loop-detect enable shutdown access-mode"}), "");
    const Lines log = without_generation(rig.take_log());
    ASSERT_GE(log.size(), 8U);
    // Behind these the switch runs the lines of the delivery thread.
    EXPECT_EQ(Lines(log.begin(), log.begin() + 8),
              traced({
                  "<cfg_lda_cli_shutdown_access_command> enter",
                  "<lda_policy_set> enter type=2, pcdb=0",
                  "<lda_intf_ret_proc> ifx=1 act_shut=0/0,act_notify=0,",
                  "<lda_cfg_policy_chg_cbk> ifx=1, is_shutdown=0",
                  "<lda_intf_ret_proc> ifx=2 act_shut=0/0,act_notify=0,",
                  "<lda_cfg_policy_chg_cbk> ifx=2, is_shutdown=0",
                  "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond "
                  "signal[2,0,2,0].",
                  "<lda_cli_policy_set> old_type=0, new_type=2, msg_type=5",
              }));
    EXPECT_EQ(rig.take_delivery_log(),
              traced({
                  "<lda_cli_msg_thread_proc> ---The number of cli msg is 0, receive a "
                  "signal[2,0,0,2,0,5]",
                  "<lda_loop_cmd_enable> LDA:***lda_loop_cmd_enable mid[2] start .",
                  "<lda_loop_cmd_execute> ifx 0 cmd tarn enable\r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 0 cmd tarn error-recover interval 90\r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 1 cmd tarn port loop-detect warning\r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 1 cmd storm-loop-detect enable\r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 2 cmd tarn port loop-detect warning\r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 2 cmd storm-loop-detect enable\r\n out ret=0 ",
                  "<lda_loop_cmd_enable> LDA:***lda_loop_cmd_enable mid[2] end.",
              }));
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 1: tarn port loop-detect warning\r\n",
                     "interface 1: storm-loop-detect enable\r\n",
                     "interface 2: tarn port loop-detect warning\r\n",
                     "interface 2: storm-loop-detect enable\r\n"}));
    EXPECT_EQ(rig.stored_policy(), 2);
}

TEST(Transcript, FreshLoopUnderShutdownAccess) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.trace();
    rig.report(1, 1, 1);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[1]",
                  "<lda_tarn_mom_subscribe_callback> recv tarn msg, ifx[1] vid[1] is_loop[1] "
                  "src_ifx[1]",
                  "<lda_loop_exec_policy> ifx=1, type=2, mode=1",
                  "<lda_intf_ret_proc> ifx=1 act_shut=1/1,act_notify=1,",
                  "<lda_send_shutcmd> enter ifx=1, shutdown=1",
                  "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond "
                  "signal[2,1,0,1].",
                  // The port is not in the table yet: the end is sent first, then the loop.
                  "<lda_send_info_ntf> send loop-detect state, name[swp1] notify_type[2] "
                  "vid[0] policy[1] src-port[1]",
                  "<lda_mom_del_loop_entry> delete loop entry: name=swp1",
                  "<lda_loop_result_add> +++lda add loop interface ifx=1 , loop_num=1",
                  "<lda_send_info_ntf> send loop-detect state, name[swp1] notify_type[1] "
                  "vid[0] policy[1] src-port[1]",
                  "<lda_mom_set_loop_entry> set loop entry: name=swp1, policy=1,is_src=1",
                  "LOOP_DETECT-3-ERROR: Detected loop error on interface swp1.",
              }));
    EXPECT_EQ(rig.take_delivery_log(),
              traced({
                  "<lda_cli_msg_thread_proc> ---The number of cli msg is 0, receive a "
                  "signal[2,1,0,0,1,2]",
                  "<cli_exec_shutdown> enter ifx=1, is_shutdown=1",
                  "<lda_loop_cmd_execute> ifx 1 cmd shutdown \r\n out ret=0 ",
              }));
    EXPECT_EQ(rig.take_executed(), Lines{"interface 1: shutdown \r\n"});
    EXPECT_EQ(rig.take_announcements(), (Lines{"reform", "announce", "reform", "announce"}));
    EXPECT_EQ(rig.take_notifications(),
              (Lines{notified("swp1", "2", "1", "1"), notified("swp1", "1", "1", "1")}));
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
}

TEST(Transcript, RepeatedReportShutsAgainAndNotifiesNobody) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(1s);
    rig.trace();
    rig.report(1, 1, 1);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[1]",
                  "<lda_tarn_mom_subscribe_callback> recv tarn msg, ifx[1] vid[1] "
                  "is_loop[1] src_ifx[1]",
                  "<lda_loop_result_set> IN LOOP STATE, LOOP AGAIN, SEND THE SHUTDOWN "
                  "FORCE, DON'T Notify!!",
                  "<lda_loop_exec_policy> ifx=1, type=2, mode=1",
                  "<lda_send_shutcmd> enter ifx=1, shutdown=1",
                  "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond "
                  "signal[2,1,0,1].",
              }));
    EXPECT_EQ(rig.take_executed(), Lines{"interface 1: shutdown \r\n"});
    EXPECT_EQ(rig.take_announcements(), (Lines{"reform", "announce"}));
    EXPECT_EQ(rig.take_notifications(), Lines{});
}

TEST(Transcript, RecoveryTickBringsThePortBack) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(298s);  // one second before the thirtieth tick
    rig.trace();
    rig.advance(2s);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_send_shutcmd> enter ifx=1, shutdown=0",
                  "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond "
                  "signal[2,1,0,0].",
                  "<lda_intf_shutdown_timer_call> ifx=1 no shutdown force",
              }));
    EXPECT_EQ(rig.take_delivery_log(),
              traced({
                  "<lda_cli_msg_thread_proc> ---The number of cli msg is 0, receive a "
                  "signal[2,1,0,0,0,2]",
                  "<cli_exec_shutdown> enter ifx=1, is_shutdown=0",
                  "<lda_loop_cmd_execute> ifx 1 cmd errdisable recovery \r\n out ret=0 ",
                  "<lda_loop_cmd_execute> ifx 1 cmd no shutdown  \r\n out ret=0 ",
              }));
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 1: errdisable recovery \r\n", "interface 1: no shutdown  \r\n"}));
    EXPECT_EQ(rig.take_announcements(), (Lines{"reform", "announce"}));
    // The loop is still there: the port stays in the table.
    rig.advance(600s);
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
}

TEST(Transcript, RefusedRecoveryKeepsTheMarkAndIsTriedAtTheNextRecovery) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(298s);
    rig.trace();
    rig.type({"test refuse not now", "test refuse % Port is on fire"});
    rig.advance(2s);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_send_shutcmd> enter ifx=1, shutdown=0",
                  "<lda_cli_cmd_send> +++The number of cli_msg is 1, send cond "
                  "signal[2,1,0,0].",
                  "<lda_intf_shutdown_timer_call> ifx=1 no shutdown force",
              }));
    EXPECT_EQ(rig.take_delivery_log(),
              traced({
                  "<lda_cli_msg_thread_proc> ---The number of cli msg is 0, receive a "
                  "signal[2,1,0,0,0,2]",
                  "<cli_exec_shutdown> enter ifx=1, is_shutdown=0",
                  "<lda_loop_cmd_execute> ifx 1 cmd errdisable recovery \r\n out ret=2 not now",
                  "<lda_loop_cmd_execute> ifx 1 cmd no shutdown  \r\n out ret=2 % Port is on "
                  "fire",
                  "<cli_exec_shutdown> EXECUTE THE NOT SHUT FAILED, IFX=1",
                  "<cli_exec_shutdown> revert no shtudown, force notify",
              }));
    EXPECT_EQ(rig.take_announcements(), (Lines{"reform", "announce", "reform", "announce"}));
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    rig.take_executed();

    rig.advance(298s);
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.advance(2s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 1: errdisable recovery \r\n", "interface 1: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
}

TEST(Transcript, QuietPortIsClearedAMinuteAfterItsRecovery) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.trace();
    rig.report(1, 0, 1);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[1]",
                  "<lda_tarn_mom_subscribe_callback> recv tarn msg, ifx[1] vid[1] "
                  "is_loop[0] src_ifx[1]",
              }));
    rig.advance(300s);
    rig.forget();
    rig.advance(58s);
    EXPECT_EQ(without_generation(rig.take_log()), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
    rig.advance(2s);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_intf_loop_clear> node->total_result ifx swp1",
                  "<lda_intf_loop_clear> ---lda delete loop interface , loop_num=0, ifx=swp1",
                  "<lda_send_info_ntf> send loop-detect state, name[swp1] notify_type[2] vid[0] "
                  "policy[1] src-port[1]",
                  "<lda_mom_del_loop_entry> delete loop entry: name=swp1",
                  "LOOP_DETECT-3-RECOVER: Interface swp1 recovered from loop error.",
              }));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp1", "2", "1", "1")});
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "none");
}

TEST(Transcript, GenerationAsksForEveryLineAndLogsThePortsMarks) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(60s);
    rig.trace();
    rig.running_config();
    EXPECT_EQ(rig.take_log(),
              traced({
                  "<cfg_lda_cli_warning_command> enter",
                  "<lda_policy_set> enter type=1, pcdb=2",
                  "<lda_policy_set> su=2",
                  "<cfg_lda_cli_apply_shutdown_command> commnad cli_apply_shutdown=1",
                  "<cfg_lda_cli_apply_shutdown_command_int> enter",
                  "<cfg_lda_cli_apply_shutdown_command_int> port is 1, shutdown =1",
                  "<cfg_lda_cli_apply_shutdown_command> commnad cli_apply_shutdown=2",
                  "<cfg_lda_cli_apply_shutdown_command_int> enter",
                  "<cfg_lda_cli_apply_shutdown_command_int> port is 2, shutdown =0",
              }));
}

TEST(Transcript, NotificationsOfALoopAreShownWithTheirLeaves) {
    SwitchRig rig(two_ports());
    EXPECT_EQ(rig.type("show notifications"), "No notification has been sent.\n");
    rig.set_policy("shutdown access-mode");
    rig.report(2, 1, 2);
    std::istringstream text(rig.type("show notifications"));
    std::string shown;
    for (std::string line; std::getline(text, line);) {
        const bool time = line.size() == std::string_view("2026-01-31 23:59:59.123").size() &&
                          line[4] == '-' && line[19] == '.';
        shown += (time ? "TIME" : line) + "\n";
    }
    EXPECT_EQ(shown,
              "TIME\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/notify-type = 2\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/vid = 0\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/policy = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/src-port = 1\n"
              "TIME\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/notify-type = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/vid = 0\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/policy = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/src-port = 1\n");
}

}  // namespace
}  // namespace qv::test
