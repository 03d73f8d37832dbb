// The forwarding plane of the embedded switch.
#include "platform/driver/embedded/embedded_forwarding.h"

#include <cerrno>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

class RecordingSink final : public ForwardingSink {
 public:
    void done(ForwardingId id) override { lines.push_back("done " + std::to_string(id)); }
    void failed(ForwardingId id, int error) override {
        lines.push_back("failed " + std::to_string(id) + " " + std::to_string(error));
    }
    void counted(ForwardingId id, uint64_t packets, uint64_t bytes) override {
        lines.push_back("counted " + std::to_string(id) + " " + std::to_string(packets) + " " +
                        std::to_string(bytes));
        if (on_count) {
            on_count();
        }
    }
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
    std::function<void()> on_count;  // runs inside each report of a counter
};

constexpr ForwardingRule kPortRule = {.unknown_destination = true,
                                      .ethertype = std::nullopt,
                                      .meter = ForwardingRule::Meter{1000, 500},
                                      .counted = true};

struct EmbeddedPlane : testing::Test {
    test::ManualClock clock;
    EventLoop loop{clock};
    std::set<uint32_t> ports = {1, 2};
    RecordingSink sink;
    EmbeddedForwarding plane{loop, [this](uint32_t phyid) {
                                 return ports.contains(phyid);
                             }};

    EmbeddedPlane() { plane.start(sink); }

    Lines after(Duration time) {
        test::run_for(loop, clock, time);
        return sink.take();
    }
};

TEST_F(EmbeddedPlane, AnswersATickLater) {
    plane.reserve(1, ForwardingDriver::Table::kAcl);
    plane.reserve(2, ForwardingDriver::Table::kEntry);
    plane.install(3, 1, kPortRule);
    EXPECT_EQ(after(milliseconds(999)), Lines{});
    EXPECT_TRUE(plane.port_rules().empty());
    EXPECT_EQ(after(milliseconds(1)), (Lines{"done 1", "done 2", "done 3"}));
    ASSERT_EQ(plane.port_rules().size(), 1u);
    EXPECT_EQ(plane.port_rules().at(1).meter->rate_pps, 1000u);
    EXPECT_FALSE(plane.has_switch_rule());
}

TEST_F(EmbeddedPlane, RuleOfTheWholeSwitch) {
    plane.install(3, std::nullopt, {.ethertype = 0x8847, .meter = {}});
    EXPECT_FALSE(plane.has_switch_rule()) << "not installed yet";
    EXPECT_EQ(after(seconds(1)), (Lines{"done 3"}));
    EXPECT_TRUE(plane.has_switch_rule());
    EXPECT_TRUE(plane.port_rules().empty());
    plane.remove(3);
    EXPECT_FALSE(plane.has_switch_rule());
}

TEST_F(EmbeddedPlane, UnknownPortIsRefused) {
    plane.fail_next(EmbeddedForwarding::Request::kApply, EIO);
    plane.install(3, 9, kPortRule);
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 3 19"}));
    plane.install(4, 1, kPortRule);
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 4 5"})) << "the failure was for a good request";
}

TEST_F(EmbeddedPlane, RequestsWithinOneTickAreAnsweredAtItsEnd) {
    plane.reserve(1, ForwardingDriver::Table::kAcl);
    after(milliseconds(600));
    plane.reserve(2, ForwardingDriver::Table::kEntry);
    EXPECT_EQ(after(milliseconds(400)), (Lines{"done 1", "done 2"}));
}

TEST_F(EmbeddedPlane, CountersAreReportedBeforeTheAnswers) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 100);
    plane.reserve(1, ForwardingDriver::Table::kAcl);
    EXPECT_EQ(after(seconds(1)), (Lines{"counted 3 100 6400", "done 1"}));
}

TEST_F(EmbeddedPlane, RuleRemovedInsideAReportIsNotReported) {
    plane.install(3, 1, kPortRule);
    plane.install(4, 2, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 100);
    plane.set_rate(2, 100);
    sink.on_count = [this] {
        plane.remove(4);
    };
    EXPECT_EQ(after(seconds(1)), (Lines{"counted 3 100 6400"}));
}

