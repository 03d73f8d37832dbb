// The role callback: everything it builds, in order, and each way it ends the process.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "app_debug.h"
#include "lda_cli_delivery.h"
#include "lda_main.h"
#include "lda_state.h"
#include "storm_detect.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/call_lists.h"

extern "C" int lda_main();

using fake::error;
using fake::info;
using fake::Lines;
using fake::warn;

namespace {

std::string log(const char* text) {
    return info("hot_standby_callback", text);
}

// The role callback with every log line in the list of calls, logging being set up.
class RoleCallback : public ::testing::Test {
 protected:
    RoleCallback() {
        fake::file("/data/lda/lda.dbg", "5 0");
        app_debug_init("lda", "LDA");
        g_lda_master = fake::master();
        g_lda_global = fake::mom_client();
        fake::clear_calls();
    }

    // A start that fails: exit status 255 after the calls of a whole start up to and including
    // `last`, and then exactly `rest`.
    static void expect_exit_after(const std::string& last, const Lines& rest) {
        fake::Ending ending = fake::run_in_child([] { hot_standby_callback(); });
        EXPECT_EQ(ending.status, 255);
        EXPECT_FALSE(ending.returned);
        EXPECT_EQ(ending.calls, join(up_to(golden_lines("role_callback/start"), last), rest));
    }
};

}  // namespace

TEST_F(RoleCallback, BuildsTheAgentInOrder) {
    EXPECT_EQ(hot_standby_callback(), 0);
    expect_golden("role_callback/start", fake::calls());
    EXPECT_EQ(fake::held_threads(), 1);
}

TEST_F(RoleCallback, LogLinesNameTheirSourceFile) {
    hot_standby_callback();
    ASSERT_FALSE(fake::zlog_lines().empty());
    fake::ZlogLine first = fake::zlog_lines().front();
    EXPECT_EQ(first.file, "app/src/lda_main.cpp");
    EXPECT_EQ(first.function, "hot_standby_callback");
    EXPECT_GT(first.line, 0);
}

TEST_F(RoleCallback, RunsFromTheRedundancyServiceInsideTheMainLoop) {
    fake::queue_work([] { fake::rdnd_registration().reg.master_cb(); });
    EXPECT_EQ(lda_main(), -1);
    ASSERT_NE(g_lda_loop_set, nullptr);
    EXPECT_EQ(fake::calls_of({"qv_thread_fetch", "cli_client_init", "qv_thread_master_finish"}),
              (Lines{"qv_thread_fetch", "cli_client_init \"LDA\"", "qv_thread_fetch",
                     "qv_thread_master_finish"}));
}

TEST_F(RoleCallback, MakesAnEmptyLoopSetAndQueue) {
    hot_standby_callback();
    EXPECT_EQ(g_lda_loop_set->list.next, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->list.prev, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->policy, 0u);
    EXPECT_EQ(g_lda_cli_msg_set->list.next, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->list.prev, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->count, 0);
    EXPECT_EQ(backup_node_list.next, &backup_node_list);
    EXPECT_EQ(backup_node_list.prev, &backup_node_list);
}

TEST_F(RoleCallback, GivesTheRecoveryTimeItsDefaults) {
    memset(&g_lda_recover_time, 0xff, sizeof g_lda_recover_time);
    hot_standby_callback();
    EXPECT_EQ(g_lda_recover_time.time, 300u);
    EXPECT_EQ(g_lda_recover_time.enabled, 1);
    const uint8_t zero[3] = {};
    EXPECT_EQ(memcmp(g_lda_recover_time.spare, zero, sizeof zero), 0);
}

TEST_F(RoleCallback, RecoveryTimeIsSetBeforeTheLoopSetExists) {
    fake::fail_calloc(1);
    fake::Ending ending = fake::run_in_child([] {
        fake::on_call("qvdf_zlog", [] {
            if (fake::calls().size() == 3)
                fake::record("time " + std::to_string(g_lda_recover_time.time));
        });
        hot_standby_callback();
    });
    ASSERT_EQ(ending.calls.size(), 4u);
    EXPECT_EQ(ending.calls[2], error("hot_standby_callback", "LDA: Failed to initialize list.\n"));
    EXPECT_EQ(ending.calls[3], "time 300");
}

TEST_F(RoleCallback, LoopLockIsRecursive) {
    hot_standby_callback();
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_EQ(lda_loop_unlock(), 0);
    EXPECT_EQ(lda_loop_unlock(), 0);
}

TEST_F(RoleCallback, ArmsTheRecoveryTick) {
    hot_standby_callback();
    std::vector<fake::Timer> timers = fake::timers();
    ASSERT_EQ(timers.size(), 2u);
    EXPECT_EQ(timers[0].func, lda_intf_shutdown_timer_call);
    EXPECT_EQ(timers[0].seconds, 10);
    EXPECT_EQ(timers[0].arg, nullptr);
    EXPECT_EQ(timers[1].name, "loop_check");
    EXPECT_EQ(timers[1].seconds, 4);
}

TEST_F(RoleCallback, RegistersTheReloadHooks) {
    hot_standby_callback();
    EXPECT_EQ(fake::reload_start_hook(), lda_cli_reload_start_handle);
    EXPECT_EQ(fake::reload_end_hook(), lda_cli_reload_end_handle);
}

