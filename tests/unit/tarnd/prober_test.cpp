#include "services/tarnd/prober.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

Prober::Identity identity() {
    Prober::Identity made{
        .bridge = 77, .source = {2, 0, 0, 0, 0, 1}, .key = {}, .first_sequence = 1000};
    made.key.fill(9);
    return made;
}

// Keeps the frames that ports send, and the reports as text.
struct Hands final : ProberOutputs {
    struct Sent {
        uint32_t ifx;
        Frame frame;
    };

    bool send(uint32_t ifx, uint16_t /*vid*/, const Frame& frame) override {
        if (send_result) {
            sent.push_back({ifx, frame});
        }
        return send_result;
    }
    int cut(uint32_t ifx, bool single) override {
        lines.push_back((single ? "cut single " : "cut ") + std::to_string(ifx));
        return cut_result;
    }
    int guard(uint32_t ifx, bool close) override {
        lines.push_back((close ? "close " : "open ") + std::to_string(ifx));
        return guard_result;
    }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kGuard) {
            return true;
        }
        if (deaf) {
            return false;
        }
        if (report.kind == Report::Kind::kPort) {
            port_reports.push_back(report);
            return true;
        }
        const char* const kinds[] = {"loop", "end", "was cut", "", "", "", "asked", "returned"};
        lines.push_back(std::string(kinds[static_cast<size_t>(report.kind)]) + " " +
                        std::to_string(report.ifx) + " from " + std::to_string(report.src_ifx));
        last = report;
        return true;
    }

    std::vector<Sent> sent;
    Lines lines;
    std::vector<Report> port_reports;
    Report last;
    int cut_result = 0;
    int guard_result = 0;
    bool send_result = true;
    bool deaf = false;
};

struct ProberTest : testing::Test {
    ProberTest() {
        EXPECT_GE(sodium_init(), 0);
        settings.enabled = true;
        prober.configure(settings, now);
    }

    // Ports 1 to `count`, watched and forwarding, after their first probes.
    void add_ports(uint32_t count, bool shuts = false) {
        for (uint32_t ifx = 1; ifx <= count; ++ifx) {
            prober.configure_port(ifx, true, shuts, now);
            prober.set_port(ifx, true, now);
        }
        prober.run(now);
        take_sent();
    }

    // Lets time pass, running the prober when it asks for it.
    void pass(Duration time) {
        const Time end = now + time;
        while (prober.next() <= end) {
            now = std::max(now, prober.next());
            prober.run(now);
        }
        now = end;
    }

    // The ports that have sent a frame each, in order.
    std::vector<uint32_t> take_sent() {
        std::vector<uint32_t> ports;
        for (const auto& sent : hands.sent) {
            ports.push_back(sent.ifx);
        }
        hands.sent.clear();
        return ports;
    }

    // One triggered frame of a port.
    Frame frame_of(uint32_t ifx) {
        pass(milliseconds(5));
        hands.sent.clear();
        prober.overrun(now);
        prober.run(now);
        for (const auto& sent : hands.sent) {
            if (sent.ifx == ifx) {
                return sent.frame;
            }
        }
        ADD_FAILURE() << "port " << ifx << " has not sent";
        return {};
    }

    // Passes time during which everything that `from` sends comes back on `to`.
    void pass_looped(uint32_t from, uint32_t to, Duration time) {
        const Time end = now + time;
        while (now < end) {
            pass(milliseconds(10));
            for (const auto& sent : std::exchange(hands.sent, {})) {
                if (sent.ifx == from) {
                    prober.received(to, sent.frame, now);
                }
            }
        }
    }

    Lines take_lines() { return std::exchange(hands.lines, {}); }

    Time now{seconds(5000)};
    Settings settings;
    Hands hands;
    Prober prober{identity(), hands};
};

TEST_F(ProberTest, ProbesEveryPortOnceInEachInterval) {
    add_ports(3);
    pass(seconds(1));
    EXPECT_EQ(take_sent().size(), 3u);
    pass(seconds(10));
    EXPECT_EQ(take_sent().size(), 30u);
}

