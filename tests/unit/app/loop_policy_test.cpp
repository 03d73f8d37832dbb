// Policy execution, clear timers and the recovery tick.
#include "lda_msg.h"

#include "lda_state.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class LoopPolicy : public StartedAgent {
 protected:
    // Runs `ticks` recovery ticks.
    static void tick(int ticks) {
        for (int i = 0; i < ticks; i++)
            EXPECT_EQ(fake::fire(lda_intf_shutdown_timer_call), 0);
    }
};

struct Combination {
    uint32_t policy, mode;
    bool shuts;
};
constexpr Combination combinations[] = {
    {0, 0, false}, {0, 1, false}, {0, 2, false}, {0, 7, false}, {1, 0, false}, {1, 1, false},
    {1, 2, false}, {1, 7, false}, {2, 0, false}, {2, 1, true},  {2, 2, false}, {2, 7, false},
    {3, 0, false}, {3, 1, false}, {3, 2, false}, {3, 7, true},  {4, 0, false}, {4, 1, true},
    {4, 2, false}, {4, 7, true},  {5, 1, false}, {5, 7, false},
};

TEST_F(LoopPolicy, OnlyTheModesOfThePolicyAreShutDownForANewLoop) {
    lda_intf_t* record = add(7);
    for (const Combination& c : combinations) {
        SCOPED_TRACE(testing::Message() << "policy " << c.policy << " mode " << c.mode);
        record->mode = c.mode;
        record->is_shutdown = 0;
        lda_loop_detect_ptype_set(c.policy);
        lda_loop_exec_policy(record, false);
        EXPECT_EQ(take_posted(), c.shuts ? Lines{"type=2 mid=2 ifx=7 shutdown=1"} : Lines{});
        EXPECT_EQ(record->is_shutdown, c.shuts ? 1 : 0);
    }
}

TEST_F(LoopPolicy, OnlyTheModesOfThePolicyAreShutDownForARepeatedLoop) {
    lda_intf_t* record = add(7);
    for (const Combination& c : combinations) {
        SCOPED_TRACE(testing::Message() << "policy " << c.policy << " mode " << c.mode);
        record->mode = c.mode;
        record->is_shutdown = 0;
        lda_loop_detect_ptype_set(c.policy);
        fake::clear_calls();
        lda_loop_exec_policy(record, true);
        EXPECT_EQ(take_posted(), c.shuts ? Lines{"type=2 mid=2 ifx=7 shutdown=1"} : Lines{});
        EXPECT_EQ(record->is_shutdown, c.shuts ? 1 : 0);
        EXPECT_EQ(fake::take_calls(),
                  c.shuts ? (Lines{"cli_client_c2p_reform", "cli_syn_config_notify"}) : Lines{});
    }
}

TEST_F(LoopPolicy, WarningIssuesNoCommand) {
    add(7, 1);
    add(8, 7);
    lda_loop_detect_ptype_set(1);
    for (int i = 0; i < 3; i++)
        for (uint32_t ifx : {7u, 8u})
            lda_loop_result_set(0, 1, ifx);
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform", "cli_syn_config_notify"}), Lines{});
}

TEST_F(LoopPolicy, HybridPortUnderShutdownAccessIsOnlyLoggedAndNotified) {
    lda_intf_t* record = add(7, 7);
    lda_loop_detect_ptype_set(2);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 1), entry_set("swp7", 0, 1), detected("swp7")}));
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{});
}

// ---- The clear timer ----

TEST_F(LoopPolicy, ClearTimerUsesTheCurrentInterval) {
    lda_intf_t* record = looped(7, 1, 1);
    g_lda_clear_interval = 180;
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 180"});
    ASSERT_EQ(fake::timers().back().func, lda_intf_loop_clear);
    EXPECT_EQ(fake::timers().back().arg, record);
    EXPECT_EQ(fake::timers().back().handle, record->clear_timer);
}

TEST_F(LoopPolicy, ClearTimerIsArmedOnlyForAQuietPortThatIsNotHeld) {
    lda_intf_t* record = add(7);
    record->tarn_result = 1;
    lda_clear_loop_timer(record);
    record->tarn_result = 0;
    record->storm_result = 1;
    lda_clear_loop_timer(record);
    record->storm_result = 0;
    record->is_shutdown = 1;
    lda_clear_loop_timer(record);
    EXPECT_EQ(fake::take_calls(), Lines{});
    record->is_shutdown = 0;
    lda_clear_loop_timer(record);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 60"});
}

TEST_F(LoopPolicy, PortGetsOnlyOneClearTimer) {
    lda_intf_t* record = add(7);
    lda_clear_loop_timer(record);
    qv_thread* first = record->clear_timer;
    lda_clear_loop_timer(record);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 60"});
    EXPECT_EQ(record->clear_timer, first);
}

TEST_F(LoopPolicy, PortStaysInTheTableWithoutATimer) {
    lda_intf_t* record = looped(7, 1, 1);
    fake::fail("qv_thread_add_timer");
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"qv_thread_add_timer 60",
                     error("lda_clear_loop_timer", "LDA add qv_thread timer failed.")}));
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

// ---- The recovery tick ----

TEST_F(LoopPolicy, PolicyTimerArmsATickOfTenSeconds) {
    size_t before = fake::timers().size();
    lda_loop_policy_timer();
    EXPECT_EQ(fake::take_calls(), Lines{"qv_thread_add_timer 10"});
    ASSERT_EQ(fake::timers().size(), before + 1);
    EXPECT_EQ(fake::timers().back().func, lda_intf_shutdown_timer_call);
    EXPECT_EQ(fake::timers().back().arg, nullptr);
}

