// Recording of loop results: sources, the loop table and its limit, notifications, global clear.
#include "lda_msg.h"

#include "lda_notify.h"
#include "lda_state.h"
#include "storm_detect.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class LoopResult : public StartedAgent {
 protected:
    static void storm(uint8_t is_loop, uint32_t ifx) {
        storm_loop_msg report{is_loop, ifx, 0};
        lda_loop_result_set_for_storm(&report);
    }
    // Ten looped ports, 1 to 10.
    void fill_the_table() {
        for (uint32_t ifx = 1; ifx <= 10; ifx++)
            looped(ifx, 1, 1);
        EXPECT_EQ(g_lda_loop_set->loop_num, 10);
    }
};

const std::string limit_line =
    "syslog 4 LDA LOOP_LIMIT \"The number of loop_detect_result is out of limit.\"";

TEST_F(LoopResult, ReportOfAnUnknownPortIsDroppedSilently) {
    add(7);
    lda_loop_detect_ptype_set(2);
    log_everything();
    lda_loop_result_set(0, 1, 8);
    lda_loop_result_set(0, 0, 8);
    storm(1, 8);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
}

TEST_F(LoopResult, ReportOfAnUnknownSourceIsDroppedSilently) {
    lda_intf_t* record = add(7);
    lda_loop_detect_ptype_set(2);
    log_everything();
    for (uint32_t source : {2u, 3u, 0xFFFFFFFFu})
        for (uint8_t result : {uint8_t{1}, uint8_t{0}})
            lda_loop_result_set(source, result, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->storm_result, 0);
}

TEST_F(LoopResult, NewLoopUnderWarningIsCountedNotifiedAndLogged) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(1);
    log_everything();
    lda_loop_result_set(0, 1, 7);
    expect_golden("loop_result/fresh_loop_under_warning", fake::take_calls());
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(record->storm_result, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(fake::count("printk_syslog_ext"), 1);
    EXPECT_EQ(take_posted(), Lines{});
}

// At the moment of the mark the port is not in the loop table yet: its end is notified and its
// entry withdrawn first, then its loop.
TEST_F(LoopResult, NewLoopUnderAShuttingPolicyMarksThePortAndThenEntersTheTable) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    log_everything();
    lda_loop_result_set(0, 1, 7);
    expect_golden("loop_result/fresh_loop_under_shutdown", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
}

TEST_F(LoopResult, NewLoopUnderAShuttingPolicyMakesOnlyTheseCalls) {
    add(7, 7);
    lda_loop_detect_ptype_set(4);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_client_c2p_reform", "cli_syn_config_notify", "cli_client_c2p_reform",
                     "cli_syn_config_notify", notification("swp7", 2, 1, 1), entry_del("swp7"),
                     notification("swp7", 1, 1, 1), entry_set("swp7", 1, 1), detected("swp7")}));
}

TEST_F(LoopResult, RepeatedLoopShutsAgainWithoutNotification) {
    lda_intf_t* record = looped(7, 1, 2);
    log_everything();
    lda_loop_result_set(0, 1, 7);
    expect_golden("loop_result/repeated_loop", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
}

TEST_F(LoopResult, RepeatedLoopDoesNotRestartTheRecoveryTime) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    record->recover_ticks = 12;
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(record->recover_ticks, 12u);
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(LoopResult, RepeatedNoLoopDoesNothing) {
    add(7, 1);
    lda_loop_detect_ptype_set(2);
    log_everything();
    lda_loop_result_set(0, 0, 7);
    storm(0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LoopResult, SecondSourceOfAHeldPortRunsThePolicyAndSendsNothing) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    log_everything();
    storm(1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_loop_exec_policy", "ifx=7, type=2, mode=1"),
                     info("lda_intf_ret_proc", "ifx=7 act_shut=0/1,act_notify=0,\n")}));
    EXPECT_EQ(record->storm_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LoopResult, SecondSourceMarksAPortThatIsNotHeldYet) {
    lda_intf_t* record = looped(7, 1, 2);
    log_everything();
    storm(1, 7);
    EXPECT_EQ(record->storm_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    expect_golden("loop_result/second_source", fake::take_calls());
}

TEST_F(LoopResult, SecondSourceUnderWarningOnlyRunsThePolicy) {
    looped(7, 1, 1);
    log_everything();
    storm(1, 7);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_loop_exec_policy", "ifx=7, type=1, mode=1")});
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LoopResult, StormReportsKeepTheirByteAndCountAsAnotherLoopWhenItChanges) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(1);
    storm(3, 7);
    EXPECT_EQ(record->storm_result, 3);
    EXPECT_EQ(record->total_result, 1);
    log_everything();
    fake::clear_calls();
    storm(2, 7);
    EXPECT_EQ(record->storm_result, 2);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_loop_exec_policy", "ifx=7, type=1, mode=1")});
    EXPECT_EQ(record->tarn_result, 0);
}

