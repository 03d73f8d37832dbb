#include "platform/base/metrics.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/unit/base/event_loop_fixture.h"

namespace {

using namespace std::chrono_literals;

std::vector<uint64_t> counts(const qv::DurationHistogram& histogram) {
    std::vector<uint64_t> counts;
    for (size_t bucket = 0; bucket <= histogram.bounds_s().size(); bucket++) {
        counts.push_back(histogram.count(bucket));
    }
    return counts;
}

TEST(DurationHistogram, DurationIsCountedInTheFirstBucketThatHoldsIt) {
    qv::DurationHistogram histogram{0.5, 2};
    histogram.observe(0ms);
    histogram.observe(500ms);
    histogram.observe(501ms);
    histogram.observe(2s);
    histogram.observe(2001ms);
    histogram.observe(1h);
    EXPECT_EQ(counts(histogram), (std::vector<uint64_t>{2, 2, 2}));
    EXPECT_DOUBLE_EQ(histogram.sum_s(), 3605.002);
}

TEST(DurationHistogram, NegativeDurationCountsAsZero) {
    qv::DurationHistogram histogram{0.5};
    histogram.observe(-10s);
    EXPECT_EQ(counts(histogram), (std::vector<uint64_t>{1, 0}));
    EXPECT_EQ(histogram.sum_s(), 0);
}

TEST(TurnTimer, CountsTheWorkThatRunsWhileItExists) {
    qv::Metrics figures;
    qv::use_metrics(&figures);
    {
        const qv::TurnTimer timer;
        EXPECT_EQ(counts(figures.turn), std::vector<uint64_t>(10, 0));
    }
    uint64_t total = 0;
    for (const uint64_t count : counts(figures.turn)) {
        total += count;
    }
    EXPECT_EQ(total, 1U);
    EXPECT_GT(figures.turn.sum_s(), 0);
    qv::use_metrics(nullptr);
}

TEST(TurnTimer, MetricsMayBeSwitchedOnWhileItExists) {
    qv::Metrics figures;
    {
        const qv::TurnTimer timer;
        qv::use_metrics(&figures);
    }
    EXPECT_EQ(figures.turn.sum_s(), 0);
    qv::use_metrics(nullptr);
}

using Loop = loop_test::Loop;

TEST_F(Loop, DeferredTasksAreCountedInEachRound) {
    qv::Metrics figures;
    qv::use_metrics(&figures);
    const auto first = loop.defer(note("first"));
    const auto second = loop.defer(note("second"));
    loop.post(note("urgent"));
    ASSERT_TRUE(loop.fetch());
    EXPECT_EQ(figures.deferred_tasks, 2U);
    loop.run();
    loop_test::run_ready(loop, clock);
    EXPECT_EQ(seen, (loop_test::Seen{"urgent", "first", "second"}));
    EXPECT_EQ(figures.deferred_tasks, 0U);
    qv::use_metrics(nullptr);
}

}  // namespace
