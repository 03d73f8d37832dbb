// The storm detector's session with database 8, lost and reopened.
#include <gtest/gtest.h>

#include "lda_main.h"
#include "storm_detect.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

// A switch that starts without the databases `away`.
SwitchRig::Options without(std::initializer_list<uint32_t> away) {
    SwitchRig::Options options;
    options.ports = 1;
    options.saved_configuration = "loop-detect enable\n";
    options.store_made = [list = std::vector<uint32_t>(away)](MemoryStore& store) {
        for (const uint32_t db : list) {
            store.drop(db);
        }
    };
    return options;
}

TEST(ForwardingSession, FirstConnectionMakesTheDetectorReadyDespiteALossBeforeReadiness) {
    SwitchRig rig(without({22, 8}));
    rig.trace();
    EXPECT_EQ(mom_storm_ready, 0);
    EXPECT_EQ(storm_udp_mgr, nullptr);
    rig.type("test database restore 8");
    EXPECT_EQ(rig.take_log(), traced({
                                  "<storm_mom_udp_db_connect> storm_mom_local_db_connect",
                                  "<lda_storm_ready> storm init ready",
                              }));
    EXPECT_EQ(mom_storm_ready, 1);
    EXPECT_NE(storm_udp_mgr, nullptr);

    rig.type("test database drop 8");
    EXPECT_EQ(rig.take_log(),
              traced({"<storm_mom_udp_db_disconnect> storm_mom_local_db_disconnect"}));
    EXPECT_EQ(mom_storm_ready, 1);
    rig.type("test database restore 8");
    EXPECT_EQ(rig.take_log(),
              traced({"<storm_mom_udp_db_reconnect> storm_mom_local_db_reconnect"}));
    EXPECT_EQ(cli_ready, 0);

    rig.type({"debug lda syslog level 0", "test database restore 22"});
    EXPECT_EQ(cli_ready, 1);
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
    EXPECT_EQ(storm_port_num, 1U);
}

TEST(ForwardingSession, LossBeforeReadinessDoesNotDelayIt) {
    SwitchRig rig(without({22}));
    rig.type({"test database drop 8", "test database restore 22"});
    EXPECT_EQ(cli_ready, 1);
    EXPECT_TRUE(rig.configured("loop-detect enable"));
}

TEST(ForwardingSession, LossAfterReadinessKeepsRulesAndAnnouncesNothing) {
    SwitchRig rig(without({}));
    ASSERT_EQ(storm_port_num, 1U);
    rig.trace();
    rig.type("test database drop 8");
    EXPECT_EQ(rig.take_log(),
              traced({"<storm_mom_udp_db_disconnect> storm_mom_local_db_disconnect"}));
    rig.type("test database restore 8");
    EXPECT_EQ(rig.take_log(),
              traced({"<storm_mom_udp_db_reconnect> storm_mom_local_db_reconnect"}));
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(storm_port_num, 1U);
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
}

TEST(ForwardingSession, StormIsStillFoundAfterALoss) {
    SwitchRig rig(without({}));
    rig.type({"test database drop 8", "test database restore 8", "test storm swp1 20000"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp1."});
    // The rule can still be removed and installed again.
    rig.type({"configure terminal", "interface swp1", "storm-loop-rate ratelimit 30000"});
    EXPECT_EQ(storm_port_num, 1U);
    rig.type("no storm-loop-detect enable");
    EXPECT_EQ(storm_port_num, 0U);
    EXPECT_EQ(rig.take_log(), Lines{});
}

}  // namespace
}  // namespace qv::test
