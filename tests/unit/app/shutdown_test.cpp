// Shutdown and recovery of ports: the request side and the executors.
#include <atomic>
#include <future>

#include "lda_cli_delivery.h"
#include "lda_cli_exec.h"
#include "lda_cli_policy.h"
#include "lda_cli_post.h"
#include "lda_lsm.h"
#include "lda_state.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class Shutdown : public StartedAgent {
 protected:
    // Lines executed on port 7 in the first session.
    static const std::string shut, recovery, no_shut, apply;
};
const std::string Shutdown::shut = executed(1001, "shutdown \r\n", 7);
const std::string Shutdown::recovery = executed(1001, "errdisable recovery \r\n", 7);
const std::string Shutdown::no_shut = executed(1001, "no shutdown  \r\n", 7);
const std::string Shutdown::apply = executed(1001, "loop-detect apply shutdown-port \r\n", 7);

// ---- Requests ----

TEST_F(Shutdown, RequestRegeneratesTheConfigurationBeforeItPosts) {
    lda_intf_t* record = add(7);
    log_everything();
    lda_send_shutcmd(7, 1, record);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_send_shutcmd", "enter ifx=7, shutdown=1"), "cli_client_c2p_reform",
                     "cli_syn_config_notify",
                     info("lda_cli_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[2,7,0,1].")}));
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->is_shutdown, 0);
}

TEST_F(Shutdown, RecoveryRequestArmsTheClearTimerAfterThePost) {
    lda_intf_t* record = add(7);
    log_everything();
    lda_send_shutcmd(7, 0, record);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_send_shutcmd", "enter ifx=7, shutdown=0"), "cli_client_c2p_reform",
                     "cli_syn_config_notify",
                     info("lda_cli_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[2,7,0,0]."),
                     "qv_thread_add_timer 60"}));
    EXPECT_NE(record->clear_timer, nullptr);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

TEST_F(Shutdown, RecoveryRequestWithoutARecordArmsNoTimer) {
    lda_send_shutcmd(7, 0, nullptr);
    EXPECT_EQ(fake::take_calls(), (Lines{"cli_client_c2p_reform", "cli_syn_config_notify"}));
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

TEST_F(Shutdown, RecoveryRequestOfALoopingPortArmsNoTimer) {
    lda_intf_t* record = looped(7, 1, 2);
    lda_send_shutcmd(7, 0, record);
    EXPECT_EQ(fake::take_calls(), (Lines{"cli_client_c2p_reform", "cli_syn_config_notify"}));
}

TEST_F(Shutdown, LostRequestStillArmsTheClearTimer) {
    lda_intf_t* record = add(7);
    fake::fail_calloc(1);
    lda_send_shutcmd(7, 0, record);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_client_c2p_reform", "cli_syn_config_notify",
                     error("lda_cli_cmd_send", "LDA malloc lda_cli_msg_t node error."),
                     "qv_thread_add_timer 60"}));
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Shutdown, MarkingAnUnknownPortAddsItToThePendingList) {
    EXPECT_EQ(lda_cli_intf_shutdown_by_lda_cmd(7, 1), -1);
    EXPECT_EQ(lda_back_node_lookup(7), 1);
    EXPECT_EQ(lda_cli_intf_shutdown_by_lda_cmd(7, 0), -1);
    EXPECT_EQ(lda_back_node_lookup(7), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(Shutdown, MarkingAMarkedPortChangesNothing) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 1;
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(lda_cli_intf_shutdown_by_lda_cmd(7, 1), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(Shutdown, MarkingAPortResetsItsTicks) {
    lda_intf_t* record = add(7);
    record->recover_ticks = 12;
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(lda_cli_intf_shutdown_by_lda_cmd(7, 1), 0);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
}

TEST_F(Shutdown, MarkingAPortWhileDetectionIsDisabledReleasesIt) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 1;
    log_everything();
    EXPECT_EQ(lda_cli_intf_shutdown_by_lda_cmd(7, 1), 0);
    EXPECT_EQ(fake::calls()[0],
              info("lda_intf_ret_proc", "global is disable, but shutdown, change to noshut\n"));
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

// ---- Executors ----

TEST_F(Shutdown, ShuttingDownExecutesOneLine) {
    log_everything();
    EXPECT_EQ(cli_exec_shutdown(7, 1), 0);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{info("cli_exec_shutdown", "enter ifx=7, is_shutdown=1"), "cli_sub_create_session",
               shut, info("lda_loop_cmd_execute", "ifx 7 cmd shutdown \r\n out ret=0 "),
               "close session 1001"}));
}

TEST_F(Shutdown, ResultOfTheShutdownLineIsIgnored) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 1;
    fake::on_line("shutdown \r\n", "% refused", -1);
    EXPECT_EQ(cli_exec_shutdown(7, 1), 0);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{"cli_sub_create_session", shut,
               error("lda_loop_cmd_execute", "cli_execute_cmd_buf fail:cmd=shutdown \r\n, ret=-1"),
               "close session 1001"}));
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(Shutdown, RecoveryExecutesTwoLinesInOrder) {
    log_everything();
    EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
    expect_golden("shutdown/recovery", fake::take_calls());
}

