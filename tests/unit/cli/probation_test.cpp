// "errdisable recovery probation ...": which ports are guarded at link-up, for how long, and until
// when.
#include "platform/cli/probation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "platform/cli/tarn_commands.h"
#include "tests/unit/cli/errdisable_fixture.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

class ProbationTest : public Errdisable {
 protected:
    ProbationTest() {
        g_setting = "loop-detect enable shutdown access-mode";
        cli::add_tarn_observer([this](uint64_t ifx) { told.push_back(ifx); });
        operator_types(101, "tarn port loop-detect warning");
        operator_types(101, "errdisable recovery probation 60");
        set_link(true);
        told.clear();
    }

    void set_link(bool up) {
        change(101, [up](Port& port) { port.oper_up = up; });
    }
    static int64_t guard() { return cli::link_up_guard_ms(101); }
    // The actions in the history of swp1, with their seconds.
    std::string story() const {
        std::string text;
        for (const cli::LoopEvent& event : held.events()) {
            if (event.port == "swp1" && event.action == cli::LoopAction::kProbation) {
                text += "probation " + std::to_string(event.duration->count()) + ";";
            }
        }
        return text;
    }

    std::vector<uint64_t> told;  // ports with a change that the probe service is told
};

TEST_F(ProbationTest, PortThatLoopDetectionHasNotShutHasNone) {
    EXPECT_EQ(guard(), 0);
    operator_types(101, "shutdown");
    EXPECT_EQ(guard(), 0);
    operator_types(101, "no shutdown");
    EXPECT_EQ(guard(), 0);
}

TEST_F(ProbationTest, BeginsWithTheShutdownAndEndsTwiceItsTimeAfterTheRecovery) {
    hold(101);
    EXPECT_EQ(guard(), 60'000);
    EXPECT_EQ(told, std::vector<uint64_t>{101});
    pass(1000s);
    EXPECT_EQ(guard(), 60'000);
    bring_back(101);
    ASSERT_TRUE(up(101));
    pass(119s);
    EXPECT_EQ(guard(), 60'000);
    told.clear();
    pass(1s);
    EXPECT_EQ(guard(), 0);
    EXPECT_EQ(told, std::vector<uint64_t>{101});
}

TEST_F(ProbationTest, WaitsForTheLink) {
    hold(101);
    bring_back(101);
    set_link(false);
    pass(1000s);
    EXPECT_EQ(guard(), 60'000);
    set_link(true);
    pass(100s);
    set_link(false);
    pass(100s);
    set_link(true);
    pass(119s);
    EXPECT_EQ(guard(), 60'000);
    pass(1s);
    EXPECT_EQ(guard(), 0);
}

TEST_F(ProbationTest, DoesNotEndWhileProbesSeeALoop) {
    hold(101);
    bring_back(101);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 1}, true);
    pass(1000s);
    EXPECT_EQ(guard(), 60'000);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 1}, false);
    pass(120s);
    EXPECT_EQ(guard(), 0);
}

TEST_F(ProbationTest, LineCountsWhileThePortIsHeldToo) {
    operator_types(101, "no errdisable recovery probation");
    hold(101);
    EXPECT_EQ(guard(), 0);
    told.clear();
    operator_types(101, "errdisable recovery probation 5");
    EXPECT_EQ(guard(), 5000);
    EXPECT_EQ(told, std::vector<uint64_t>{101});
    operator_types(101, "no errdisable recovery probation");
    EXPECT_EQ(guard(), 0);
}

TEST_F(ProbationTest, LongerGuardOfThePortCounts) {
    operator_types(101, "errdisable recovery probation 1");
    operator_types(101, "tarn link-up guard 500");
    EXPECT_EQ(guard(), 500);
    hold(101);
    EXPECT_EQ(guard(), 1000);
}

TEST_F(ProbationTest, HistoryTellsWhenThePortIsProbed) {
    hold(101);
    bring_back(101);
    EXPECT_EQ(story(), "") << "loop probes are off";
    operator_types(101, "end");
    rig.type("configure terminal");
    rig.type("tarn enable");
    rig.type("end");
    hold(101);
    bring_back(101);
    EXPECT_EQ(story(), "probation 60;");
}

TEST_F(ProbationTest, PortThatLeavesTakesItAway) {
    hold(101);
    rig.hardware.remove(101);
    rig.platform.run_ready();
    EXPECT_EQ(guard(), 0);
}

TEST_F(ProbationTest, LineIsShownAndItsLimitsAreKept) {
    operator_types(101, "errdisable recovery interval 600");
    hold(101);
    EXPECT_NE(row("show errdisable recovery", "swp1").find("interval 600, probation 60"),
              std::string::npos);
    EXPECT_NE(rig.type("show running-config").find(" errdisable recovery probation 60"),
              std::string::npos);
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    EXPECT_EQ(rig.type("errdisable recovery probation 0"), "% Number out of range: '0' (1-600).\n");
    EXPECT_EQ(rig.type("errdisable recovery probation 601"),
              "% Number out of range: '601' (1-600).\n");
    EXPECT_EQ(rig.type("errdisable recovery probation"), "% Incomplete command.\n");
    EXPECT_EQ(guard(), 60'000);
    EXPECT_EQ(rig.type("errdisable recovery probation 600"), "");
    EXPECT_EQ(guard(), 600'000);
}

}  // namespace
}  // namespace qv::test