TEST_F(LoopPolicy, TickThatCannotBeArmedIsReportedAndEndsTheTicks) {
    fake::fail("qv_thread_add_timer");
    const Lines failed{"qv_thread_add_timer 10",
                       error("lda_loop_policy_timer", "LDA add qv_thread timer failed.")};
    lda_loop_policy_timer();
    EXPECT_EQ(fake::take_calls(), failed);
    tick(1);
    EXPECT_EQ(fake::take_calls(), failed);
    for (const fake::Timer& timer : fake::timers())
        EXPECT_NE(timer.func, lda_intf_shutdown_timer_call);
}

TEST_F(LoopPolicy, TickWithoutATimerIsReportedAndNotArmedAgain) {
    add(7)->is_shutdown = 1;
    EXPECT_EQ(lda_intf_shutdown_timer_call(nullptr), -1);
    EXPECT_EQ(fake::take_calls(), Lines{error("lda_intf_shutdown_timer_call", "Parameter error.")});
}

TEST_F(LoopPolicy, TickLogsTheRecoveryTimeAndIsArmedAgain) {
    log_everything();
    tick(1);
    EXPECT_EQ(fake::take_calls(),
              (Lines{debug_line("lda_intf_shutdown_timer_call", "enter time=300"),
                     "qv_thread_add_timer 10"}));
    lda_cli_recover_time_set(300, 0);
    tick(1);
    EXPECT_EQ(fake::take_calls(), (Lines{debug_line("lda_intf_shutdown_timer_call", "enter time=0"),
                                         "qv_thread_add_timer 10"}));
    EXPECT_EQ(fake::timers().back().arg, nullptr);
}

TEST_F(LoopPolicy, PortIsRecoveredOnTheThirtiethTick) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    tick(29);
    EXPECT_EQ(record->recover_ticks, 29u);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(take_posted(), Lines{});
    tick(1);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
    tick(40);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LoopPolicy, RecoveryOfAPortThatStillLoopsMakesTheseCalls) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    record->recover_ticks = 29;
    log_everything();
    tick(1);
    expect_golden("loop_policy/recovery_of_a_looping_port", fake::take_calls());
    EXPECT_EQ(record->total_result, 1);
}

TEST_F(LoopPolicy, RecoveryOfAQuietPortArmsItsClearTimerAfterThePost) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    record->tarn_result = 0;
    record->recover_ticks = 29;
    log_everything();
    tick(1);
    expect_golden("loop_policy/recovery_of_a_quiet_port", fake::take_calls());
}

TEST_F(LoopPolicy, WithRecoveryDisabledTheNextTickRecovers) {
    lda_intf_t* record = add(7, 1);
    record->is_shutdown = 1;
    lda_cli_recover_time_set(300, 0);
    tick(1);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

// The last tick that counts is the one before count * 10 + 10 reaches the time.
TEST_F(LoopPolicy, NumberOfTicksForARecoveryTime) {
    lda_intf_t* record = add(7, 1);
    struct Row {
        uint32_t seconds;
        int ticks;
    };
    for (Row row : {Row{0, 1}, Row{10, 1}, Row{11, 2}, Row{20, 2}, Row{90, 9}, Row{95, 10},
                    Row{301, 31}, Row{1000, 100}}) {
        SCOPED_TRACE(row.seconds);
        lda_cli_recover_time_set(row.seconds, 1);
        record->is_shutdown = 1;
        tick(row.ticks - 1);
        EXPECT_EQ(record->is_shutdown, 1);
        tick(1);
        EXPECT_EQ(record->is_shutdown, 0);
    }
}

TEST_F(LoopPolicy, ComparisonWithTheRecoveryTimeIsUnsigned) {
    lda_intf_t* record = add(7, 1);
    record->is_shutdown = 1;
    lda_cli_recover_time_set(0xFFFFFFFF, 1);
    tick(3);
    EXPECT_EQ(record->recover_ticks, 3u);
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(LoopPolicy, TickTreatsHeldPortsInListOrder) {
    for (uint32_t ifx : {9u, 3u, 5u})
        add(ifx)->is_shutdown = 1;
    lda_loop_result_get(3)->is_shutdown = 0;
    lda_cli_recover_time_set(10, 1);
    tick(1);
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=9", "type=2 mid=2 ifx=5"}));
    EXPECT_EQ(lda_loop_result_get(3)->recover_ticks, 0u);
}

TEST_F(LoopPolicy, OnlyAShutdownFlagOfOneIsRecovered) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 2;
    lda_cli_recover_time_set(0, 0);
    tick(1);
    EXPECT_EQ(record->is_shutdown, 2);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LoopPolicy, EachHeldPortCountsItsOwnTicks) {
    lda_intf_t* first = add(1);
    lda_intf_t* second = add(2);
    first->is_shutdown = 1;
    tick(10);
    second->is_shutdown = 1;
    tick(20);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=1"});
    EXPECT_EQ(second->recover_ticks, 20u);
    tick(10);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=2"});
}

// From the report to the end: shut down, loop gone, recovered, cleared.
TEST_F(LoopPolicy, LoopIsShutDownRecoveredAndCleared) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
    lda_loop_result_set(0, 0, 7);
    EXPECT_EQ(record->clear_timer, nullptr);
    tick(29);
    EXPECT_EQ(take_posted(), Lines{});
    fake::clear_calls();
    tick(1);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
    fake::fire(lda_intf_loop_clear);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_client_c2p_reform", "cli_syn_config_notify", "qv_thread_add_timer 60",
                     "qv_thread_add_timer 10", notification("swp7", 2, 1, 1), entry_del("swp7"),
                     recovered("swp7")}));
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(fake::count("printk_syslog_ext"), 2);
}

}  // namespace