TEST_F(Shutdown, RecoveryContinuesWhenItsFirstLineFails) {
    lda_intf_t* record = add(7);
    for (const char* output : {"", "% not in errdisable"}) {
        fake::on_line("errdisable recovery \r\n", output, -1);
        EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
        EXPECT_EQ(record->is_shutdown, 0);
    }
    EXPECT_EQ(fake::count("cli_execute_cmd_buf_fd"), 4);
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform"}), Lines{});
}

TEST_F(Shutdown, RefusedRecoveryMarksThePortAgain) {
    lda_intf_t* record = add(7);
    fake::on_line("no shutdown  \r\n", "% link error", 0);
    log_everything();
    EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
    expect_golden("shutdown/refused_recovery", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(Shutdown, RefusedRecoveryTakesTheLoopLockForTheMark) {
    add(7);
    fake::on_line("no shutdown  \r\n", "%", 0);
    bool held = false;
    fake::on_call("cli_client_c2p_reform", [&] { held = !free_for_others(&g_lda_loop_set->lock); });
    cli_exec_shutdown(7, 0);
    EXPECT_TRUE(held);
}

TEST_F(Shutdown, RefusedRecoveryOfADeletedPortIsOnlyLogged) {
    fake::on_line("no shutdown  \r\n", "%", 0);
    log_everything();
    EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
    Lines calls = fake::take_calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[calls.size() - 2],
              info("cli_exec_shutdown", "EXECUTE THE NOT SHUT FAILED, IFX=7"));
    EXPECT_EQ(calls.back(), "close session 1001");
}

TEST_F(Shutdown, RefusalOfAPortDeletedInTheMeantimeIsOnlyLogged) {
    add(7);
    fake::on_line("no shutdown  \r\n", "%", 0);
    fake::on_call("cli_execute_cmd_buf_fd", [] { lda_del_intf(7); });
    EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform"}), Lines{});
}

TEST_F(Shutdown, FailedRecoveryKeepsTheMark) {
    lda_intf_t* record = add(7);
    fake::on_line("no shutdown  \r\n", "", -4);
    EXPECT_EQ(cli_exec_shutdown(7, 0), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_sub_create_session", recovery, no_shut,
                     error("lda_loop_cmd_execute",
                           "cli_execute_cmd_buf fail:cmd=no shutdown  \r\n, ret=-4"),
                     "close session 1001"}));
    EXPECT_EQ(record->is_shutdown, 0);
}