TEST_F(EmbeddedPlane, LaterRuleReplacesAnEarlierOne) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    ForwardingRule faster = kPortRule;
    faster.meter->rate_pps = 2000;
    plane.install(4, 1, faster);
    EXPECT_EQ(after(seconds(1)), (Lines{"done 4"}));
    EXPECT_EQ(plane.port_rules().at(1).meter->rate_pps, 2000u);
    plane.lose_rule(1, EIO);
    EXPECT_EQ(sink.take(), (Lines{"failed 4 5"}));
}

TEST_F(EmbeddedPlane, CountsOnceASecond) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 300);
    EXPECT_EQ(after(seconds(3)),
              (Lines{"counted 3 300 19200", "counted 3 300 19200", "counted 3 300 19200"}));
    plane.set_rate(1, 0);
    EXPECT_EQ(after(seconds(2)), Lines{});
}

TEST_F(EmbeddedPlane, RateChangesAreCountedToTheMoment) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 1000);
    after(milliseconds(250));
    plane.set_rate(1, 100);
    EXPECT_EQ(after(milliseconds(750)), (Lines{"counted 3 325 20800"}));
}

TEST_F(EmbeddedPlane, PartsOfFramesAreKept) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 1);
    after(milliseconds(600));
    plane.set_rate(1, 1);
    EXPECT_EQ(after(milliseconds(400)), (Lines{"counted 3 1 64"}));
}

TEST_F(EmbeddedPlane, TrafficBeforeTheRuleIsNotCounted) {
    plane.set_rate(1, 500);
    after(seconds(10));
    plane.install(3, 1, kPortRule);
    EXPECT_EQ(after(seconds(1)), (Lines{"done 3"}));
    EXPECT_EQ(after(seconds(1)), (Lines{"counted 3 500 32000"}));
}

TEST_F(EmbeddedPlane, RuleWithoutCounterReportsNothing) {
    ForwardingRule rule = kPortRule;
    rule.counted = false;
    plane.install(3, 1, rule);
    plane.set_rate(1, 500);
    EXPECT_EQ(after(seconds(3)), (Lines{"done 3"}));
}

TEST_F(EmbeddedPlane, EveryPortIsCountedForItself) {
    plane.install(3, 1, kPortRule);
    plane.install(4, 2, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 10);
    plane.set_rate(2, 20);
    EXPECT_EQ(after(seconds(1)), (Lines{"counted 3 10 640", "counted 4 20 1280"}));
}

TEST_F(EmbeddedPlane, MeterLetsBurstAndRatePass) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 10000);
    after(seconds(1));
    EXPECT_EQ(plane.traffic(1).counted, 10000u);
    EXPECT_EQ(plane.traffic(1).passed, 1500u);
    EXPECT_EQ(plane.traffic(1).dropped, 8500u);
    after(seconds(1));
    EXPECT_EQ(plane.traffic(1).passed, 2500u);
    EXPECT_EQ(plane.traffic(1).dropped, 17500u);
}

TEST_F(EmbeddedPlane, MeterStartsWithItsWholeBurst) {
    plane.set_rate(1, 10000);
    plane.install(3, 1, kPortRule);
    after(seconds(2));
    EXPECT_EQ(plane.traffic(1).counted, 10000u);
    EXPECT_EQ(plane.traffic(1).passed, 1500u);
}

TEST_F(EmbeddedPlane, TrafficIsThatOfThisMoment) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 100);
    after(milliseconds(500));
    EXPECT_EQ(plane.traffic(1).counted, 50u);
}

TEST_F(EmbeddedPlane, MeterDropsNothingUnderItsRate) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.set_rate(1, 900);
    after(seconds(5));
    EXPECT_EQ(plane.traffic(1).counted, 4500u);
    EXPECT_EQ(plane.traffic(1).dropped, 0u);
}