TEST_F(ProberTest, PortsShareAFewTurnsThatAreSpreadOverTheInterval) {
    constexpr size_t kTurns = 8, kPorts = 512;
    for (const uint32_t distance : {1u, 2u, 3u}) {
        Prober many{identity(), hands};
        many.configure(settings, now);
        for (uint32_t n = 1; n <= kPorts; ++n) {
            many.configure_port(n * distance, true, false, now);
            many.set_port(n * distance, true, now);
            now += milliseconds(1);  // when a port comes up must not matter
        }
        std::map<Time, size_t> turns;
        const auto run_until = [&](Time end) {
            while (many.next() < end) {
                now = std::max(now, many.next());
                hands.sent.clear();
                many.run(now);
                turns[now] += hands.sent.size();
            }
            now = end;
        };
        run_until(now + seconds(1));  // the bursts of the new ports
        turns.clear();
        run_until(now + seconds(1));
        EXPECT_EQ(turns.size(), kTurns) << distance;
        for (const auto& [time, ports] : turns) {
            EXPECT_NEAR(static_cast<double>(ports), kPorts / kTurns, 2) << distance;
        }
    }
}

TEST_F(ProberTest, SendsNothingWhileDisabledOrUnwatchedOrBlocked) {
    add_ports(3);
    prober.configure_port(1, false, false, now);
    prober.set_port(2, false, now);
    pass(seconds(1));
    EXPECT_EQ(take_sent(), std::vector<uint32_t>{3});
    settings.enabled = false;
    prober.configure(settings, now);
    pass(seconds(5));
    EXPECT_EQ(take_sent(), std::vector<uint32_t>{});
    EXPECT_EQ(prober.next(), Time::max());
}

TEST_F(ProberTest, ProbesAtOnceWhenAPortBeginsToForward) {
    add_ports(2);
    prober.set_port(2, false, now);
    pass(milliseconds(5));
    take_sent();
    prober.set_port(2, true, now);
    prober.run(now);
    EXPECT_EQ(take_sent(), (std::vector<uint32_t>{2, 2}));
}

TEST_F(ProberTest, ProbesBothPortsWhenAnAddressMoves) {
    add_ports(3);
    pass(milliseconds(5));
    take_sent();
    EXPECT_FALSE(prober.learned(0x020000000001, 1, now));
    EXPECT_FALSE(prober.learned(0x020000000001, 1, now));
    prober.run(now);
    EXPECT_EQ(take_sent(), std::vector<uint32_t>{});
    EXPECT_TRUE(prober.learned(0x020000000001, 3, now));
    prober.run(now);
    EXPECT_EQ(take_sent(), (std::vector<uint32_t>{1, 1, 3, 3}));
}

TEST_F(ProberTest, OneBurstOfAPortInFiveMilliseconds) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(1);
    for (int n = 0; n < 99; ++n) {
        prober.overrun(now);
        pass(std::chrono::microseconds(100));
    }
    // In 9.9 ms, after the first probes of the port at their beginning.
    EXPECT_EQ(take_sent(), (std::vector<uint32_t>{1, 1}));
}

TEST_F(ProberTest, BurstsOfTheWholeSwitchAreLimited) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(1000);
    pass(seconds(20));
    take_sent();
    for (int n = 0; n < 100; ++n) {
        prober.overrun(now);
        pass(milliseconds(1));
    }
    // 256 at once and 2,000 a second, of two frames each, and periodic probes.
    const size_t frames = take_sent().size();
    EXPECT_GE(frames, 2 * 400u);
    EXPECT_LE(frames, 2 * (256u + 200u) + 20u);
}

TEST_F(ProberTest, FourThousandPortsKeepTheLimitsAndShareTheTurnsOfTheInterval) {
    constexpr uint32_t kPorts = 4096;
    for (uint32_t ifx = 1; ifx <= kPorts; ++ifx) {
        prober.configure_port(ifx, true, false, now);
        prober.set_port(ifx, true, now);
    }
    pass(seconds(4));  // the first bursts of all ports
    take_sent();
    // Periodic probes: an eighth of the ports in an eighth of the interval.
    std::vector<size_t> turns;
    for (int n = 0; n < 32; ++n) {
        pass(Duration(seconds(1)) / 8);
        turns.push_back(take_sent().size());
    }
    EXPECT_EQ(std::accumulate(turns.begin(), turns.end(), size_t{0}), 4 * kPorts);
    EXPECT_LE(*std::max_element(turns.begin(), turns.end()), kPorts / 8 + 1);
    // Lost announcements, again and again: the switch's limit holds.
    for (int n = 0; n < 100; ++n) {
        prober.overrun(now);
        pass(milliseconds(10));
    }
    const size_t frames = take_sent().size();
    EXPECT_LE(frames, 2 * (256u + 2000u) + kPorts);
    EXPECT_GE(frames, 2 * 1900u + kPorts);
}