TEST_F(RoleCallback, PassesTheStormDetectorItsCallbacks) {
    hot_standby_callback();
    EXPECT_EQ(g_storm_master, fake::master());
    EXPECT_EQ(g_storm_global, fake::mom_client());
    EXPECT_EQ(notify_msg_proc, lda_loop_result_set_for_storm);
    EXPECT_EQ(notify_ready_msg, lda_storm_ready);
}

TEST_F(RoleCallback, ExitsWithoutMemoryForTheLoopSet) {
    fake::fail_calloc(1);
    expect_exit_after(log("LDA:lda_init start.\n"),
                      {error("hot_standby_callback", "LDA: Failed to initialize list.\n")});
}

TEST_F(RoleCallback, DestroysTheLoopLockWithoutMemoryForTheQueue) {
    fake::fail_calloc(2);
    expect_exit_after("pthread_mutex_init recursive",
                      {"pthread_mutex_destroy",
                       error("hot_standby_callback", "LDA: Failed to initialize list.\n")});
}

TEST_F(RoleCallback, ExitsSilentlyWhenTheCommandClientFails) {
    fake::fail("cli_client_init");
    expect_exit_after("cli_client_init \"LDA\"", {});
}

TEST_F(RoleCallback, ExitsSilentlyWhenTheDeliveryThreadCannotStart) {
    fake::fail("pthread_create", 11);
    expect_exit_after("pthread_create", {});
}

TEST_F(RoleCallback, ExitStatusIsThatOfTheProcess) {
    fake::fail("pthread_create", 11);
    EXPECT_EXIT(hot_standby_callback(), ::testing::ExitedWithCode(255), "");
}

TEST_F(RoleCallback, ExitsWhenThePortStateClientFails) {
    fake::fail("lsm_agent_init");
    expect_exit_after("lsm_agent_init \"LDA\"",
                      {error("hot_standby_callback", "LDA: Failed to register LSM.\n")});
}

TEST_F(RoleCallback, ExitsWhenTheBridgeClientFails) {
    fake::fail("bridge_agent_init");
    expect_exit_after(
        "bridge_agent_init \"LDA\"",
        {error("lda_bridge_init", "failed to init lda bridge"),
         error("hot_standby_callback", "LDA: Failed to register lda bridge client.\n")});
}

TEST_F(RoleCallback, ExitsWhenTheConfigurationDatabaseFails) {
    fake::fail_nth("qv_mom_client_connect", 1, 7);
    expect_exit_after("qv_mom_client_connect db=22",
                      {error("lda_mom_cfg_db_reg_callback", "qv_mom_client_connect error[7]\n"),
                       error("hot_standby_callback", "lda_mom_cfg_db_reg_callback fail!\n")});
}

TEST_F(RoleCallback, ExitsWhenTheLocalDatabaseFails) {
    fake::fail_nth("qv_mom_client_set_reconnect_cb", 2, 7);
    expect_exit_after(
        "qv_mom_client_set_reconnect_cb db=3",
        {error("lda_mom_local_db_reg_callback", "qv_mom_client_set_reconnect_cb error[7]\n"),
         error("hot_standby_callback", "lda_mom_local_db_reg_callback fail!\n")});
}

TEST_F(RoleCallback, ExitsWhenTheApplicationDatabaseFails) {
    fake::fail_nth("qv_mom_client_set_disconnect_cb", 3, 7);
    expect_exit_after(
        "qv_mom_client_set_disconnect_cb db=4",
        {error("lda_mom_app_db_reg_callback", "qv_mom_client_set_disconnect_cb error[7]\n"),
         error("hot_standby_callback", "lda_mom_app_db_reg_callback fail!\n")});
}

TEST_F(RoleCallback, ContinuesWithoutACondition) {
    fake::fail("pthread_condattr_init", 12);
    EXPECT_EQ(hot_standby_callback(), 0);
    Lines calls = fake::calls();
    EXPECT_EQ(up_to(calls, log("LDA:lda_init end.\n")),
              (Lines{
                  log("It Works! This function will run on master or on switch.\n"),
                  log("LDA:lda_init start.\n"),
                  "pthread_mutex_init recursive",
                  "pthread_condattr_init",
                  error("lda_pthread_cond_init", "pthread_condattr_init error\n"),
                  "pthread_mutex_init default",
                  log("LDA:lda_init end.\n"),
              }));
    EXPECT_EQ(calls.back(), warn("storm_init", "storm init done."));
}

TEST_F(RoleCallback, ContinuesWithoutARecoveryTick) {
    fake::fail("qv_thread_add_timer");
    EXPECT_EQ(hot_standby_callback(), 0);
    EXPECT_EQ(fake::calls().back(), warn("storm_init", "storm init done."));
    EXPECT_EQ(fake::timers().size(), 1u);
}

TEST_F(RoleCallback, ContinuesWithoutTheStormSession) {
    fake::fail_nth("qv_mom_client_connect", 4, 7);
    EXPECT_EQ(hot_standby_callback(), 0);
    EXPECT_EQ(fake::calls().back(), warn("storm_init", "storm init done."));
}
