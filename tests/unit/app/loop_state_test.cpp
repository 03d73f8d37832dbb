// The shared state: loop set, records, settings, snapshot, and the words shown for them.
#include <cstddef>
#include <cstring>
#include <thread>

#include "lda_debug.h"
#include "lda_lsm.h"
#include "lda_main.h"
#include "storm_detect.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class LoopState : public StartedAgent {};

// The offsets of a record's fields rise in the documented order.
template <size_t N>
void expect_rising(const size_t (&offsets)[N]) {
    for (size_t i = 1; i < N; i++)
        EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i;
}

TEST(LoopStateLayout, LoopSetFieldsAreInOrder) {
    expect_rising({offsetof(lda_loop_set_t, list), offsetof(lda_loop_set_t, lock),
                   offsetof(lda_loop_set_t, intf_num), offsetof(lda_loop_set_t, loop_num),
                   offsetof(lda_loop_set_t, policy)});
    EXPECT_EQ(sizeof(lda_loop_set_t::intf_num), 2u);
    EXPECT_EQ(sizeof(lda_loop_set_t::loop_num), 2u);
    EXPECT_EQ(sizeof(lda_loop_set_t::policy), 4u);
}

TEST(LoopStateLayout, RecordFieldsAreInOrder) {
    expect_rising({offsetof(lda_intf_t, link), offsetof(lda_intf_t, clear_timer),
                   offsetof(lda_intf_t, recover_ticks), offsetof(lda_intf_t, ifx),
                   offsetof(lda_intf_t, name), offsetof(lda_intf_t, total_result),
                   offsetof(lda_intf_t, tarn_result), offsetof(lda_intf_t, storm_result),
                   offsetof(lda_intf_t, spare_word), offsetof(lda_intf_t, shutdown_timer),
                   offsetof(lda_intf_t, is_shutdown), offsetof(lda_intf_t, mode),
                   offsetof(lda_intf_t, mode_arg), offsetof(lda_intf_t, vsl_member)});
    EXPECT_EQ(sizeof(lda_intf_t), 128u);
    EXPECT_EQ(sizeof(lda_intf_t::name), 64u);
}

TEST(LoopStateLayout, ResultByteOfASourceFollowsTheTotalByItsNumber) {
    EXPECT_EQ(offsetof(lda_intf_t, tarn_result), offsetof(lda_intf_t, total_result) + 1 + 0);
    EXPECT_EQ(offsetof(lda_intf_t, storm_result), offsetof(lda_intf_t, total_result) + 1 + 1);
}

TEST(LoopStateLayout, ReportIsAByteFollowedByTheInterface) {
    EXPECT_EQ(offsetof(storm_loop_msg, is_loop), 0u);
    EXPECT_EQ(sizeof(storm_loop_msg::is_loop), 1u);
    EXPECT_EQ(offsetof(storm_loop_msg, ifx), 4u);
}

TEST(LoopStateLayout, SnapshotEntryFieldsAreInOrder) {
    expect_rising({offsetof(lda_loop_result_t, name), offsetof(lda_loop_result_t, tarn_result),
                   offsetof(lda_loop_result_t, storm_result),
                   offsetof(lda_loop_result_t, is_shutdown), offsetof(lda_loop_result_t, policy)});
    EXPECT_EQ(offsetof(lda_loop_result_t, tarn_result), 64u);
    EXPECT_EQ(offsetof(lda_loop_result_t, storm_result), 65u);
}

TEST_F(LoopState, StartsEmptyAndDisabled) {
    EXPECT_EQ(g_lda_loop_set->list.next, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->list.prev, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->policy, 0u);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
}

TEST_F(LoopState, RecoveryTimeStartsAt300SecondsEnabled) {
    EXPECT_EQ(g_lda_recover_time.time, 300u);
    EXPECT_EQ(g_lda_recover_time.enabled, 1);
    EXPECT_EQ(lda_cli_recover_time_get(), 300u);
}

TEST_F(LoopState, RecoveryTimeReadsZeroWhileDisabled) {
    lda_cli_recover_time_set(4711, 0);
    EXPECT_EQ(g_lda_recover_time.time, 4711u);
    EXPECT_EQ(lda_cli_recover_time_get(), 0u);
    lda_cli_recover_time_set(4711, 7);
    EXPECT_EQ(lda_cli_recover_time_get(), 4711u);
}