TEST_F(Shutdown, WithoutASessionNothingIsExecuted) {
    lda_intf_t* record = add(7);
    fake::fail("cli_sub_create_session", -9);
    EXPECT_EQ(cli_exec_shutdown(7, 0), -1);
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 1), -1);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{"cli_sub_create_session",
               error("cli_exec_shutdown", "LDA cli_sub_create_session fail, fd=-9"),
               "cli_sub_create_session",
               error("cli_exec_loop_apply_shutdown", "LDA cli_sub_create_session fail, fd=-9")}));
    EXPECT_EQ(record->is_shutdown, 0);
}

TEST_F(Shutdown, OtherFlagsExecuteNothing) {
    EXPECT_EQ(cli_exec_shutdown(7, 2), 0);
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 2), 0);
    EXPECT_EQ(fake::calls_of({"cli_execute_cmd_buf_fd"}), Lines{});
}

TEST_F(Shutdown, SessionMayHaveDescriptorZero) {
    fake::fail("cli_sub_create_session", 0);
    EXPECT_EQ(cli_exec_shutdown(7, 1), 0);
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 1), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_sub_create_session", executed(0, "shutdown \r\n", 7), "close session 0",
                     "cli_sub_create_session",
                     executed(0, "loop-detect apply shutdown-port \r\n", 7), "close session 0"}));
}

TEST_F(Shutdown, ApplyLineIsExecutedWithAndWithoutNo) {
    log_everything();
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 1), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("cli_exec_loop_apply_shutdown", "enter ifx=7, is_shutdown=1"),
                     "cli_sub_create_session", apply,
                     info("lda_loop_cmd_execute",
                          "ifx 7 cmd loop-detect apply shutdown-port \r\n out ret=0 "),
                     "close session 1001"}));
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 0), 0);
    EXPECT_EQ(fake::calls_of({"cli_execute_cmd_buf_fd"}),
              Lines{executed(1002, "no loop-detect apply shutdown-port \r\n", 7)});
}

TEST_F(Shutdown, ResultOfTheApplyLineIsIgnored) {
    fake::on_line("loop-detect apply shutdown-port \r\n", "%", -1);
    EXPECT_EQ(cli_exec_loop_apply_shutdown(7, 1), 0);
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform", "close"}), Lines{"close session 1001"});
}

// A refused recovery is tried again by the ticks, after the whole recovery time.
TEST_F(Shutdown, RefusedRecoveryIsRetriedByTheTick) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 1;
    lda_cli_recover_time_set(90, 1);
    auto ticks = [](int number) {
        for (int i = 0; i < number; i++)
            fake::fire(lda_intf_shutdown_timer_call);
    };
    ticks(9);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
    fake::on_line("no shutdown  \r\n", "%", 0);
    cli_exec_shutdown(7, 0);
    EXPECT_EQ(record->is_shutdown, 1);
    ticks(8);
    EXPECT_EQ(take_posted(), Lines{});
    ticks(1);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

// ---- A refused recovery and what happens meanwhile ----

// Port 7, held for a loop, is recovered by the tick, and the switch refuses. When the delivery
// thread is held inside the refused line, the main thread acts before the refusal is known,
// otherwise afterwards.
class RefusedRecovery : public Shutdown {
 protected:
    RefusedRecovery() : record(looped(7, 1, 2)) {
        record->is_shutdown = 1;
        record->recover_ticks = 29;
        fake::on_line("no shutdown  \r\n", "%", 0);
    }

    void recover(bool hold) {
        fake::start_threads();
        drained();
        if (hold)
            fake::on_call("cli_execute_cmd_buf_fd", [this] {
                if (++executed_lines != 2)
                    return;
                reached.set_value();
                released.get_future().wait();
            });
        fake::clear_calls();
        EXPECT_EQ(fake::fire(lda_intf_shutdown_timer_call), 0);
        if (!hold) {
            drained();
            EXPECT_EQ(lda_intf_is_shutdown(record), 1);
            return;
        }
        reached.get_future().wait();
        EXPECT_EQ(lda_intf_is_shutdown(record), 0);
    }
    void refuse_recovery() {
        released.set_value();
        drained();
    }
    static void drained() {
        fake::wait_until_idle([] { return g_lda_cli_msg_set->count == 0; });
    }
    static Lines lines_executed() { return fake::calls_of({"cli_execute_cmd_buf_fd"}); }