TEST_F(ProberTest, PortsTakeTurnsWhileAStormAsksForMoreThanTheSwitchsRate) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(64);
    pass(seconds(20));
    std::map<uint32_t, size_t> frames;
    for (int n = 0; n < 600; ++n) {
        prober.overrun(now);
        pass(milliseconds(5));
        const bool settled = n >= 100;  // what may be sent at once is used up
        for (const uint32_t ifx : take_sent()) {
            frames[ifx] += settled ? 1 : 0;
        }
    }
    // In 2.5 s 5,000 bursts of two frames: about 78 for each port.
    ASSERT_EQ(frames.size(), 64u);
    for (const auto& [ifx, count] : frames) {
        EXPECT_GE(count, 2 * 65u) << "port " << ifx;
        EXPECT_LE(count, 2 * 90u) << "port " << ifx;
    }
}

TEST_F(ProberTest, APortThatLeavesWhileItWaitsForTheSwitchsRateIsPassedOver) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(1000);
    pass(seconds(20));
    take_sent();
    prober.overrun(now);
    prober.run(now);
    prober.remove_port(1000);
    prober.set_port(999, false, now);
    pass(seconds(1));
    const std::vector<uint32_t> sent = take_sent();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), 998), 2);
    EXPECT_EQ(std::count(sent.begin(), sent.end(), 999), 0);
    EXPECT_EQ(std::count(sent.begin(), sent.end(), 1000), 0);
}

// The work is counted in wake-ups and frames: both grow with the number of ports, no faster.
TEST_F(ProberTest, WorkGrowsNoFasterThanTheNumberOfPorts) {
    const auto work = [this](uint32_t first, uint32_t last) {
        for (uint32_t ifx = first; ifx <= last; ++ifx) {
            prober.configure_port(ifx, true, false, now);
            prober.set_port(ifx, true, now);
        }
        pass(seconds(4));
        take_sent();
        size_t runs = 0;
        const Time end = now + seconds(4);
        while (prober.next() <= end) {
            now = std::max(now, prober.next());
            prober.run(now);
            ++runs;
        }
        now = end;
        return std::pair(runs, take_sent().size());
    };
    const auto [few_runs, few_frames] = work(1, 512);
    const auto [many_runs, many_frames] = work(513, 4096);
    EXPECT_EQ(few_frames, 4 * 512u);
    EXPECT_EQ(many_frames, 4 * 4096u);
    EXPECT_LE(few_runs, 4 * (16u + 512u / Prober::kPortsPerRun));
    EXPECT_LE(many_runs, 4 * (16u + 4096u / Prober::kPortsPerRun));
}

TEST_F(ProberTest, AReturnedProbeProvesALoopOnce) {
    add_ports(2);
    const Frame frame = frame_of(1);
    prober.received(2, frame, now + std::chrono::microseconds(40));
    EXPECT_EQ(take_lines(), Lines{"loop 2 from 1"});
    EXPECT_EQ(hands.last.trigger, Trigger::kOverrun);
    EXPECT_EQ(hands.last.path, Duration(std::chrono::microseconds(40)));
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(ProberTest, APortThatIsNotWatchedLeavesTheReportToTheSender) {
    add_ports(2);
    prober.configure_port(2, false, false, now);
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(take_lines(), Lines{"loop 1 from 1"});
}

TEST_F(ProberTest, ABlockedPortIsNotBelieved) {
    add_ports(2);
    const Frame frame = frame_of(1);
    prober.set_port(2, false, now);
    prober.received(2, frame, now);
    prober.set_port(2, true, now);
    prober.set_port(1, false, now);
    prober.received(2, frame, now);
    EXPECT_EQ(take_lines(), Lines{});
    EXPECT_EQ(prober.ignored(Ignored::kBlocked), 2u);
    // The probe is older than the port's present link.
    prober.set_port(1, true, now);
    prober.received(2, frame, now);
    EXPECT_EQ(take_lines(), Lines{});
    EXPECT_EQ(prober.ignored(Ignored::kLate), 1u);
}

TEST_F(ProberTest, ReflectedLateIsCountedApart) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(2);
    const Frame early = frame_of(1);
    std::vector<Frame> frames;
    for (int n = 0; n < 33; ++n) {
        frames.push_back(frame_of(1));
        frames.push_back(frame_of(1));
    }
    // More than 64 others of the port have come back meanwhile.
    for (const Frame& frame : frames) {
        prober.received(2, frame, now);
    }
    prober.received(2, early, now);
    EXPECT_EQ(prober.ignored(Ignored::kLate), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kDuplicate), 0u);
    // Older than two seconds.
    prober.received(2, frames.back(), now + milliseconds(2001));
    EXPECT_EQ(prober.ignored(Ignored::kLate), 2u);
    EXPECT_EQ(prober.ignored(Ignored::kStale), 0u);
}

