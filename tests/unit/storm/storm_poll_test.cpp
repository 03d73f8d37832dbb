// Counter reports, judgement and notification.
#include <cstring>

#include "tests/unit/storm/storm_fixture.h"

namespace {

class StormPoll : public RunningStormTest {
 protected:
    StormPoll() {
        storm_set(1, true);
        fake::clear_calls();
    }

    static void poll_with(uint64_t packets) {
        count(101, packets);
        poll();
    }
    static void polls_with(int number, uint64_t packets) {
        for (int n = 0; n < number; ++n) {
            poll_with(packets);
        }
    }
    static Lines verdicts() {
        const Lines lines = fake::calls_of({"verdict"});
        fake::clear_calls();
        return lines;
    }
};

constexpr uint64_t kAtRate = 8000 * 4;
constexpr uint64_t kOverRate = kAtRate + 1;
const Lines kLoop = {"verdict is_loop=1 ifx=1"};
const Lines kRemoved = {"verdict is_loop=0 ifx=1"};

// ---- Counter reports ----

TEST_F(StormPoll, ReportsAddUp) {
    count(101, 10, 1000);
    count(101, 5, 600);
    EXPECT_EQ(record(101)->cur_packet_count, 15u);
    EXPECT_EQ(record(101)->cur_byte_count, 1600u);
    EXPECT_EQ(record(101)->packet_count, 0);
    EXPECT_EQ(
        fake::calls_of({"zlog"}),
        (Lines{
            fake::zlog(20, "std_counter_msg", "counter acl id 101, pkts_cnt 10, bytes_cnt 1000"),
            fake::zlog(20, "std_counter_msg", "counter acl id 101, pkts_cnt 5, bytes_cnt 600")}));
}

TEST_F(StormPoll, ReportOfAnotherApplicationIsIgnoredSilently) {
    const fp_counts counts = {10, 1000};
    for (const char* app : {"other_app", "loop_detection_ap", "loop_detection_app2", ""}) {
        const fp_acl_key key = fake::fp_key(101, app);
        std_counter_msg(fake::mom_client(), &key, nullptr, &counts);
    }
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(record(101)->cur_packet_count, 0u);
}

TEST_F(StormPoll, ReportOfAnUnknownAclIsLoggedAndIgnored) {
    count(999, 10, 1000);
    EXPECT_EQ(fake::take_calls(),
              (Lines{fake::zlog(20, "std_counter_msg",
                                "counter acl id 999, pkts_cnt 10, bytes_cnt 1000")}));
    EXPECT_EQ(record(101)->cur_packet_count, 0u);
}

TEST_F(StormPoll, ReportsAreMatchedOnTheAclId) {
    record(101)->acl_id = 500;
    count(101, 10);
    EXPECT_EQ(record(101)->cur_packet_count, 0u);
    count(500, 10);
    EXPECT_EQ(record(101)->cur_packet_count, 10u);
}

TEST_F(StormPoll, FirstRecordOfAnAclTakesTheReport) {
    storm_port_info* behind = record(101);
    ASSERT_EQ(storm_add_by_fp(8000, 1024, 101), 0);
    storm_port_info* front = record(101);
    ASSERT_NE(front, behind);
    count(101, 10);
    EXPECT_EQ(front->cur_packet_count, 10u);
    EXPECT_EQ(behind->cur_packet_count, 0u);
    front->acl_id = 500;
    count(101, 3);
    EXPECT_EQ(front->cur_packet_count, 10u);
    EXPECT_EQ(behind->cur_packet_count, 3u);
}

TEST_F(StormPoll, TotalsWrap) {
    storm_port_info* info = record(101);
    info->cur_packet_count = UINT64_MAX - 9;
    info->cur_byte_count = UINT64_MAX;
    info->packet_count = -10;
    count(101, kOverRate, 2);
    EXPECT_EQ(info->cur_packet_count, kOverRate - 10);
    EXPECT_EQ(info->cur_byte_count, 1u);
    poll();
    EXPECT_EQ(info->flow_over_times, 1u);
    EXPECT_EQ(info->packet_count, static_cast<int64_t>(kOverRate - 10));
}

TEST_F(StormPoll, HundredThousandReportsBetweenTwoPollsAddUpExactly) {
    g_app_zlog_level = 2;
    storm_set(2, true);
    for (uint64_t n = 1; n <= 100000; ++n) {
        count(101, n, 1500 * n);
    }
    storm_port_info* info = record(101);
    EXPECT_EQ(info->cur_packet_count, 5000050000u);
    EXPECT_EQ(info->cur_byte_count, 7500075000000u);
    EXPECT_EQ(info->packet_count, 0);
    EXPECT_EQ(info->flow_over_times, 0u);
    poll();
    EXPECT_EQ(info->packet_count, 5000050000);
    EXPECT_EQ(info->byte_count, 7500075000000);
    EXPECT_EQ(info->cur_packet_count, 5000050000u);
    EXPECT_EQ(info->cur_byte_count, 7500075000000u);
    EXPECT_EQ(info->flow_over_times, 1u);
    EXPECT_EQ(record(102)->packet_count, 0);
    poll();
    EXPECT_EQ(info->flow_over_times, 0u);
}

TEST_F(StormPoll, HandlerTableFindsTheRecord) {
    const fp_acl_key key = fake::fp_key(101);
    const fp_counts counts = {10, 1000};
    int second = 0;
    fake::fp_handlers().counter(nullptr, &key, &second, &counts);
    EXPECT_EQ(record(101)->cur_packet_count, 10u);
}

// ---- Threshold ----

TEST_F(StormPoll, TrafficAtTheRateIsNotOver) {
    poll_with(kAtRate);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(kAtRate + 1);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

TEST_F(StormPoll, OnlyPacketsAreJudged) {
    count(101, 1, UINT64_MAX);
    poll();
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    EXPECT_EQ(record(101)->byte_count, -1);
}

TEST_F(StormPoll, RateSettingIsTheThresholdNotTheInstalledRate) {
    storm_set_burst_limit(1, 5000, 0, true);
    record(101)->rate = 1;
    poll_with(5000 * 4);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(5000 * 4 + 1);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

TEST_F(StormPoll, DefaultRateIsTheThresholdWithoutASetting) {
    g_pps_value = 100;
    record(101)->rate = 1;
    poll_with(400);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(401);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

TEST_F(StormPoll, DefaultRateIsTheThresholdWithoutAnInterface) {
    storm_set_burst_limit(1, 5000, 0, true);
    fake::unmap_port(1);
    poll_with(kAtRate);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(kOverRate);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

TEST_F(StormPoll, ThresholdWrapsAtThirtyTwoBits) {
    g_pps_value = 1073741824;
    poll_with(0);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(1);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
    g_pps_value = 1073741825;
    poll_with(4);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(5);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
    g_pps_value = 1073741823;
    poll_with(4294967292u);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    poll_with(4294967293u);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

TEST_F(StormPoll, DecreasingTotalCountsAsOver) {
    record(101)->packet_count = 1;
    poll();
    EXPECT_EQ(record(101)->flow_over_times, 1u);
}

// ---- Judgement ----

TEST_F(StormPoll, PollUnderTheRateRestartsTheRun) {
    polls_with(2, kOverRate);
    poll_with(kAtRate);
    polls_with(2, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    EXPECT_EQ(record(101)->is_loop, 0);
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
}

TEST_F(StormPoll, ThirdPollOverTheRateNotifiesOnce) {
    polls_with(2, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
    EXPECT_EQ(record(101)->is_loop, 1);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    polls_with(18, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 1u);
}

TEST_F(StormPoll, FirstNotificationAndRepetitionMayShareAPoll) {
    polls_with(19, kAtRate);
    polls_with(2, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop + kLoop);
    EXPECT_EQ(record(101)->timer_notify, 0);
}

TEST_F(StormPoll, RepetitionMayFollowTwentyOnePollsAfterTheFirstNotification) {
    polls_with(20, kAtRate);
    polls_with(2, kOverRate);
    EXPECT_EQ(record(101)->timer_notify, 0);
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
    EXPECT_EQ(record(101)->timer_notify, 1);
    polls_with(20, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
    EXPECT_EQ(record(101)->timer_notify, 0);
}

TEST_F(StormPoll, TenthCountedPollNotifiesRemoval) {
    polls_with(3, kOverRate);
    verdicts();
    polls_with(9, kAtRate);
    EXPECT_EQ(verdicts(), Lines{});
    EXPECT_EQ(record(101)->unloop_times, 9u);
    poll_with(kAtRate);
    EXPECT_EQ(verdicts(), kRemoved);
    EXPECT_EQ(record(101)->is_loop, 0);
    EXPECT_EQ(record(101)->unloop_times, 0u);
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 1);
    polls_with(2, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 2);
}

TEST_F(StormPoll, RunOfThreeRestartsTheRemovalCount) {
    polls_with(3, kOverRate);
    polls_with(7, kAtRate);
    EXPECT_EQ(record(101)->unloop_times, 7u);
    polls_with(2, kOverRate);
    EXPECT_EQ(record(101)->unloop_times, 9u);
    verdicts();
    poll_with(kOverRate);
    EXPECT_EQ(record(101)->unloop_times, 0u);
    EXPECT_EQ(record(101)->is_loop, 1);
    EXPECT_EQ(verdicts(), Lines{});
}

TEST_F(StormPoll, RemovalDoesNotResetTheRun) {
    polls_with(3, kOverRate);
    polls_with(8, kAtRate);
    polls_with(2, kOverRate);
    verdicts();
    EXPECT_EQ(record(101)->is_loop, 0);
    EXPECT_EQ(record(101)->flow_over_times, 2u);
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
}

TEST_F(StormPoll, CycleRunsWithoutALoop) {
    polls_with(21, 0);
    EXPECT_EQ(record(101)->timer_notify, 21);
    poll_with(0);
    EXPECT_EQ(record(101)->timer_notify, 0);
    EXPECT_EQ(verdicts(), Lines{});
    EXPECT_EQ(std_opt_statics.fix_notify_times, 0u);
}

TEST_F(StormPoll, LoopEndedByTheEngineDuringTheRepetitionIsCleared) {
    polls_with(3, kOverRate);
    polls_with(18, kOverRate);
    storm_port_info* info = record(101);
    notify_msg_proc = [](const storm_loop_msg*) {
        record(101)->is_loop = 0;
        record(101)->timer_notify = 5;
        return 0;
    };
    poll_with(kOverRate);
    EXPECT_EQ(info->timer_notify, 5);
    EXPECT_EQ(info->is_loop, 0);
    EXPECT_EQ(info->unloop_times, 0u);
    // The run goes on, and only the third poll of a run is a verdict.
    notify_msg_proc = storm_verdict;
    verdicts();
    polls_with(5, kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    EXPECT_EQ(info->is_loop, 0);
    poll_with(kAtRate);
    polls_with(3, kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
}

// The repetition falls into a quiet poll, which would count towards the removal.
TEST_F(StormPoll, LoopEndedByTheEngineDuringTheRepetitionIsNotCounted) {
    polls_with(3, kOverRate);
    polls_with(15, kOverRate);
    polls_with(3, kAtRate);
    storm_port_info* info = record(101);
    ASSERT_EQ(info->timer_notify, 21);
    ASSERT_EQ(info->unloop_times, 3u);
    notify_msg_proc = [](const storm_loop_msg*) {
        record(101)->is_loop = 0;
        return 0;
    };
    poll_with(kAtRate);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 1u);
    EXPECT_EQ(info->unloop_times, 3u);
    EXPECT_EQ(info->timer_notify, 0);
}

TEST_F(StormPoll, EveryRecordIsJudgedFromTheFront) {
    storm_set(2, true);
    for (int n = 0; n < 3; ++n) {
        count(101, kOverRate);
        count(102, kOverRate);
        poll();
    }
    EXPECT_EQ(verdicts(), (Lines{"verdict is_loop=1 ifx=2", "verdict is_loop=1 ifx=1"}));
    EXPECT_EQ(std_opt_statics.get_cnt_times, 6);
    EXPECT_EQ(std_opt_statics.flow_over_times, 6u);
    count(102, kOverRate);
    poll();
    // Port 1, judged last, was quiet: the run of all is over.
    EXPECT_EQ(std_opt_statics.flow_over_times, 0u);
}

// ---- Log lines ----

Lines totals_log(int level, const std::string& timer, const std::string& packets,
                 const std::string& bytes) {
    return {fake::zlog(level, "storm_deal_counter", "***the time poll = " + timer),
            fake::zlog(level, "storm_deal_counter", "[phyid = 65] " + packets),
            fake::zlog(level, "storm_deal_counter", "[phyid = 65] " + bytes)};
}

TEST_F(StormPoll, PollIsLogged) {
    count(101, 7, 700);
    poll();
    count(101, 3, 300);
    fake::clear_calls();
    poll();
    EXPECT_EQ(take_log(), totals_log(20, "1", "old packet_count = 7, new packet_count = 10",
                                     "old byte_count = 700, new byte_count = 1000"));
}

TEST_F(StormPoll, VerdictIsLoggedWithTheTotalsAgain) {
    polls_with(2, kOverRate);
    count(101, kOverRate);
    fake::clear_calls();
    poll();
    const std::string packets = "old packet_count = 64002, new packet_count = 96003";
    const std::string bytes = "old byte_count = 0, new byte_count = 0";
    EXPECT_EQ(
        take_log(),
        totals_log(20, "2", packets, bytes) + totals_log(40, "3", packets, bytes) +
            Lines{fake::info("storm_deal_counter", "!!!!!!! phyid = 65 notity to lda loop ")});
}

TEST_F(StormPoll, RepetitionIsLogged) {
    polls_with(21, kOverRate);
    fake::clear_calls();
    poll_with(kOverRate);
    EXPECT_EQ(take_log().back(),
              fake::info("storm_deal_counter", "!!!!!!! 90s notity to lda loop phyid = 65"));
}

TEST_F(StormPoll, RemovalIsLogged) {
    polls_with(3, kOverRate);
    polls_with(9, 0);
    fake::clear_calls();
    poll_with(0);
    EXPECT_EQ(take_log().back(),
              fake::info("storm_deal_counter", "!!!!! phyid = 65 notity to lda loop remove"));
}

// ---- Timer ----

TEST_F(StormPoll, PollArmsTheNextOne) {
    EXPECT_EQ(fake::fire(storm_deal_counter_timeout), 0);
    EXPECT_EQ(fake::calls_of({"qv_thread_insert_timer"}),
              (Lines{"qv_thread_insert_timer \"loop_check\" 4"}));
    ASSERT_EQ(fake::timers().size(), 1u);
    EXPECT_EQ(fake::timers()[0].slot, &g_storm_thread);
}

TEST_F(StormPoll, EmptyListArmsTheNextPoll) {
    storm_set(1, false);
    fake::clear_calls();
    fake::fire(storm_deal_counter_timeout);
    EXPECT_EQ(fake::take_calls(), (Lines{"qv_thread_insert_timer \"loop_check\" 4"}));
}

TEST_F(StormPoll, TimerFailureEndsPolling) {
    storm_set(1, false);
    fake::fail("qv_thread_insert_timer", 12);
    fake::clear_calls();
    EXPECT_EQ(fake::fire(storm_deal_counter_timeout), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"qv_thread_insert_timer \"loop_check\" 4",
                     fake::error("storm_deal_counter_timeout",
                                 "storm_init qv_thread_insert_timer error 12\n")}));
    EXPECT_TRUE(fake::timers().empty());
}

// ---- Notification ----

TEST_F(StormPoll, NotificationReturnsTheResultOfTheEngine) {
    storm_loop_msg msg;
    EXPECT_EQ(storm_notify_lda(&msg, record(101)), 7);
}

TEST_F(StormPoll, NotificationWithoutInterfaceIsLoggedAndDropped) {
    fake::unmap_port(1);
    storm_loop_msg msg;
    memset(&msg, 0xee, sizeof msg);
    EXPECT_EQ(storm_notify_lda(&msg, record(101)), -1);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"libddm_get_ifx_by_phyid 101",
                     fake::error("storm_constuct_info", "rv: -1, msg->phyid: 0x65"),
                     fake::error("storm_notify_lda", "phyid to ifx is failed \n")}));
}

TEST_F(StormPoll, FailedNotificationKeepsTheState) {
    polls_with(2, kOverRate);
    fake::unmap_port(1);
    poll_with(kOverRate);
    EXPECT_EQ(verdicts(), Lines{});
    EXPECT_EQ(record(101)->is_loop, 1);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    fake::add_port(1);
    polls_with(19, kOverRate);
    EXPECT_EQ(verdicts(), kLoop);
}

// ---- Records that go during a poll ----

TEST_F(StormPoll, RecordDroppedByItsOwnVerdictIsNotJudgedFurther) {
    notify_msg_proc = [](const storm_loop_msg*) {
        return storm_del_storm_detect(101);
    };
    polls_with(3, kOverRate);
    EXPECT_EQ(record(101), nullptr);
    EXPECT_EQ(storm_port_num, 0u);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    EXPECT_EQ(fake::timers().size(), 1u) << "the next poll is armed";
}

TEST_F(StormPoll, RecordDroppedByItsRepetitionIsNotJudgedFurther) {
    polls_with(21, kOverRate);
    verdicts();
    notify_msg_proc = [](const storm_loop_msg*) {
        notify_msg_proc = storm_verdict;
        return storm_del_storm_detect(101);
    };
    poll_with(kOverRate);
    EXPECT_EQ(record(101), nullptr);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 1u);
    EXPECT_EQ(verdicts(), kRemoved);
}

TEST_F(StormPoll, VerdictMayDropTheNextRecords) {
    fake::add_port(3);
    storm_set(2, true);
    storm_set(3, true);
    for (int n = 0; n < 2; ++n) {
        count(103, kOverRate);
        poll();
    }
    EXPECT_EQ(std_opt_statics.get_cnt_times, 6);
    notify_msg_proc = [](const storm_loop_msg*) {
        storm_del_storm_detect(102);
        return storm_del_storm_detect(101);
    };
    count(103, kOverRate);
    poll();
    EXPECT_EQ(std_opt_statics.get_cnt_times, 7);
    EXPECT_EQ(storm_port_num, 1u);
    EXPECT_EQ(record(103)->is_loop, 1);
}

TEST_F(StormPoll, RecordAddedByAVerdictWaitsForTheNextPoll) {
    polls_with(2, kOverRate);
    notify_msg_proc = [](const storm_loop_msg*) {
        storm_set(2, true);
        return 0;
    };
    poll_with(kOverRate);
    EXPECT_EQ(std_opt_statics.get_cnt_times, 3);
    EXPECT_EQ(record(101)->is_loop, 1);
    notify_msg_proc = storm_verdict;
    poll_with(kOverRate);
    EXPECT_EQ(std_opt_statics.get_cnt_times, 5);
}

// ---- After a change of the rule ----

TEST_F(StormPoll, FirstPollAfterARateChangeMeasuresEverything) {
    polls_with(4, kAtRate);
    storm_set_burst_limit(1, 30000, 0, true);
    EXPECT_EQ(record(101)->packet_count, 0);
    EXPECT_EQ(record(101)->cur_packet_count, 4 * kAtRate);
    poll_with(0);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
    poll_with(0);
    EXPECT_EQ(record(101)->flow_over_times, 0u);
}

TEST_F(StormPoll, FirstPollAfterABurstChangeMeasuresEverything) {
    polls_with(4, kAtRate);
    storm_set_burst_limit(1, 8000, 32, true);
    poll_with(1);
    EXPECT_EQ(record(101)->flow_over_times, 1u);
    EXPECT_EQ(record(101)->packet_count, static_cast<int64_t>(4 * kAtRate + 1));
}

TEST_F(StormPoll, RecordWithoutRuleIsPolledWithoutCounts) {
    poll_with(kAtRate);
    fake::fail("fp_entry_alloc");
    storm_set_burst_limit(1, 5000, 0, true);
    poll();
    poll();
    EXPECT_EQ(record(101)->flow_over_times, 0u);
    EXPECT_EQ(record(101)->rate, 8000);
    EXPECT_EQ(std_opt_statics.get_cnt_times, 3);
}

}  // namespace