    lda_intf_t* record;
    std::atomic<int> executed_lines = 0;
    std::promise<void> reached;
    std::promise<void> released;
};

TEST_F(RefusedRecovery, AfterDisablingDetectionTheTicksRetryARefusedRecovery) {
    recover(true);
    EXPECT_EQ(lda_cli_policy_set(0), 0);
    refuse_recovery();
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(record->total_result, 0);
    fake::on_line("no shutdown  \r\n", "", 0);
    fake::clear_calls();
    for (int tick = 1; tick < 30; tick++)
        fake::fire(lda_intf_shutdown_timer_call);
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    fake::fire(lda_intf_shutdown_timer_call);
    drained();
    EXPECT_EQ(lda_intf_is_shutdown(record), 0);
    EXPECT_EQ(lines_executed(), (Lines{executed(1003, "errdisable recovery \r\n", 7),
                                       executed(1003, "no shutdown  \r\n", 7)}));
}

TEST_F(RefusedRecovery, DisablingDetectionAfterTheRefusalRecoversThePortAgain) {
    recover(false);
    fake::on_line("no shutdown  \r\n", "", 0);
    fake::clear_calls();
    EXPECT_EQ(lda_cli_policy_set(0), 0);
    drained();
    EXPECT_EQ(lda_intf_is_shutdown(record), 0);
    const Lines lines = lines_executed();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], executed(1002, "errdisable recovery \r\n", 7));
    EXPECT_EQ(lines[1], executed(1002, "no shutdown  \r\n", 7));
}

TEST_F(RefusedRecovery, PortWithALoopReportedBeforeTheRefusalIsShutDownAfterIt) {
    recover(true);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    refuse_recovery();
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(lines_executed(), (Lines{recovery, no_shut, executed(1002, "shutdown \r\n", 7)}));
}

TEST_F(RefusedRecovery, PortWithALoopReportedAfterTheRefusalIsShutDownToo) {
    recover(false);
    lda_loop_result_set(0, 1, 7);
    drained();
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(lines_executed(), (Lines{recovery, no_shut, executed(1002, "shutdown \r\n", 7)}));
}

TEST_F(RefusedRecovery, PortThatLeavesTheTableBeforeTheRefusalIsMarkedOutsideIt) {
    record->tarn_result = 0;
    recover(true);
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(record->total_result, 0);
    refuse_recovery();
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(record->total_result, 0);
}

// The recovery arms the clear timer after its post. A refusal that comes later leaves the timer.
TEST_F(RefusedRecovery, RefusalAfterTheClearTimerIsArmedKeepsTheTimer) {
    record->tarn_result = 0;
    recover(true);
    ASSERT_NE(record->clear_timer, nullptr);
    refuse_recovery();
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(record->total_result, 0);
}

// The port is held again before the recovery arms the timer, so no timer is armed.
TEST_F(RefusedRecovery, RefusalBeforeTheClearTimerIsArmedKeepsThePortInTheTable) {
    record->tarn_result = 0;
    fake::start_threads();
    drained();
    fake::on_signal([] {
        fake::let_wait_time_out();
        drained();
        return 0;
    });
    EXPECT_EQ(fake::fire(lda_intf_shutdown_timer_call), 0);
    EXPECT_EQ(lda_intf_is_shutdown(record), 1);
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->total_result, 1);
}

TEST_F(RefusedRecovery, PortThatIsDeletedBeforeTheRefusalIsOnlyLogged) {
    recover(true);
    lda_del_intf(7);
    fake::clear_calls();
    refuse_recovery();
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform", "cli_syn_config_notify"}), Lines{});
    EXPECT_EQ(lda_loop_result_get(7), nullptr);
}

}  // namespace