TEST_F(LoopResult, NoLoopOfAPortInTheTableArmsTheClearTimer) {
    lda_intf_t* record = looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 60"});
    EXPECT_NE(record->clear_timer, nullptr);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LoopResult, NoLoopOfAPortOutsideTheTableOnlyStoresTheResult) {
    lda_intf_t* record = add(7, 1);
    record->tarn_result = 1;
    log_everything();
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(record->tarn_result, 0);
}

TEST_F(LoopResult, QuietSourceArmsNoClearTimerWhileAnotherLoops) {
    lda_intf_t* record = looped(7, 1, 1);
    storm(1, 7);
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(record->clear_timer, nullptr);
    storm(0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 60"});
}

TEST_F(LoopResult, HeldPortGetsNoClearTimer) {
    looped(7, 1, 1)->is_shutdown = 1;
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LoopResult, NewLoopCancelsAPendingClear) {
    lda_intf_t* record = looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    fake::clear_calls();
    log_everything();
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{info("lda_loop_exec_policy", "ifx=7, type=1, mode=1"),
                                         "qv_thread_cancel 60"}));
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LoopResult, NewLoopCancelsAPendingClearOfAPortOutsideTheTable) {
    lda_intf_t* record = add(7, 1);
    lda_clear_loop_timer(record);
    fake::clear_calls();
    lda_loop_detect_ptype_set(1);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{"qv_thread_cancel 60", notification("swp7", 1, 0, 1),
                                         entry_set("swp7", 0, 1), detected("swp7")}));
    EXPECT_EQ(record->clear_timer, nullptr);
}

TEST_F(LoopResult, EleventhPortIsRefusedWithLoopLimit) {
    fill_the_table();
    lda_intf_t* record = add(11, 1);
    log_everything();
    lda_loop_result_set(0, 1, 11);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_loop_exec_policy", "ifx=11, type=1, mode=1"), limit_line}));
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 10);
}

TEST_F(LoopResult, RefusedPortIsStillShutDown) {
    fill_the_table();
    lda_intf_t* record = add(11, 1);
    lda_loop_detect_ptype_set(2);
    lda_loop_result_set(0, 1, 11);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_client_c2p_reform", "cli_syn_config_notify", "cli_client_c2p_reform",
                     "cli_syn_config_notify", notification("swp11", 2, 1, 1), entry_del("swp11"),
                     limit_line}));
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=11 shutdown=1"});
}

TEST_F(LoopResult, EveryRefusedReportIsLoggedOnce) {
    fill_the_table();
    add(11, 1);
    lda_loop_result_set(0, 1, 11);
    storm(1, 11);
    lda_loop_result_set(0, 1, 11);
    EXPECT_EQ(fake::take_calls(), (Lines{limit_line, limit_line}));
}

TEST_F(LoopResult, RefusedPortThatBecomesQuietArmsNoTimer) {
    fill_the_table();
    add(11, 1);
    lda_loop_result_set(0, 1, 11);
    fake::clear_calls();
    lda_loop_result_set(0, 0, 11);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LoopResult, NextPortTakesThePlaceOfAClearedOne) {
    fill_the_table();
    lda_intf_t* record = add(11, 1);
    lda_loop_result_set(0, 0, 4);
    fake::fire(lda_intf_loop_clear);
    EXPECT_EQ(g_lda_loop_set->loop_num, 9);
    lda_loop_result_set(0, 1, 11);
    EXPECT_EQ(g_lda_loop_set->loop_num, 10);
    EXPECT_EQ(record->total_result, 1);
}

