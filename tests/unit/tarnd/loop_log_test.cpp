// Log lines about ports that loop again and again, as the service makes them.
#include "tests/unit/tarnd/service_rig.h"

namespace qv::tarnd {
namespace {

using test::ServiceRig;
using Lines = std::vector<std::string>;
using std::chrono::seconds;

constexpr uint32_t kPort = 1000007, kOther = 1000008;  // no interfaces of this machine

Report about_loop(Report::Kind kind, uint32_t ifx) {
    return {.kind = kind, .ifx = ifx, .src_ifx = ifx, .path = std::chrono::microseconds(40)};
}
std::string loop_line(uint32_t ifx) {
    const std::string port = "interface " + std::to_string(ifx);
    return "TARN-4-LOOP: " + port + " receives what " + port +
           " sends: a loop, found by a periodic probe, 40 us long.";
}
std::string end_line(uint32_t ifx) {
    return "TARN-6-END: The loop of interface " + std::to_string(ifx) + " has ended.";
}

struct LoopLogOfAPort : testing::Test {
    LoopLogOfAPort() { rig.take_log(); }

    void begin(uint32_t ifx = kPort) { rig.report({about_loop(Report::Kind::kLoop, ifx)}); }
    void end(uint32_t ifx = kPort) { rig.report({about_loop(Report::Kind::kEnd, ifx)}); }
    void pass(seconds time) { rig.platform.run_for(time); }

    ServiceRig rig;
};

TEST_F(LoopLogOfAPort, FirstLoopIsLoggedAsItComes) {
    begin();
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort}});
    EXPECT_EQ(rig.take_log(),
              (Lines{loop_line(kPort),
                     "TARN-4-CUT: interface 1000007 was taken out of service to end a loop."}));
    end();
    EXPECT_EQ(rig.take_log(), Lines{end_line(kPort)});
    pass(seconds(3600));
    EXPECT_EQ(rig.take_log(), Lines{}) << "no sum";
}

TEST_F(LoopLogOfAPort, EndOfALongLoopIsLoggedAtOnce) {
    begin();
    pass(seconds(3600));
    rig.take_log();
    end();
    EXPECT_EQ(rig.take_log(), Lines{end_line(kPort)});
}

TEST_F(LoopLogOfAPort, LoopsThatFollowAreSummedUp) {
    begin();
    end();
    rig.take_log();
    for (int i = 0; i < 37; ++i) {
        pass(seconds(10));
        begin();
        end();
    }
    EXPECT_EQ(rig.take_log(), Lines{});
    pass(seconds(229));
    EXPECT_EQ(rig.take_log(), Lines{});
    pass(seconds(1));
    EXPECT_EQ(rig.take_log(), (Lines{"TARN-4-REPEATED: interface 1000007 looped 37 more times in "
                                     "600 s. The last line about it follows.",
                                     end_line(kPort)}));
}

TEST_F(LoopLogOfAPort, LoopThatStaysIsTheLastLine) {
    begin();
    end();
    pass(seconds(10));
    begin();
    rig.take_log();
    pass(seconds(590));
    EXPECT_EQ(rig.take_log(), (Lines{"TARN-4-REPEATED: interface 1000007 looped 1 more time in "
                                     "600 s. The last line about it follows.",
                                     loop_line(kPort)}));
    pass(seconds(100));
    end();
    EXPECT_EQ(rig.take_log(), Lines{});
    pass(seconds(500));
    EXPECT_EQ(rig.take_log(), Lines{end_line(kPort)}) << "its end, without a sum";
}

TEST_F(LoopLogOfAPort, PortThatWasQuietForAPeriodBeginsAnew) {
    begin();
    end();
    begin();
    end();
    pass(seconds(600));
    pass(seconds(599));
    rig.take_log();
    begin();
    end();
    EXPECT_EQ(rig.take_log(), Lines{}) << "not yet a whole period";
    pass(seconds(1));
    EXPECT_EQ(rig.take_log().size(), 2U);
    pass(seconds(600));
    begin();
    EXPECT_EQ(rig.take_log(), Lines{loop_line(kPort)});
}

TEST_F(LoopLogOfAPort, OtherPortsHaveTheirOwn) {
    begin();
    end();
    begin();
    end();
    rig.take_log();
    begin(kOther);
    EXPECT_EQ(rig.take_log(), Lines{loop_line(kOther)});
}

TEST_F(LoopLogOfAPort, FaultsAreLoggedAtOnce) {
    begin();
    end();
    begin();
    rig.take_log();
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort, .error = EPERM}});
    EXPECT_EQ(rig.take_log(),
              Lines{"TARN-3-CUT: interface 1000007 cannot be cut: Operation not permitted."});
}

TEST_F(LoopLogOfAPort, NothingIsLostWhenTheProcessEnds) {
    for (const uint32_t ifx : {kPort, kOther}) {
        begin(ifx);
        end(ifx);
        begin(ifx);
        end(ifx);
    }
    rig.take_log();
    pass(seconds(25));
    rig.service.close();
    EXPECT_EQ(rig.take_log(), (Lines{"TARN-4-REPEATED: interface 1000007 looped 1 more time in "
                                     "25 s. The last line about it follows.",
                                     end_line(kPort),
                                     "TARN-4-REPEATED: interface 1000008 looped 1 more time in "
                                     "25 s. The last line about it follows.",
                                     end_line(kOther)}));
}

TEST_F(LoopLogOfAPort, LoopInASecondVlanIsNoFurtherLoop) {
    begin();
    Report second = about_loop(Report::Kind::kLoop, kPort);
    second.src_vid = 20;
    second.vid = 20;
    rig.take_log();
    rig.report({second});
    EXPECT_EQ(rig.take_log().size(), 1U) << "logged as it comes";
}

}  // namespace
}  // namespace qv::tarnd
