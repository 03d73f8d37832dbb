// Paths that take no lock of their own: they rely on the main thread, or on their callers.
#include <functional>

#include "lda_bridge.h"
#include "lda_cli.h"
#include "lda_cli_policy.h"
#include "lda_lsm.h"
#include "lda_notify.h"
#include "lda_state.h"
#include "lda_tarn.h"
#include "p_bridge.pb-c.h"
#include "storm_detect.h"
#include "tests/support/fake_qv/fake_fp_udp.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class LockFree : public StartedAgent {
 protected:
    // How often a path takes the loop lock.
    static int loop_locks(const std::function<void()>& path) {
        return locks(&g_lda_loop_set->lock, path);
    }
    static int storm_locks(const std::function<void()>& path) {
        return locks(&g_libstorm_mutex, path);
    }
    static cli_pcdb context(unsigned long flags = 0) {
        cli_pcdb pcdb{};
        pcdb.flags = flags;
        return pcdb;
    }
    static void report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx) {
        PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
        PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
        index.ifx = ifx;
        record.index = &index;
        record.is_loop = is_loop;
        record.src_ifx = src_ifx;
        const qv_mom_msg message{.cmd = 1, .oper = 0, .db = 4, .value = &record.base};
        EXPECT_EQ(lda_tarn_mom_subscribe_callback(fake::mom_client(), &message), 0);
    }

 private:
    static int locks(pthread_mutex_t* mutex, const std::function<void()>& path) {
        int taken = 0;
        fake::on_lock(mutex, [&](bool locked) { taken += locked ? 1 : 0; });
        path();
        fake::on_lock(nullptr, nullptr);
        return taken;
    }
};

// The count itself works.
TEST_F(LockFree, LocksAreCounted) {
    EXPECT_EQ(loop_locks([] { lda_del_intf(7); }), 1);
    EXPECT_EQ(storm_locks([] { storm_set(7, false); }), 1);
}

TEST_F(LockFree, SettingsAndLookupsTakeNoLock) {
    looped(7, 1, 2);
    EXPECT_EQ(loop_locks([] {
                  lda_loop_detect_ptype_set(4);
                  lda_loop_detect_ptype_get();
                  lda_cli_recover_time_set(90, 1);
                  lda_cli_recover_time_get();
                  lda_intf_policy_get(lda_loop_result_get(7));
                  lda_loop_result_t entries[LDA_LOOP_MAX] = {};
                  EXPECT_EQ(lda_all_loop_result_get(entries), 1);
              }),
              0);
}

TEST_F(LockFree, PortQueriesAndMembershipTakeNoLock) {
    add(7, 1);
    add(8, 7);
    fake::add_port(40, 7);
    lda_loop_detect_ptype_set(4);
    uint32_t message[LSM_AGGREGATE_MESSAGE_WORDS] = {};
    message[1] = 40;
    message[34] = 7;
    EXPECT_EQ(loop_locks([&] {
                  lda_get_intf_policy_with_intf(7);
                  lda_get_src_with_intf(7);
                  lda_lsm_event_handle(11, message);
                  message[0] = 1;
                  lda_lsm_event_handle(11, message);
                  uint32_t left = 8;
                  lda_lsm_bridge_event_handle(1, &left);
              }),
              0);
    EXPECT_EQ(lda_loop_result_get(8)->mode, 0u);
}

TEST_F(LockFree, LoopResults) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(loop_locks([&] {
                  lda_loop_result_set(0, 1, 7);
                  lda_loop_result_set(0, 1, 7);
                  const storm_loop_msg verdict = {.is_loop = 1, .ifx = 7, .reserved = 0};
                  lda_loop_result_set_for_storm(&verdict);
                  lda_loop_result_add(record);
                  record->storm_result = 0;
                  record->is_shutdown = 0;
                  lda_loop_result_set(0, 0, 7);
                  EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
                  lda_loop_result_send_ntf(LDA_NOTIFY_LOOP, record);
                  lda_all_loop_result_clear();
              }),
              0);
}

TEST_F(LockFree, PolicyAndTimers) {
    lda_intf_t* record = looped(7, 1, 2);
    EXPECT_EQ(loop_locks([&] {
                  lda_loop_exec_policy(record, false);
                  lda_loop_exec_policy(record, true);
                  lda_cli_recover_time_set(10, 1);
                  fake::fire(lda_intf_shutdown_timer_call);
                  EXPECT_EQ(record->is_shutdown, 0);
                  record->tarn_result = 0;
                  lda_clear_loop_timer(record);
                  lda_loop_policy_timer();
              }),
              0);
}

TEST_F(LockFree, PeerReports) {
    add(7, 1);
    add(8, 1);
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(loop_locks([&] {
                  lda_tarn_mom_reg_subscribe();
                  report(7, 1, 8);
                  report(7, 1, 8);
                  report(7, 0, 8);
              }),
              0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 2);
}

TEST_F(LockFree, HandlersThatReadNoLoopStateTakeNoLock) {
    cli_ready = 1;
    EXPECT_EQ(loop_locks([] {
                  cli_pcdb pcdb = context();
                  pcdb.number[0] = 90;
                  cfg_lda_cli_recover_command(&pcdb);
                  cfg_lda_loop_detect_enable_command(&pcdb);
                  pcdb = context(CLI_FLAG_C2P);
                  cfg_lda_cli_recover_command(&pcdb);
                  cfg_lda_loop_detect_enable_command(&pcdb);
              }),
              0);
}

TEST_F(LockFree, PolicyChanges) {
    looped(7, 1, 1);
    add(8, 7);
    EXPECT_EQ(loop_locks([] {
                  for (uint32_t policy : {2u, 3u, 2u, 0u})
                      EXPECT_EQ(lda_cli_policy_set(policy), 0);
                  lda_cli_msg_t message = {};
                  message.ifx = 7;
                  lda_intf_policy_chg_proc(&message);
              }),
              0);
}

TEST_F(LockFree, ModeChangesAndTheirApplication) {
    looped(7, 1, 4);
    const bridge_mode_change change = {.ifx = 7, .mode = 7};
    EXPECT_EQ(loop_locks([&] { lda_intf_mod_change(&change); }), 0);
}

TEST_F(LockFree, StormPollReportsAndVisibility) {
    storm_set_burst_limit(7, 5000, 64, true);
    fake::add_port(7);
    fake::mom_connect(8);
    storm_set(7, true);
    EXPECT_EQ(storm_locks([] {
                  EXPECT_NE(storm_find_rate(7), nullptr);
                  const fp_acl_key key = fake::fp_key(107);
                  const fp_counts counts = {1, 1};
                  std_counter_msg(nullptr, &key, nullptr, &counts);
                  storm_deal_counter_timeout(nullptr);
                  cli_pcdb pcdb = context();
                  testfunc_cfg_storm(&pcdb);
                  testfunc_cfg_rate(&pcdb);
                  app_cli_storm_detect(&pcdb);
                  storm_dump_all_port_info();
                  storm_dump_all_cnt();
              }),
              0);
}

}  // namespace