TEST_F(EmbeddedPlane, RemovedRuleIsSilent) {
    plane.set_rate(1, 100);
    plane.install(3, 1, kPortRule);
    plane.remove(3);
    EXPECT_EQ(after(seconds(3)), Lines{});
    plane.install(4, 1, kPortRule);
    after(seconds(2));
    plane.remove(4);
    plane.remove(4);
    EXPECT_EQ(after(seconds(3)), Lines{});
    EXPECT_EQ(plane.traffic(1).counted, 0u);
    EXPECT_TRUE(plane.port_rules().empty());
}

TEST_F(EmbeddedPlane, EachKindOfRequestCanFail) {
    plane.fail_next(EmbeddedForwarding::Request::kAcl, ENOSPC);
    plane.fail_next(EmbeddedForwarding::Request::kEntry, ENOMEM, 2);
    plane.fail_next(EmbeddedForwarding::Request::kApply, EIO);
    plane.reserve(1, ForwardingDriver::Table::kAcl);
    plane.reserve(2, ForwardingDriver::Table::kAcl);
    plane.reserve(3, ForwardingDriver::Table::kEntry);
    plane.reserve(4, ForwardingDriver::Table::kEntry);
    plane.reserve(5, ForwardingDriver::Table::kEntry);
    plane.install(6, 1, kPortRule);
    plane.install(7, 2, kPortRule);
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 1 28", "done 2", "failed 3 12", "failed 4 12",
                                        "done 5", "failed 6 5", "done 7"}));
    EXPECT_EQ(plane.port_rules().size(), 1u);
}

TEST_F(EmbeddedPlane, FailuresOfOneKindAreTakenInOrder) {
    plane.fail_next(EmbeddedForwarding::Request::kAcl, ENOSPC);
    plane.fail_next(EmbeddedForwarding::Request::kAcl, ENOMEM);
    for (const ForwardingId id : {1u, 2u, 3u}) {
        plane.reserve(id, ForwardingDriver::Table::kAcl);
    }
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 1 28", "failed 2 12", "done 3"}));
}

TEST_F(EmbeddedPlane, LateAnswersAreGivenWithoutAnyRule) {
    plane.delay_answers(3);
    plane.reserve(1, ForwardingDriver::Table::kAcl);
    EXPECT_EQ(after(seconds(3)), Lines{});
    EXPECT_EQ(after(seconds(1)), (Lines{"done 1"}));
}

TEST_F(EmbeddedPlane, AnswersCanBeDelayed) {
    plane.delay_answers(3);
    plane.fail_next(EmbeddedForwarding::Request::kApply, EIO);
    plane.install(3, 1, kPortRule);
    plane.delay_answers(0);
    plane.reserve(4, ForwardingDriver::Table::kAcl);
    EXPECT_EQ(after(seconds(1)), (Lines{"done 4"}));
    EXPECT_EQ(after(seconds(2)), Lines{});
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 3 5"}));
}

TEST_F(EmbeddedPlane, RuleCanBeLost) {
    plane.install(3, 1, kPortRule);
    after(seconds(1));
    plane.lose_rule(2, EIO);
    plane.lose_rule(1, EIO);
    EXPECT_EQ(sink.take(), (Lines{"failed 3 5"}));
    EXPECT_TRUE(plane.port_rules().empty());
}

TEST_F(EmbeddedPlane, RunsDryAfterARuleThatFailed) {
    plane.fail_next(EmbeddedForwarding::Request::kApply, EIO);
    plane.install(3, 1, kPortRule);
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 3 5"}));
    EXPECT_FALSE(loop.next_timer().has_value());
}

TEST_F(EmbeddedPlane, RunsDryWithoutRules) {
    plane.install(3, 1, kPortRule);
    after(seconds(5));
    EXPECT_TRUE(loop.next_timer().has_value());
    plane.remove(3);
    after(seconds(1));
    EXPECT_FALSE(loop.next_timer().has_value());
}

}  // namespace
}  // namespace qv
