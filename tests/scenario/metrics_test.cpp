// The figures of a whole agent while loops come and go.
#include "platform/base/metrics.h"

#include <gtest/gtest.h>

#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

class MetricsOfAgent : public testing::Test {
 protected:
    MetricsOfAgent() {
        rig.type({"configure terminal", "loop-detect shutdown-recover-time 90", "end"});
        rig.set_policy("shutdown access-mode");
    }
    ~MetricsOfAgent() override { use_metrics(nullptr); }

    static SwitchRig::Options with_metrics(Metrics& figures) {
        SwitchRig::Options options;
        options.prepare = [&figures] {
            use_metrics(&figures);
        };
        return options;
    }

    uint64_t reactions() const {
        uint64_t total = 0;
        for (size_t bucket = 0; bucket <= figures.reaction.bounds_s().size(); bucket++) {
            total += figures.reaction.count(bucket);
        }
        return total;
    }

    Metrics figures;
    SwitchRig rig{with_metrics(figures)};
};

TEST_F(MetricsOfAgent, ProbedLoopIsCountedFromTheReportToTheEnd) {
    EXPECT_EQ(figures.looped_ports, 0U);
    rig.type("test loop plug swp3 swp7");
    rig.advance(1s);
    EXPECT_EQ(figures.loops_by_probe, 2U);
    EXPECT_EQ(figures.loops_by_storm, 0U);
    EXPECT_EQ(figures.looped_ports, 2U);
    EXPECT_EQ(figures.held_ports, 2U);
    EXPECT_EQ(figures.shutdowns, 2U);
    EXPECT_EQ(figures.recoveries, 0U);
    EXPECT_EQ(reactions(), 2U);
    EXPECT_EQ(figures.reaction.count(0), 2U) << "the clock stands still meanwhile";

    rig.type("test loop unplug swp3 swp7");
    rig.advance(90s);
    EXPECT_EQ(figures.held_ports, 0U);
    EXPECT_EQ(figures.recoveries, 2U);
    rig.advance(60s);
    EXPECT_EQ(figures.looped_ports, 0U);
    EXPECT_EQ(figures.loops_by_probe, 2U);
    EXPECT_EQ(figures.shutdowns, 2U);
    EXPECT_GT(figures.turn.sum_s(), 0);
}

TEST_F(MetricsOfAgent, StormIsCountedAsTheSourceAndHasNoReactionTime) {
    rig.type("test storm swp1 10000");
    rig.advance(15s);
    EXPECT_EQ(figures.loops_by_storm, 1U);
    EXPECT_EQ(figures.loops_by_probe, 0U);
    EXPECT_EQ(figures.looped_ports, 1U);
    EXPECT_EQ(figures.held_ports, 1U);
    EXPECT_EQ(figures.shutdowns, 1U);
    EXPECT_EQ(reactions(), 0U);
}

TEST_F(MetricsOfAgent, RepeatedReportCountsNothingTwice) {
    rig.report(4, 1, 4);
    rig.advance(0s);
    rig.report(4, 1, 4);
    rig.advance(0s);
    EXPECT_EQ(figures.loops_by_probe, 1U);
    EXPECT_EQ(figures.looped_ports, 1U);
    EXPECT_EQ(figures.shutdowns, 1U);
    EXPECT_EQ(reactions(), 1U);
}

TEST_F(MetricsOfAgent, RefusedShutdownIsCountedAsRefused) {
    rig.type("test refuse no-way");
    rig.report(4, 1, 4);
    rig.advance(0s);
    EXPECT_EQ(figures.shutdowns, 0U);
    EXPECT_EQ(figures.held_ports, 0U);
}

TEST_F(MetricsOfAgent, OperatorsShutdownIsNotTheAgents) {
    rig.type(
        {"configure terminal", "interface swp2", "shutdown", "no shutdown", "shutdown", "end"});
    EXPECT_EQ(figures.shutdowns, 0U);
    EXPECT_EQ(figures.recoveries, 0U);
    EXPECT_EQ(figures.held_ports, 0U);
}

TEST_F(MetricsOfAgent, LossOfADatabaseAndItsReturnAreCounted) {
    rig.report(4, 1, 4);
    rig.advance(1s);
    EXPECT_EQ(figures.databases_away, 0U);
    EXPECT_EQ(figures.database_reconnects, 0U);
    rig.type("test database drop 4");
    EXPECT_EQ(figures.databases_away, 1U);
    rig.type("test database restore 4");
    EXPECT_EQ(figures.databases_away, 0U);
    EXPECT_EQ(figures.database_reconnects, 1U);
}

}  // namespace
}  // namespace qv::test