TEST_F(LoopState, ClearIntervalStartsAt60Seconds) {
    EXPECT_EQ(g_lda_clear_interval, 60);
}

TEST_F(LoopState, LockIsRecursive) {
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_FALSE(free_for_others(&g_lda_loop_set->lock));
    EXPECT_EQ(lda_loop_unlock(), 0);
    EXPECT_FALSE(free_for_others(&g_lda_loop_set->lock));
    EXPECT_EQ(lda_loop_unlock(), 0);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LoopState, PolicyAndRecordsAreReadWhileAnotherThreadHoldsTheLock) {
    lda_intf_t* record = add(7);
    lda_loop_lock();
    std::thread([&] {
        lda_loop_detect_ptype_set(3);
        EXPECT_EQ(lda_loop_detect_ptype_get(), 3u);
        EXPECT_EQ(lda_loop_result_get(7), record);
    }).join();
    lda_loop_unlock();
}

TEST_F(LoopState, EachPolicyShutsOnlyItsModes) {
    lda_intf_t record{};
    struct Row {
        uint32_t policy;
        uint32_t none, access, trunk, hybrid;
    };
    for (const Row& row : {Row{0, 0, 0, 0, 0}, Row{1, 0, 0, 0, 0}, Row{2, 0, 1, 0, 0},
                           Row{3, 0, 0, 0, 1}, Row{4, 0, 1, 0, 1}, Row{5, 0, 0, 0, 0}}) {
        SCOPED_TRACE(row.policy);
        lda_loop_detect_ptype_set(row.policy);
        record.mode = 0;
        EXPECT_EQ(lda_intf_policy_get(&record), row.none);
        record.mode = 1;
        EXPECT_EQ(lda_intf_policy_get(&record), row.access);
        record.mode = 2;
        EXPECT_EQ(lda_intf_policy_get(&record), row.trunk);
        record.mode = 7;
        EXPECT_EQ(lda_intf_policy_get(&record), row.hybrid);
    }
}

TEST_F(LoopState, LookupInAnEmptyListFindsNothing) {
    EXPECT_EQ(lda_loop_result_get(7), nullptr);
}

TEST_F(LoopState, LookupReturnsTheFirstRecordWithTheIndex) {
    // As lda_add_intf links a record, for an index that has one already.
    auto add_twin = [] {
        lda_intf_t* twin = lda_index<lda_intf_t>::make(7);
        twin->ifx = 7;
        g_lda_loop_set->index.add_tail(&g_lda_loop_set->list, twin);
        return twin;
    };
    add(6);
    lda_intf_t* first = add(7);
    lda_intf_t* second = add_twin();
    lda_intf_t* third = add_twin();
    EXPECT_EQ(lda_loop_result_get(7), first);
    EXPECT_EQ(lda_loop_result_get(8), nullptr);
    lda_del_intf(7);
    EXPECT_EQ(lda_loop_result_get(7), second);
    EXPECT_EQ(records().back(), third);
    lda_del_intf(7);
    EXPECT_EQ(lda_loop_result_get(7), third);
    lda_del_intf(7);
    EXPECT_EQ(lda_loop_result_get(7), nullptr);
}

TEST_F(LoopState, SnapshotOfADisabledOrQuietSwitchIsEmpty) {
    log_everything();
    lda_loop_result_t entries[LDA_LOOP_MAX];
    memset(entries, 0xa5, sizeof entries);

    EXPECT_EQ(lda_all_loop_result_get(entries), 0);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_all_loop_result_get", "return 0:policy type=0, loop_num=0")});

    lda_intf_t* record = looped(7, 1, 0);
    EXPECT_EQ(lda_all_loop_result_get(entries), 0);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_all_loop_result_get", "return 0:policy type=0, loop_num=1")});

    lda_loop_detect_ptype_set(2);
    record->total_result = 0;
    g_lda_loop_set->loop_num = 0;
    EXPECT_EQ(lda_all_loop_result_get(entries), 0);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_all_loop_result_get", "return 0:policy type=2, loop_num=0")});
    for (const lda_loop_result_t& entry : entries)
        EXPECT_EQ(static_cast<uint8_t>(entry.name[0]), 0xa5);
}