TEST_F(ProberTest, AProbeFromBeforeTheCutIsLate) {
    add_ports(2, true);
    const Frame from_1 = frame_of(1);
    const Frame from_2 = frame_of(2);
    prober.received(2, from_1, now);
    EXPECT_EQ(take_lines(), (Lines{"loop 2 from 1", "cut 2", "was cut 2 from 1"}));
    prober.received(1, from_2, now);
    EXPECT_EQ(prober.ignored(Ignored::kLate), 1u);
}

TEST_F(ProberTest, ForgedForeignOldAndRepeatedFramesAreCountedAndIgnored) {
    add_ports(2);
    const Frame frame = frame_of(1);
    Frame forged = frame;
    forged[40] ^= 1;
    prober.received(2, forged, now);
    prober.received(2, std::span(frame).first(63), now);
    Prober::Identity other = identity();
    other.bridge = 78;
    const Probe probe{.bridge = 78,
                      .ifx = 1,
                      .sequence = 1002,
                      .time_ns = static_cast<uint64_t>(now.time_since_epoch().count())};
    prober.received(2, encode(probe, other.source, other.key), now);
    prober.received(2, frame, now + seconds(3));
    prober.received(2, frame, now - milliseconds(1));
    EXPECT_EQ(take_lines(), Lines{});
    prober.received(2, frame, now);
    prober.received(2, frame, now);
    EXPECT_EQ(take_lines(), Lines{"loop 2 from 1"});
    EXPECT_EQ(prober.ignored(Ignored::kForged), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kMalformed), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kForeign), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kLate), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kStale), 1u);
    EXPECT_EQ(prober.ignored(Ignored::kDuplicate), 1u);
}

TEST_F(ProberTest, AProbeOfAnEarlierProcessIsOld) {
    add_ports(2);
    Prober::Identity earlier = identity();
    const Probe probe{.bridge = 77,
                      .ifx = 1,
                      .sequence = 1000,
                      .time_ns = static_cast<uint64_t>(now.time_since_epoch().count())};
    prober.received(2, encode(probe, earlier.source, earlier.key), now);
    EXPECT_EQ(take_lines(), Lines{});
    EXPECT_EQ(prober.ignored(Ignored::kStale), 1u);
}

