// A loop on the switch, from the cable to the recovery.
#include <gtest/gtest.h>

#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

TEST(Loop, PluggedCableShutsBothPortsUntilTheRecoveryTimeEnds) {
    SwitchRig rig;
    EXPECT_EQ(rig.type({"configure terminal", "loop-detect enable shutdown access-mode",
                        "loop-detect shutdown-recover-time 90", "end"}),
              "");
    rig.take_log();
    EXPECT_EQ(rig.type("test loop plug swp3 swp7"), "");
    rig.advance(1s);
    EXPECT_EQ(rig.take_log(),
              (Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3.",
                     "LOOP_DETECT-3-ERROR: Detected loop error on interface swp7."}));
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    EXPECT_EQ(rig.store().keys(4, "p_app.lda_loop_entry/*"),
              (Lines{"p_app.lda_loop_entry/name=swp3", "p_app.lda_loop_entry/name=swp7"}));

    rig.type("test loop unplug swp3 swp7");
    rig.advance(90s);
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(),
              (Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error.",
                     "LOOP_DETECT-3-RECOVER: Interface swp7 recovered from loop error."}));
    EXPECT_EQ(rig.store().keys(4, "p_app.lda_loop_entry/*"), Lines{});
}

}  // namespace
}  // namespace qv::test