// ---- Leaving the table ----

TEST_F(LoopResult, ClearTimerRemovesThePortFromTheTable) {
    lda_intf_t* record = looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    fake::clear_calls();
    log_everything();
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    expect_golden("loop_result/clear_timer", fake::take_calls());
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(lda_loop_result_get(7), record);
}

// The expiry does not check again what happened to the port since the timer was armed.
TEST_F(LoopResult, ClearTimerChecksNothingWhenItFires) {
    for (uint32_t ifx : {1u, 2u, 3u}) {
        SCOPED_TRACE(ifx);
        lda_intf_t* record = looped(ifx, 1, 1);
        lda_loop_result_set(0, 0, ifx);
        record->tarn_result = ifx == 1 ? 1 : 0;
        record->storm_result = ifx == 2 ? 1 : 0;
        record->is_shutdown = ifx == 3 ? 1 : 0;
        fake::clear_calls();
        EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
        const std::string name = "swp" + std::to_string(ifx);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{notification(name, 2, 0, 1), entry_del(name), recovered(name)}));
        EXPECT_EQ(record->total_result, 0);
        EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    }
}

TEST_F(LoopResult, ClearTimerOfAPortOutsideTheTableStillReportsTheEnd) {
    lda_intf_t* record = add(7, 1);
    looped(8, 1, 1);
    lda_clear_loop_timer(record);
    fake::clear_calls();
    log_everything();
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    expect_golden("loop_result/clear_timer_outside_the_table", fake::take_calls());
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LoopResult, ClearWithoutAnArgumentIsReported) {
    looped(7, 1, 1);
    qv_thread without_argument{fake::master(), lda_intf_loop_clear, nullptr};
    EXPECT_EQ(lda_intf_loop_clear(&without_argument), -1);
    EXPECT_EQ(fake::take_calls(), Lines{error("lda_intf_loop_clear", "Parameter error.")});
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

// ---- Notifications ----

TEST_F(LoopResult, OtherKindsOfNotificationDoNothing) {
    lda_intf_t* record = looped(7, 1, 1);
    log_everything();
    lda_loop_result_send_ntf(0, record);
    lda_loop_result_send_ntf(3, record);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LoopResult, EntryFollowsEvenWhenTheNotificationFails) {
    lda_intf_t* record = looped(7, 1, 2);
    fake::fail("nc_lib_notification_send", 5);
    lda_loop_result_send_ntf(1, record);
    lda_loop_result_send_ntf(2, record);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 1, 1),
                     error("lda_send_info_ntf", "send loop-detect state ERR"),
                     entry_set("swp7", 1, 1), notification("swp7", 2, 1, 1),
                     error("lda_send_info_ntf", "send loop-detect state ERR"), entry_del("swp7")}));
}

TEST_F(LoopResult, NameOfFullLengthIsSentWhole) {
    lda_intf_t* record = looped(7, 1, 2);
    std::string name(63, 'x');
    name.copy(record->name, 63);
    record->name[63] = '\0';
    lda_loop_result_send_ntf(1, record);
    EXPECT_EQ(fake::take_calls(), (Lines{notification(name, 1, 1, 1), entry_set(name, 1, 1)}));
}

// ---- Global clear ----

TEST_F(LoopResult, GlobalClearEmptiesTheTableWithoutMessages) {
    lda_intf_t* first = looped(7, 1, 2);
    lda_intf_t* quiet = add(8, 1);
    lda_intf_t* last = looped(9, 7, 2);
    first->storm_result = 2;
    first->spare_word = 5;
    first->is_shutdown = 1;
    quiet->tarn_result = 1;
    lda_loop_result_set(0, 0, 9);
    ASSERT_NE(last->clear_timer, nullptr);
    fake::clear_calls();

    lda_all_loop_result_clear();
    EXPECT_EQ(fake::take_calls(),
              (Lines{entry_del("swp7"), entry_del("swp9"), "qv_thread_cancel 60"}));
    for (const lda_intf_t* record : {first, quiet, last}) {
        EXPECT_EQ(record->total_result, 0);
        EXPECT_EQ(record->tarn_result, 0);
        EXPECT_EQ(record->storm_result, 0);
        EXPECT_EQ(record->spare_word, 0u);
        EXPECT_EQ(record->is_shutdown, 0);
        EXPECT_EQ(record->clear_timer, nullptr);
        EXPECT_EQ(record->shutdown_timer, nullptr);
    }
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->policy, 0u);
    EXPECT_EQ(g_lda_loop_set->intf_num, 3);
}

