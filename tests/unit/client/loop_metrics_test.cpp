#include "platform/client/loop_metrics.h"

#include <gtest/gtest.h>

#include <vector>

#include "p_app.pb-c.h"
#include "platform/base/metrics.h"
#include "platform/client/own_records.h"
#include "tests/support/store_fixture.h"
#include "tests/unit/client/ports_rig.h"

namespace {

using namespace std::chrono_literals;

class LoopMetrics : public testing::Test {
 protected:
    LoopMetrics() {
        qv::use_metrics(&figures);
        rig.model.port_added(PortsRig::port(4));
        rig.model.port_added(PortsRig::port(5));
    }
    ~LoopMetrics() override { qv::use_metrics(nullptr); }

    void report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx, bool deleted = false) {
        const store_test::LoopInfo info(ifx, 1, is_loop, src_ifx);
        const qv::RecordDelivery delivery(*info.record(), deleted);
    }
    void pass(qv::Duration time) { rig.platform.manual_clock.advance(time); }

    // How many reactions were measured, and their sum.
    using Measured = std::pair<uint64_t, double>;
    Measured measured() const {
        uint64_t total = 0;
        for (size_t bucket = 0; bucket <= figures.reaction.bounds_s().size(); bucket++) {
            total += figures.reaction.count(bucket);
        }
        return {total, figures.reaction.sum_s()};
    }

    qv::Metrics figures;
    PortsRig rig;
};

TEST_F(LoopMetrics, ReactionIsMeasuredForBothPortsOfAReport) {
    report(4, 1, 5);
    pass(2s);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(1, 2));
    report(4, 0, 5);
    pass(1s);
    qv::count_admin_line(5, false, true);
    EXPECT_EQ(measured(), Measured(2, 5));
    EXPECT_EQ(figures.shutdowns, 2U);
}

TEST_F(LoopMetrics, ReactionBeginsWithTheFirstOfSeveralReports) {
    report(4, 1, 4);
    pass(2s);
    report(4, 1, 4);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(1, 2));
}

TEST_F(LoopMetrics, OneReportIsMeasuredOnce) {
    report(4, 1, 4);
    qv::count_admin_line(4, false, true);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(1, 0));
    EXPECT_EQ(figures.shutdowns, 2U);
}

TEST_F(LoopMetrics, LineThatChangesNothingEndsTheReactionUnmeasured) {
    report(4, 1, 4);
    qv::count_admin_line(4, false, false);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(0, 0));
    EXPECT_EQ(figures.shutdowns, 1U);
}

TEST_F(LoopMetrics, RecoveryIsNoReaction) {
    report(4, 1, 4);
    qv::count_admin_line(4, true, true);
    EXPECT_EQ(measured(), Measured(0, 0));
    EXPECT_EQ(figures.recoveries, 1U);
    EXPECT_EQ(figures.shutdowns, 0U);
}

TEST_F(LoopMetrics, ReportOfMoreThanAMinuteAgoIsNotMeasured) {
    report(4, 1, 4);
    report(5, 1, 5);
    pass(60s);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(1, 60));
    pass(1ms);
    qv::count_admin_line(5, false, true);
    EXPECT_EQ(measured(), Measured(1, 60));
}

TEST_F(LoopMetrics, NewReportReplacesOneOfMoreThanAMinuteAgo) {
    report(4, 1, 4);
    pass(61s);
    report(4, 1, 4);
    pass(3s);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(1, 3));
}

TEST_F(LoopMetrics, EndsDeletesAndUnknownPortsBeginNoReaction) {
    report(4, 0, 4);
    report(4, 1, 4, true);
    report(6, 1, 6);
    qv::count_admin_line(4, false, true);
    qv::count_admin_line(6, false, true);
    EXPECT_EQ(measured(), Measured(0, 0));
}

TEST_F(LoopMetrics, PortsThatHaveLeftAreForgotten) {
    for (uint32_t ifx = 10; ifx < 30; ifx++) {
        rig.model.port_added(PortsRig::port(ifx));
        report(ifx, 1, ifx);
        rig.model.port_removed(ifx);
        pass(61s);
    }
    EXPECT_LE(qv::running_reactions(), 4U);
}

TEST_F(LoopMetrics, LoopEntryIsAttributedToTheReportBeingDelivered) {
    const std::string key = "p_app.lda_loop_entry/name=swp4";
    {
        const store_test::LoopInfo info(4, 1, 1, 4);
        const qv::RecordDelivery delivery(*info.record(), false);
        qv::count_own_record(key);
    }
    EXPECT_EQ(figures.loops_by_probe, 1U);
    EXPECT_EQ(figures.loops_by_storm, 0U);
    {
        const store_test::LoopEntry other("swp9", 1, true);
        const qv::RecordDelivery delivery(*other.record(), false);
        qv::count_own_record("p_app.lda_loop_entry/name=swp5");
    }
    EXPECT_EQ(figures.loops_by_probe, 1U);
    EXPECT_EQ(figures.loops_by_storm, 1U);
    EXPECT_EQ(figures.looped_ports, 2U);
    qv::discount_own_record(key);
    EXPECT_EQ(figures.looped_ports, 1U);
}

TEST_F(LoopMetrics, EntryThatIsSetAgainIsCountedOnce) {
    const std::string key = "p_app.lda_loop_entry/name=swp4";
    qv::own_records().set(nullptr, 4, key, {});
    qv::own_records().set(nullptr, 4, key, {});
    EXPECT_EQ(figures.looped_ports, 1U);
    EXPECT_EQ(figures.loops_by_storm, 1U);
    qv::own_records().erase(4, key);
    EXPECT_EQ(figures.looped_ports, 0U);
}

TEST_F(LoopMetrics, OtherRecordsAreNotCounted) {
    qv::count_own_record("p_app.lda_nc_policy/");
    qv::discount_own_record("p_bridge.tarn_loop_info/ifx=4");
    EXPECT_EQ(figures.looped_ports, 0U);
    EXPECT_EQ(figures.loops_by_storm, 0U);
}

TEST_F(LoopMetrics, NothingIsKeptWhileMetricsAreOff) {
    qv::use_metrics(nullptr);
    report(4, 1, 4);
    qv::count_own_record("p_app.lda_loop_entry/name=swp4");
    qv::count_admin_line(4, false, true);
    qv::count_refused_admin_line(false);
    qv::use_metrics(&figures);
    qv::count_admin_line(4, false, true);
    EXPECT_EQ(measured(), Measured(0, 0));
    EXPECT_EQ(figures.shutdowns, 1U);
}

}  // namespace
