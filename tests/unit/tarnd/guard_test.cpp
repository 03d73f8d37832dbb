// The guard at link-up: the judgement, and the flags of a port.
#include <gtest/gtest.h>
#include <sodium.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "services/tarnd/port_control.h"
#include "services/tarnd/prober.h"

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

struct Hands final : ProberOutputs {
    bool send(uint32_t ifx, uint16_t /*vid*/, const Frame& frame) override {
        sent.emplace_back(ifx, frame);
        return true;
    }
    int cut(uint32_t ifx, bool) override {
        lines.push_back("cut " + std::to_string(ifx));
        return 0;
    }
    int guard(uint32_t ifx, bool close) override {
        lines.push_back((close ? "close " : "open ") + std::to_string(ifx));
        return result;
    }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kLoop) {
            lines.push_back("loop " + std::to_string(report.ifx));
        } else if (report.kind == Report::Kind::kGuard && report.error != 0) {
            lines.push_back("error " + std::to_string(report.error));
        }
        return true;
    }

    std::vector<std::pair<uint32_t, Frame>> sent;
    Lines lines;
    int result = 0;
};

struct GuardTest : testing::Test {
    GuardTest() {
        EXPECT_GE(sodium_init(), 0);
        prober.configure({.enabled = true}, now);
        prober.configure_port(1, true, false, now);
        prober.set_port(1, true, now);
        prober.configure_port(2, true, false, now, {.guard = milliseconds(30)});
    }

    // Lets time pass; what leaves port 2 comes back on port 1 if `looped`.
    void pass(Duration time, bool looped = false) {
        const Time end = now + time;
        while (prober.next() <= end) {
            now = std::max(now, prober.next());
            prober.run(now);
            for (const auto& [ifx, frame] : std::exchange(hands.sent, {})) {
                from_2 += ifx == 2 ? 1 : 0;
                if (looped && ifx == 2) {
                    prober.received(1, frame, now);
                }
            }
        }
        now = end;
    }
    Lines take_lines() { return std::exchange(hands.lines, {}); }

    Time now{seconds(5000)};
    Hands hands;
    int from_2 = 0;
    Prober prober{{.bridge = 1, .source = {}, .key = {}, .first_sequence = 1}, hands};
};

TEST_F(GuardTest, AnInnocentPortIsOpenedAfterItsProbes) {
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    pass(seconds(5));
    EXPECT_EQ(take_lines(), Lines{});
    prober.set_port(2, true, now);
    pass(milliseconds(29));
    EXPECT_EQ(take_lines(), Lines{});
    EXPECT_GE(from_2, 3);
    pass(milliseconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
    pass(seconds(5));
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(GuardTest, InALongTimeThereIsAProbeInEachInterval) {
    prober.configure_port(2, true, false, now, {.guard = seconds(60)});
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass(milliseconds(59'999));
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    EXPECT_GE(from_2, 60);
    pass(milliseconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(GuardTest, ALoopThatIsClosedLateInALongTimeIsFound) {
    prober.configure_port(2, true, false, now, {.guard = seconds(60)});
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass(seconds(57));
    pass(seconds(10), true);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "loop 1"}));
}

TEST_F(GuardTest, ALoopedPortStaysClosedUntilTheLoopHasEnded) {
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass(seconds(3), true);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "loop 1"}));
    pass(milliseconds(3000));
    EXPECT_EQ(take_lines(), Lines{});
    pass(milliseconds(1200));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(GuardTest, ALoopThatEndsByItsIntervalOnlyIsNotOpened) {
    prober.configure({.enabled = true, .recover = seconds(30)}, now);
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass(seconds(29), true);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "loop 1"}));
    pass(seconds(10), true);
    EXPECT_EQ(take_lines(), Lines{"loop 1"});
}

TEST_F(GuardTest, APortThatForwardsAlreadyIsLeftAlone) {
    prober.set_port(2, true, now);
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{});
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), Lines{"close 2"});
}