TEST_F(ProberTest, ALoopLastsWhileProbesComeBackAndEndsAfterThreeSilentOnes) {
    add_ports(2);
    pass_looped(1, 2, seconds(20));
    EXPECT_EQ(take_lines(), Lines{"loop 2 from 1"});
    pass(milliseconds(3000));
    EXPECT_EQ(take_lines(), Lines{});
    pass(milliseconds(1100));
    EXPECT_EQ(take_lines(), Lines{"end 2 from 1"});
    pass(seconds(10));
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(ProberTest, ALoopEndsWhenEitherPortStopsForwardingOrGoes) {
    add_ports(3);
    prober.received(2, frame_of(1), now);
    prober.received(3, frame_of(3), now);
    take_lines();
    prober.set_port(1, false, now);
    EXPECT_EQ(take_lines(), Lines{"end 2 from 1"});
    prober.remove_port(3);
    EXPECT_EQ(take_lines(), Lines{"end 3 from 3"});
}

TEST_F(ProberTest, ALoopEndsAfterTheRecoveryIntervalAndIsFoundAgain) {
    settings.recover = seconds(30);
    prober.configure(settings, now);
    add_ports(2);
    pass_looped(1, 2, seconds(28));
    EXPECT_EQ(take_lines(), Lines{"loop 2 from 1"});
    pass_looped(1, 2, seconds(4));
    EXPECT_EQ(take_lines(), (Lines{"end 2 from 1", "loop 2 from 1"}));
}

TEST_F(ProberTest, AShuttingPolicyCutsOnePortOfTheLoop) {
    add_ports(2, true);
    const Frame from_1 = frame_of(1);
    const Frame from_2 = frame_of(2);
    prober.received(2, from_1, now);
    EXPECT_EQ(take_lines(), (Lines{"loop 2 from 1", "cut 2", "was cut 2 from 1"}));
    // The probe in the other direction of the same loop, still in flight.
    prober.received(1, from_2, now);
    EXPECT_EQ(take_lines(), Lines{});
}

TEST_F(ProberTest, ALoopBehindOnePortIsCutAsSuch) {
    add_ports(1, true);
    prober.received(1, frame_of(1), now);
    EXPECT_EQ(take_lines(), (Lines{"loop 1 from 1", "cut single 1", "was cut 1 from 1"}));
}

TEST_F(ProberTest, OnlyAPortThatThePolicyShutsIsCut) {
    add_ports(2, true);
    prober.configure_port(2, true, false, now);
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(take_lines(), (Lines{"loop 2 from 1", "cut 1", "was cut 1 from 1"}));
}

TEST_F(ProberTest, AFailedCutIsReported) {
    add_ports(2, true);
    hands.cut_result = EPERM;
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(hands.last.kind, Report::Kind::kCut);
    EXPECT_EQ(hands.last.error, EPERM);
}

TEST_F(ProberTest, ReportsThatAreNotTakenAreOfferedAgainInOrder) {
    add_ports(2);
    hands.deaf = true;
    prober.received(2, frame_of(1), now);
    prober.set_port(1, false, now);
    pass(seconds(1));
    EXPECT_EQ(take_lines(), Lines{});
    hands.deaf = false;
    pass(milliseconds(10));
    EXPECT_EQ(take_lines(), (Lines{"loop 2 from 1", "end 2 from 1"}));
}

TEST_F(ProberTest, ReportsWhetherAPortIsInTheBridgeAndForwards) {
    const auto port = [](uint32_t ifx, bool present, bool forwarding) {
        return Report{
            .kind = Report::Kind::kPort, .ifx = ifx, .present = present, .forwarding = forwarding};
    };
    prober.configure_port(8, true, false, now);
    prober.set_port(8, false, now);
    prober.set_port(8, false, now);
    prober.set_port(8, true, now);
    prober.remove_port(8);
    prober.remove_port(8);
    EXPECT_EQ(hands.port_reports, (std::vector<Report>{port(8, true, false), port(8, true, true),
                                                       port(8, false, false)}));
}

TEST_F(ProberTest, AnAskedProbeIsSentAtOnceAndEachReturnReported) {
    add_ports(3);
    prober.ask(1, now);
    EXPECT_EQ(take_lines(), Lines{"asked 1 from 0"});
    EXPECT_EQ(hands.last.error, 0);
    ASSERT_EQ(hands.sent.size(), 1u);
    const Frame asked = hands.sent[0].frame;
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(take_lines(), Lines{"loop 2 from 1"});
    prober.received(2, asked, now);
    prober.received(2, asked, now);
    prober.received(3, asked, now);
    EXPECT_EQ(take_lines(), (Lines{"returned 2 from 1", "returned 3 from 1", "loop 3 from 1"}));
}

TEST_F(ProberTest, AProbeThatCannotBeSentIsAnsweredWithTheReason) {
    add_ports(3);
    const auto answer = [this](uint32_t ifx) {
        prober.ask(ifx, now);
        EXPECT_EQ(hands.last.kind, Report::Kind::kAsked);
        return hands.last.error;
    };
    EXPECT_EQ(answer(9), ENODEV);
    prober.configure_port(1, false, false, now);
    EXPECT_EQ(answer(1), EPERM);
    prober.set_port(2, false, now);
    EXPECT_EQ(answer(2), ENETDOWN);
    hands.send_result = false;
    EXPECT_EQ(answer(3), EIO);
    hands.send_result = true;
    for (int n = 0; n < 300 && hands.last.error != EBUSY; ++n) {
        answer(3);
    }
    EXPECT_EQ(hands.last.error, EBUSY);
    settings.enabled = false;
    prober.configure(settings, now);
    EXPECT_EQ(answer(3), EPERM);
}

TEST_F(ProberTest, CountsWhatItSendsAndWhatComesBack) {
    add_ports(2);
    const uint64_t sent = prober.counted(Counted::kSent);
    prober.received(2, frame_of(1), now);
    EXPECT_EQ(prober.counted(Counted::kSent), sent + 4);  // a burst on both ports
    EXPECT_EQ(prober.counted(Counted::kReturned), 1u);
    EXPECT_EQ(prober.counted(Counted::kNotSent), 0u);
    hands.send_result = false;
    prober.ask(1, now);
    EXPECT_EQ(prober.counted(Counted::kNotSent), 1u);
    EXPECT_EQ(prober.counted(Counted::kSent), sent + 4);
}

TEST_F(ProberTest, APortThatIsBackKeepsItsConfiguration) {
    add_ports(2);
    prober.remove_port(2);
    pass(seconds(2));
    take_sent();
    prober.set_port(2, true, now);
    prober.run(now);
    EXPECT_EQ(take_sent(), (std::vector<uint32_t>{2, 2}));
}

TEST_F(ProberTest, AThreadThatWasStoppedDoesNotMakeUpForMissedProbes) {
    add_ports(1);
    now += seconds(60);
    prober.run(now);
    EXPECT_EQ(take_sent().size(), 1u);
}

}  // namespace
}  // namespace qv::tarnd
