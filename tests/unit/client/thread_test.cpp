#include "qv/thread.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <vector>

#include "platform/client/thread_master.h"
#include "tests/support/test_platform.h"

namespace {

using namespace std::chrono_literals;
using qv::test::TestPlatform;

std::vector<void*> g_fired;

int remember(qv_thread* thread) {
    g_fired.push_back(thread->arg);
    return 0;
}

void* word(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}

class Thread : public testing::Test {
 protected:
    Thread() { g_fired.clear(); }

    TestPlatform platform;
    qv_thread_master* master = qv_thread_master_create();
};

using Fired = std::vector<void*>;

TEST_F(Thread, MasterAttachesItsLoopToThePlatform) {
    ASSERT_NE(master, nullptr);
    EXPECT_EQ(&platform.loop(), &qv::loop_of(master));
    qv_thread_master_finish(master);
}

TEST_F(Thread, TimerFiresOnceWithItsArgument) {
    ASSERT_NE(qv_thread_add_timer(master, remember, word(7), 10), nullptr);
    platform.run_for(9s);
    EXPECT_EQ(g_fired, Fired{});
    platform.run_for(1s);
    EXPECT_EQ(g_fired, Fired{word(7)});
    platform.run_for(100s);
    EXPECT_EQ(g_fired, Fired{word(7)});
    qv_thread_master_finish(master);
}

TEST_F(Thread, FetchFillsTheRecordOfPostedWork) {
    int runs = 0;
    platform.loop().post([&] { ++runs; });
    qv_thread thread{};
    ASSERT_EQ(qv_thread_fetch(master, &thread), &thread);
    EXPECT_EQ(thread.master, master);
    EXPECT_EQ(runs, 0);
    qv_thread_call(&thread);
    EXPECT_EQ(runs, 1);
    qv_thread_master_finish(master);
}

TEST_F(Thread, FetchFillsTheRecordOfAnExpiredTimer) {
    qv_thread_add_timer(master, remember, word(7), 0);
    qv_thread thread{};
    ASSERT_EQ(qv_thread_fetch(master, &thread), &thread);
    EXPECT_EQ(thread.master, master);
    EXPECT_EQ(thread.func, remember);
    EXPECT_EQ(thread.arg, word(7));
    EXPECT_EQ(g_fired, Fired{});
    EXPECT_EQ(qv_thread_fetch(master, &thread), nullptr);
    qv_thread_master_finish(master);
}

TEST_F(Thread, CancelledTimerNeverFires) {
    qv_thread* const timer = qv_thread_add_timer(master, remember, word(1), 1);
    qv_thread_cancel(timer);
    qv_thread_cancel(nullptr);
    platform.run_for(10s);
    EXPECT_EQ(g_fired, Fired{});
    qv_thread_master_finish(master);
}

qv_thread* g_other;

int cancel_other(qv_thread* thread) {
    g_fired.push_back(thread->arg);
    qv_thread_cancel(g_other);
    return 0;
}

TEST_F(Thread, CallbackMayCancelATimerThatIsDueToo) {
    qv_thread_add_timer(master, cancel_other, word(1), 1);
    g_other = qv_thread_add_timer(master, remember, word(2), 1);
    platform.run_for(1s);
    EXPECT_EQ(g_fired, Fired{word(1)});
    qv_thread_master_finish(master);
}

qv_thread* g_slot;
bool g_slot_was_null;

int look_at_slot(qv_thread* thread) {
    g_slot_was_null = g_slot == nullptr;
    return remember(thread);
}

TEST_F(Thread, SlotIsSetWhilePendingAndNullBeforeTheCallback) {
    g_slot = nullptr;
    g_slot_was_null = false;
    ASSERT_EQ(qv_thread_insert_timer(master, &g_slot, look_at_slot, word(4), 4, "loop_check"), 0);
    EXPECT_NE(g_slot, nullptr);
    platform.run_for(4s);
    EXPECT_TRUE(g_slot_was_null);
    EXPECT_EQ(g_fired, Fired{word(4)});
    qv_thread_master_finish(master);
}

TEST_F(Thread, FetchEmptiesTheSlot) {
    g_slot = nullptr;
    ASSERT_EQ(qv_thread_insert_timer(master, &g_slot, remember, word(4), 0, "loop_check"), 0);
    qv_thread thread{};
    ASSERT_EQ(qv_thread_fetch(master, &thread), &thread);
    EXPECT_EQ(g_slot, nullptr);
    EXPECT_EQ(g_fired, Fired{});
    qv_thread_call(&thread);
    EXPECT_EQ(g_fired, Fired{word(4)});
    qv_thread_master_finish(master);
}

TEST_F(Thread, InsertReplacesTheTimerInTheSlot) {
    qv_thread* slot = nullptr;
    qv_thread_insert_timer(master, &slot, remember, word(1), 4, "loop_check");
    platform.run_for(3s);
    qv_thread_insert_timer(master, &slot, remember, word(2), 4, "loop_check");
    platform.run_for(3s);
    EXPECT_EQ(g_fired, Fired{});
    platform.run_for(1s);
    EXPECT_EQ(g_fired, Fired{word(2)});
    EXPECT_EQ(slot, nullptr);
    qv_thread_master_finish(master);
}

TEST_F(Thread, CancelEmptiesTheSlot) {
    qv_thread* slot = nullptr;
    qv_thread_insert_timer(master, &slot, remember, word(1), 4, "loop_check");
    qv_thread_cancel(slot);
    EXPECT_EQ(slot, nullptr);
    qv_thread_master_finish(master);
}

int rearm(qv_thread* thread) {
    g_fired.push_back(thread->arg);
    qv_thread_insert_timer(thread->master, &g_slot, rearm, thread->arg, 4, "loop_check");
    return 0;
}

TEST_F(Thread, CallbackMayArmItsOwnSlotAgain) {
    g_slot = nullptr;
    qv_thread_insert_timer(master, &g_slot, rearm, word(9), 4, "loop_check");
    platform.run_for(12s);
    EXPECT_EQ(g_fired, (Fired{word(9), word(9), word(9)}));
    qv_thread_master_finish(master);
}

TEST_F(Thread, BadCallsAreRefused) {
    qv_thread* slot = nullptr;
    EXPECT_EQ(qv_thread_add_timer(nullptr, remember, nullptr, 1), nullptr);
    EXPECT_EQ(qv_thread_add_timer(master, nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(qv_thread_insert_timer(master, nullptr, remember, nullptr, 1, "x"), EINVAL);
    EXPECT_EQ(qv_thread_insert_timer(master, &slot, nullptr, nullptr, 1, "x"), EINVAL);
    EXPECT_EQ(qv_thread_insert_timer(nullptr, &slot, remember, nullptr, 1, "x"), EINVAL);
    qv_thread_master_finish(master);
}

TEST_F(Thread, DelaysOutOfRangeAreCut) {
    qv_thread_add_timer(master, remember, word(1), LONG_MIN);
    qv_thread_add_timer(master, remember, word(2), LONG_MAX);
    platform.run_for(1s);
    EXPECT_EQ(g_fired, Fired{word(1)});
    qv_thread_master_finish(master);
}

TEST_F(Thread, FinishReleasesPendingTimers) {
    qv_thread* slot = nullptr;
    qv_thread_add_timer(master, remember, word(1), 5);
    qv_thread_insert_timer(master, &slot, remember, word(2), 5, "loop_check");
    qv_thread_master_finish(master);
    qv_thread_master_finish(nullptr);
    EXPECT_EQ(g_fired, Fired{});
}

TEST_F(Thread, PlatformThatCannotAttachMakesCreateFail) {
    platform.refuse_loop = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qv_thread_master_create(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "lda: test: no loop wanted\n");
    qv_thread_master_finish(master);
}

}  // namespace