TEST_F(GuardTest, WithoutTheGuardOrTheServiceThePortIsOpen) {
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    prober.configure_port(2, true, false, now);
    EXPECT_EQ(take_lines(), Lines{"open 2"});
    prober.configure_port(2, true, false, now, {.guard = milliseconds(30)});
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    prober.configure({.enabled = false}, now);
    EXPECT_EQ(take_lines(), Lines{"open 2"});
    prober.configure({.enabled = true}, now);
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    prober.remove_port(2);
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(GuardTest, AnOpeningThatFailsIsTriedAgain) {
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    hands.result = ENOBUFS;
    pass(milliseconds(150));
    EXPECT_EQ(take_lines(), (Lines{"close 2", "open 2", "error 105", "open 2", "error 105"}));
    hands.result = 0;
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(GuardTest, AnOpeningThatFailsIsTriedAgainWithoutProbing) {
    prober.set_port(2, false, now);
    hands.result = ENOBUFS;
    prober.configure({.enabled = false}, now);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "open 2", "error 105"}));
    hands.result = 0;
    pass(milliseconds(99));
    EXPECT_EQ(take_lines(), Lines{});
    pass(milliseconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(GuardTest, APortThatLeavesTheBridgeClosedIsOpenedAtLast) {
    for (const bool watched : {true, false}) {
        prober.configure_port(2, true, false, now, {.guard = milliseconds(30)});
        prober.set_port(2, false, now);
        hands.result = EPERM;
        prober.configure_port(2, watched, false, now);
        prober.remove_port(2);
        pass(milliseconds(150));
        hands.result = 0;
        take_lines();
        pass(milliseconds(100));
        EXPECT_EQ(take_lines(), Lines{"open 2"});
        pass(seconds(1));
        EXPECT_EQ(take_lines(), Lines{});
    }
}

TEST_F(GuardTest, APortThatAnEarlierProcessHasLeftClosedIsOpened) {
    prober.take_closed(3, now);
    hands.result = ENOBUFS;
    pass(milliseconds(50));
    EXPECT_EQ(take_lines(), (Lines{"open 3", "error 105"}));
    prober.configure_port(3, false, false, now);  // not in the bridge yet
    EXPECT_EQ(take_lines(), (Lines{"open 3", "error 105"}));
    hands.result = 0;
    pass(milliseconds(100));
    EXPECT_EQ(take_lines(), Lines{"open 3"});
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(GuardTest, APortThatMayBeClosedIsOpened) {
    hands.result = EIO;
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "error 5"}));
    hands.result = 0;
    prober.set_port(2, true, now);
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(GuardTest, APortThatCannotBeClosedForwardsAtOnce) {
    hands.result = EPERM;
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass(seconds(1));
    EXPECT_EQ(take_lines(), (Lines{"close 2", "error 1"}));
}

TEST(PortFlags, OpeningGivesBackWhatThePortHadAndKeepsWhatOthersHaveSet) {
    const PortFlags former{.locked = 0, .learning = 1, .flood = 0, .mcast_flood = 1};
    EXPECT_EQ(opened(kClosed, former), former);
    PortFlags present = kClosed;
    present.flood = 1;
    PortFlags expected = former;
    expected.flood = 1;
    EXPECT_EQ(opened(present, former), expected);
    // Left its bridge and came back: nothing is as closing left it.
    EXPECT_EQ(opened(PortFlags{}, kClosed), PortFlags{});
}

TEST(PortFlags, FitIntoOneNumber) {
    for (uint32_t number = 0; number < 32; ++number) {
        EXPECT_EQ(pack(unpack(number)), number);
    }
    EXPECT_EQ(unpack(pack(PortFlags{})), PortFlags{});
    EXPECT_EQ(unpack(pack(kClosed)), kClosed);
    EXPECT_NE(pack(PortFlags{}), pack(kClosed));
}

}  // namespace
}  // namespace qv::tarnd