// A deleted port leaves the count of loops as it was: the list is walked and yields nothing.
TEST_F(LoopState, SnapshotOfAnEmptyListWithACountedLoopLogsNothing) {
    log_everything();
    lda_loop_detect_ptype_set(1);
    g_lda_loop_set->loop_num = 1;
    lda_loop_result_t entries[LDA_LOOP_MAX];
    memset(entries, 0xa5, sizeof entries);
    EXPECT_EQ(lda_all_loop_result_get(entries), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(static_cast<uint8_t>(entries[0].name[0]), 0xa5);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LoopState, SnapshotHasTheLoopedPortsInListOrder) {
    lda_intf_t* hybrid = looped(9, 7, 2);
    add(8, 1);
    lda_intf_t* access = looped(3, 1, 2);
    hybrid->tarn_result = 0;
    hybrid->storm_result = 1;
    access->is_shutdown = 1;
    lda_loop_result_t entries[LDA_LOOP_MAX] = {};

    ASSERT_EQ(lda_all_loop_result_get(entries), 2);
    EXPECT_STREQ(entries[0].name, "swp9");
    EXPECT_EQ(entries[0].tarn_result, 0);
    EXPECT_EQ(entries[0].storm_result, 1);
    EXPECT_EQ(entries[0].is_shutdown, 0);
    EXPECT_EQ(entries[0].policy, 0u);
    EXPECT_STREQ(entries[1].name, "swp3");
    EXPECT_EQ(entries[1].tarn_result, 1);
    EXPECT_EQ(entries[1].storm_result, 0);
    EXPECT_EQ(entries[1].is_shutdown, 1);
    EXPECT_EQ(entries[1].policy, 1u);
    EXPECT_EQ(entries[2].name[0], '\0');
}

TEST_F(LoopState, SnapshotLogsEveryEntry) {
    looped(9, 7, 2);
    looped(3, 1, 2)->is_shutdown = 1;
    lda_loop_result_t entries[LDA_LOOP_MAX] = {};
    log_everything();
    ASSERT_EQ(lda_all_loop_result_get(entries), 2);
    EXPECT_EQ(fake::take_calls(), (Lines{info("lda_all_loop_result_get", "num=1, is_shutdown=0"),
                                         info("lda_all_loop_result_get", "num=2, is_shutdown=1")}));
}

TEST_F(LoopState, SnapshotStopsAtTenEntries) {
    for (uint32_t ifx = 1; ifx <= 12; ifx++)
        add(ifx)->total_result = 1;
    g_lda_loop_set->loop_num = 12;
    lda_loop_detect_ptype_set(1);
    lda_loop_result_t entries[LDA_LOOP_MAX + 1] = {};
    EXPECT_EQ(lda_all_loop_result_get(entries), 10);
    EXPECT_STREQ(entries[9].name, "swp10");
    EXPECT_EQ(entries[10].name[0], '\0');
}

TEST_F(LoopState, StatusIsNormalUnderPolicyZeroEvenWhenShutDown) {
    EXPECT_STREQ(detect_intf_status(1), "normal");
    EXPECT_STREQ(detect_intf_status(0), "normal");
    lda_loop_detect_ptype_set(1);
    EXPECT_STREQ(detect_intf_status(1), "shutdown");
    EXPECT_STREQ(detect_intf_status(0), "warning");
}

TEST_F(LoopState, DisplayWords) {
    EXPECT_STREQ(client_to_str(0), "tarn");
    EXPECT_STREQ(client_to_str(1), "storm");
    EXPECT_STREQ(client_to_str(2), "Error");
    EXPECT_STREQ(client_to_str(0xFFFFFFFF), "Error");
    EXPECT_STREQ(detect_state_to_dsp(0), "normal");
    EXPECT_STREQ(detect_state_to_dsp(1), "loop");
    EXPECT_STREQ(detect_state_to_dsp(200), "loop");
    EXPECT_STREQ(detect_intf_policy_name(0), "warning");
    EXPECT_STREQ(detect_intf_policy_name(1), "shutdown");
    EXPECT_STREQ(detect_intf_policy_name(9), "shutdown");
}

}  // namespace
