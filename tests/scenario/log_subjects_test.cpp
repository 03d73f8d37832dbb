// The subjects of the agent's messages, for a structured log.
#include <gtest/gtest.h>

#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

TEST(LogSubjects, LoopOfAProbeHasItsPortsAndSource) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 5);
    EXPECT_EQ(rig.take_subjects(),
              (Lines{"ERROR port=swp3 source=tarn cause=", "ERROR port=swp5 source=tarn cause="}));
    rig.report(3, 0, 5);
    rig.advance(60s);
    EXPECT_EQ(rig.take_subjects(),
              (Lines{"RECOVER port=swp3 source= cause=", "RECOVER port=swp5 source= cause="}));
}

TEST(LogSubjects, LoopOfAStormHasItsPortAndSource) {
    SwitchRig rig;
    rig.set_policy("");
    rig.advance(5s);
    rig.type("test storm swp1 100000");
    rig.advance(30s);
    EXPECT_EQ(rig.take_subjects(), Lines{"ERROR port=swp1 source=storm cause="});
}

TEST(LogSubjects, OtherMessagesOfTheAgentHaveNone) {
    SwitchRig rig;
    rig.type({"configure terminal", "interface swp1", "loop-detect apply shutdown-port", "end"});
    rig.trace();
    rig.type("show loop-detect");
    EXPECT_FALSE(rig.take_log().empty());
    EXPECT_EQ(rig.take_subjects(), Lines{});
}

}  // namespace
}  // namespace qv::test