int nothing(qv_thread*) {
    return 0;
}

TEST_F(LoopResult, GlobalClearCancelsAShutdownTimer) {
    lda_intf_t* record = add(7, 1);
    record->shutdown_timer = qv_thread_add_timer(fake::master(), nothing, nullptr, 33);
    lda_clear_loop_timer(record);
    fake::clear_calls();
    lda_all_loop_result_clear();
    EXPECT_EQ(fake::take_calls(), (Lines{"qv_thread_cancel 60", "qv_thread_cancel 33"}));
    EXPECT_EQ(record->shutdown_timer, nullptr);
}

TEST_F(LoopResult, GlobalClearOfAnEmptyListResetsPolicyAndCount) {
    lda_loop_detect_ptype_set(3);
    g_lda_loop_set->loop_num = 4;
    lda_all_loop_result_clear();
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->policy, 0u);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LoopResult, GlobalClearWithADeletedLoopedPortKeepsTheCountAtZero) {
    looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    lda_del_intf(7);
    lda_all_loop_result_clear();
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
}

// ---- Messages to the operator ----

// They are written without the budget of the debug lines: neither counted nor refused.
TEST_F(LoopResult, MessagesAreNotPartOfTheDebugBudget) {
    fill_the_table();
    add(11, 1);
    g_app_zlog_category = nullptr;
    g_dbg_slog_level = 1;
    g_dbg_slog_max = 5;
    for (uint32_t count : {4u, 5u}) {
        SCOPED_TRACE(count);
        g_dbg_slog_cnt = count;
        lda_loop_result_set(0, 0, 4);
        fake::fire(lda_intf_loop_clear);
        lda_loop_result_set(0, 1, 4);
        lda_loop_result_set(0, 0, 11);
        lda_loop_result_set(0, 1, 11);
        EXPECT_EQ(fake::calls_of({"syslog"}),
                  (Lines{recovered("swp4"), detected("swp4"), limit_line}));
        EXPECT_EQ(g_dbg_slog_cnt, count);
        EXPECT_EQ(g_dbg_slog_level, 1);
        fake::clear_calls();
    }
}

// ---- Many reports ----

TEST_F(LoopResult, TenThousandReportsLeaveTheStateOfTheLast) {
    constexpr uint32_t PORTS = 20;
    for (uint32_t ifx = 1; ifx <= PORTS; ifx++)
        add(ifx, 1);
    lda_loop_detect_ptype_set(1);
    for (int i = 0; i < 10000; i++) {
        uint32_t ifx = 1 + static_cast<uint32_t>(i) % PORTS;
        bool loop = (i / static_cast<int>(PORTS)) % 2 == 0;
        lda_loop_result_set(0, loop ? 1 : 0, ifx);
    }
    // The last round (499, odd) reported the end everywhere: ten ports wait for their clear.
    EXPECT_EQ(g_lda_loop_set->loop_num, 10);
    EXPECT_EQ(fake::timers().size(), 10u + 1u + 1u);
    for (const lda_intf_t* record : records())
        EXPECT_EQ(record->tarn_result, 0);
    for (int i = 0; i < 10; i++)
        fake::fire(lda_intf_loop_clear);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LoopResult, TenThousandRepeatedLoopsAreTenThousandShutdowns) {
    looped(7, 1, 2);
    for (int i = 0; i < 10000; i++)
        lda_loop_result_set(0, 1, 7);
    Lines posted = take_posted();
    ASSERT_EQ(posted.size(), 10000u);
    for (const std::string& message : posted)
        ASSERT_EQ(message, "type=2 mid=2 ifx=7 shutdown=1");
    EXPECT_EQ(fake::calls_of({"nc_lib_notification_send", "qv_mom_set", "syslog"}), Lines{});
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

}  // namespace
