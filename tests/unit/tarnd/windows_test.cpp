#include "services/tarnd/windows.h"

#include <gtest/gtest.h>

#include <memory>

namespace qv::tarnd {
namespace {

using std::chrono::seconds;

constexpr Windows::Flow kFlow{.ifx = 3, .sender = 7, .bridge = 99};

struct WindowsTest : testing::Test {
    bool is_new(uint64_t sequence, const Windows::Flow& flow = kFlow) {
        return windows.judge(flow, sequence, now) == Windows::Verdict::kNew;
    }

    Time now{seconds(5000)};
    Windows windows;
};

TEST_F(WindowsTest, ANumberIsNewOnce) {
    EXPECT_TRUE(is_new(1000));
    EXPECT_FALSE(is_new(1000));
    EXPECT_TRUE(is_new(1001));
    EXPECT_FALSE(is_new(1000));
    EXPECT_FALSE(is_new(1001));
}

TEST_F(WindowsTest, NumbersMayOvertakeOneAnotherWithin64) {
    EXPECT_TRUE(is_new(1063));
    EXPECT_TRUE(is_new(1000));
    EXPECT_FALSE(is_new(1000));
    EXPECT_FALSE(is_new(999));
    EXPECT_TRUE(is_new(1500));
    EXPECT_FALSE(is_new(1063));
}

TEST_F(WindowsTest, ANumberBefore64OthersIsLateAndOneThatWasSeenIsNot) {
    EXPECT_TRUE(is_new(1063));
    EXPECT_TRUE(is_new(1000));
    EXPECT_EQ(windows.judge(kFlow, 1000, now), Windows::Verdict::kSeen);
    EXPECT_EQ(windows.judge(kFlow, 999, now), Windows::Verdict::kLate);
}

TEST_F(WindowsTest, EachVlanHasItsOwn) {
    const Windows::Flow in_7{.ifx = 3, .sender = 7, .bridge = 99, .vid = 7};
    EXPECT_TRUE(is_new(1100));
    EXPECT_TRUE(is_new(1000, in_7));
    EXPECT_FALSE(is_new(1000, in_7));
}

TEST_F(WindowsTest, EachPortAndEachSenderHasItsOwn) {
    EXPECT_TRUE(is_new(1000));
    EXPECT_TRUE(is_new(1000, {.ifx = 4, .sender = 7, .bridge = 99}));
    EXPECT_TRUE(is_new(1000, {.ifx = 3, .sender = 8, .bridge = 99}));
    EXPECT_TRUE(is_new(1000, {.ifx = 3, .sender = 7, .bridge = 98}));
    EXPECT_FALSE(is_new(1000));
    EXPECT_FALSE(is_new(1000, {.ifx = 4, .sender = 7, .bridge = 99}));
}

TEST_F(WindowsTest, ASenderThatWasSilentMayStartAgain) {
    EXPECT_TRUE(is_new(1000));
    now += seconds(15);
    EXPECT_FALSE(is_new(10));
    now += seconds(1);
    EXPECT_TRUE(is_new(10));
}

}  // namespace
}  // namespace qv::tarnd
