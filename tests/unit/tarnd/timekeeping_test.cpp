#include "services/tarnd/timekeeping.h"

#include <gtest/gtest.h>

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Time kNow{seconds(500)};

TEST(Timekeeping, TimekeeperAloneWakesForPlannedWork) {
    Timekeeping keeping;
    EXPECT_EQ(keeping.wake_up(true, kNow, kNow + milliseconds(200)), kNow + milliseconds(200));
    EXPECT_EQ(keeping.wake_up(false, kNow, kNow + milliseconds(200)), kNow + seconds(10));
}

TEST(Timekeeping, NobodySleepsForMoreThanTenSeconds) {
    Timekeeping keeping;
    EXPECT_EQ(keeping.wake_up(true, kNow, Time::max()), kNow + seconds(10));
    EXPECT_EQ(keeping.wake_up(false, kNow, Time::max()), kNow + seconds(10));
    keeping.alert(kNow);
    EXPECT_EQ(keeping.wake_up(false, kNow, Time::max()), kNow + seconds(10));
}

TEST(Timekeeping, AnotherThreadWakesForWorkThatIsDueWhileTheTimekeeperSleeps) {
    Timekeeping keeping;
    keeping.wake_up(true, kNow, kNow + milliseconds(300));
    EXPECT_EQ(keeping.wake_up(false, kNow + milliseconds(5), kNow + milliseconds(10)),
              kNow + milliseconds(10));
    // It goes on until the timekeeper wakes and has the plan.
    EXPECT_EQ(keeping.wake_up(false, kNow + milliseconds(10), kNow + milliseconds(20)),
              kNow + milliseconds(20));
    EXPECT_EQ(keeping.wake_up(true, kNow + milliseconds(12), kNow + milliseconds(20)),
              kNow + milliseconds(20));
    EXPECT_EQ(keeping.wake_up(false, kNow + milliseconds(13), kNow + milliseconds(20)),
              kNow + milliseconds(13) + seconds(10));
}

TEST(Timekeeping, AllThreadsWakeForASecondWhenAStormIsLikely) {
    Timekeeping keeping;
    keeping.wake_up(true, kNow, kNow + milliseconds(3));
    keeping.alert(kNow);
    const Time last = kNow + milliseconds(999);
    EXPECT_EQ(keeping.wake_up(false, last, last + milliseconds(7)), last + milliseconds(7));
    EXPECT_EQ(keeping.wake_up(true, last, last + milliseconds(7)), last + milliseconds(7));
    const Time after = kNow + seconds(1);
    EXPECT_EQ(keeping.wake_up(false, after, after + milliseconds(7)), after + seconds(10));
}

}  // namespace
}  // namespace qv::tarnd
