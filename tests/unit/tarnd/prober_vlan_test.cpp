// Probes in the VLANs of a port's list.
#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "services/tarnd/prober.h"

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

struct Sent {
    Time time;
    uint32_t ifx;
    uint16_t vid;
    Frame frame;
};

// Keeps frames, and reports of loops and cuts as text.
struct Hands final : ProberOutputs {
    explicit Hands(const Time& the_now) : now(the_now) {}

    bool send(uint32_t ifx, uint16_t vid, const Frame& frame) override {
        sent.push_back({now, ifx, vid, frame});
        return true;
    }
    int cut(uint32_t ifx, bool) override {
        lines.push_back("cut " + std::to_string(ifx));
        return 0;
    }
    int guard(uint32_t ifx, bool close) override {
        lines.push_back((close ? "close " : "open ") + std::to_string(ifx));
        return 0;
    }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kLoop || report.kind == Report::Kind::kEnd) {
            lines.push_back((report.kind == Report::Kind::kLoop ? "loop " : "end ") +
                            std::to_string(report.ifx) + "." + std::to_string(report.vid) +
                            " from " + std::to_string(report.src_ifx) + "." +
                            std::to_string(report.src_vid));
            last = report;
        }
        return true;
    }

    const Time& now;
    std::vector<Sent> sent;
    Lines lines;
    Report last;
};

Vlans list(std::vector<uint16_t> vlans) {
    return std::make_shared<const std::vector<uint16_t>>(std::move(vlans));
}

Vlans first_vlans(uint16_t count) {
    std::vector<uint16_t> vlans(count);
    std::iota(vlans.begin(), vlans.end(), uint16_t{1});
    return list(std::move(vlans));
}

struct ProberVlanTest : testing::Test {
    ProberVlanTest() {
        EXPECT_GE(sodium_init(), 0);
        prober.configure(settings, now);
    }

    // Ports 1 to `count`, watched and forwarding, after their first probes.
    void add_ports(uint32_t count, const Vlans& vlans, bool shuts = false) {
        for (uint32_t ifx = 1; ifx <= count; ++ifx) {
            prober.configure_port(ifx, true, shuts, now, {.vlans = vlans});
            prober.set_port(ifx, true, now);
        }
        pass(milliseconds(200));
        take_sent();
    }
    void run_due(Time end) {
        while (prober.next() <= end) {
            now = std::max(now, prober.next());
            prober.run(now);
        }
    }
    void pass(Duration time) {
        const Time end = now + time;
        run_due(end);
        now = end;
    }
    std::vector<Sent> take_sent() { return std::exchange(hands.sent, {}); }
    Lines take_lines() { return std::exchange(hands.lines, {}); }

    // Passes time during which what one port sends in one of these VLANs comes back on another.
    void pass_looped(const std::vector<uint16_t>& vlans, Duration time, uint32_t from = 1,
                     uint32_t to = 2) {
        const Time end = now + time;
        while (now < end) {
            pass(milliseconds(10));
            for (const Sent& sent : take_sent()) {
                if (sent.ifx == from && std::count(vlans.begin(), vlans.end(), sent.vid) != 0) {
                    prober.received(to, sent.frame, now, sent.vid);
                }
            }
        }
    }
    // A frame of port 1 in this VLAN, just sent.
    Frame frame_in(uint16_t vid) {
        for (int n = 0; n < 1000; ++n) {
            pass(milliseconds(10));
            for (const Sent& sent : take_sent()) {
                if (sent.ifx == 1 && sent.vid == vid) {
                    return sent.frame;
                }
            }
        }
        ADD_FAILURE() << "port 1 does not send in VLAN " << vid;
        return {};
    }
    // The largest number of tagged frames in any 10 ms.
    static size_t most_in_a_tick(const std::vector<Sent>& frames) {
        std::map<int64_t, size_t> ticks;
        for (const Sent& sent : frames) {
            ticks[sent.time.time_since_epoch() / milliseconds(10)] += sent.vid != 0 ? 1 : 0;
        }
        size_t most = 0;
        for (const auto& [tick, count] : ticks) {
            most = std::max(most, count);
        }
        return most;
    }
    static std::map<uint16_t, size_t> by_vlan(const std::vector<Sent>& frames) {
        std::map<uint16_t, size_t> counts;
        for (const Sent& sent : frames) {
            ++counts[sent.vid];
        }
        return counts;
    }

    Time now{seconds(5000)};
    Settings settings{.enabled = true};
    Hands hands{now};
    Prober prober{{.bridge = 77, .source = {2}, .key = {}, .first_sequence = 1000}, hands};
};

TEST_F(ProberVlanTest, ProbesUntaggedAndOnceInEachVlanInEachInterval) {
    add_ports(1, list({7, 9}));
    pass(seconds(10));
    EXPECT_EQ(by_vlan(take_sent()), (std::map<uint16_t, size_t>{{0, 10}, {7, 10}, {9, 10}}));
}

TEST_F(ProberVlanTest, TaggedProbesOfAPortAreSpreadOverTheInterval) {
    add_ports(1, first_vlans(100));
    pass(seconds(1));
    const auto sent = take_sent();
    EXPECT_EQ(by_vlan(sent).size(), 101u);
    EXPECT_EQ(sent.size(), 101u);
    EXPECT_EQ(most_in_a_tick(sent), 1u);
}

TEST_F(ProberVlanTest, AllVlansOfAPortTakeEightSecondsAndNeverBurst) {
    add_ports(1, first_vlans(4094));
    pass(milliseconds(8200));
    const auto sent = take_sent();
    EXPECT_LE(most_in_a_tick(sent), 5u);
    auto counts = by_vlan(sent);
    EXPECT_EQ(counts.extract(0).mapped(), 8u);
    EXPECT_EQ(counts.size(), 4094u);
    EXPECT_TRUE(std::all_of(counts.begin(), counts.end(),
                            [](const auto& entry) { return entry.second <= 2; }));
    EXPECT_LE(sent.size(), 8u + 4100u);
}

TEST_F(ProberVlanTest, TaggedProbesOfTheWholeSwitchAreLimitedAndPortsShareThem) {
    add_ports(1000, first_vlans(10));
    pass(seconds(1));
    take_sent();
    pass(seconds(5));
    const auto sent = take_sent();
    std::map<uint32_t, size_t> tagged;
    for (const Sent& one : sent) {
        tagged[one.ifx] += one.vid != 0 ? 1 : 0;
    }
    EXPECT_EQ(tagged.size(), 1000u);
    for (const auto& [ifx, count] : tagged) {
        EXPECT_EQ(count, 20u) << ifx;  // 4,000 a second
    }
    EXPECT_LE(most_in_a_tick(sent), 130u);  // eight turns in 250 ms
}

TEST_F(ProberVlanTest, PortsThatHaveLeftLeaveTheirShareToTheOthers) {
    add_ports(1000, first_vlans(10));
    for (uint32_t ifx = 2; ifx <= 1000; ++ifx) {
        if (ifx % 3 == 0) {
            prober.remove_port(ifx);
        } else if (ifx % 3 == 1) {
            prober.set_port(ifx, false, now);
        } else {
            prober.configure_port(ifx, true, false, now);
        }
    }
    pass(seconds(1));
    take_sent();
    pass(seconds(1));
    for (const auto& [vid, count] : by_vlan(take_sent())) {
        EXPECT_TRUE(vid == 0 || count == 1) << vid;
    }
}

TEST_F(ProberVlanTest, AThreadThatWasStoppedDoesNotMakeUpForMissedProbes) {
    add_ports(1, first_vlans(4094));
    now += seconds(60);
    prober.run(now);
    EXPECT_LE(take_sent().size(), 11u);
}

TEST_F(ProberVlanTest, NothingIsSentInVlansWhileThePortIsNotProbed) {
    add_ports(2, list({7}));
    prober.configure_port(1, false, false, now, {.vlans = list({7})});
    prober.set_port(2, false, now);
    pass(seconds(3));
    EXPECT_EQ(take_sent().size(), 0u);
    EXPECT_EQ(prober.next(), Time::max());
}

TEST_F(ProberVlanTest, ALoopInOneVlanIsReportedWithItAndEndsWithIt) {
    add_ports(2, list({7, 9}));
    pass_looped({7}, seconds(20));
    EXPECT_EQ(take_lines(), Lines{"loop 2.7 from 1.7"});
    pass(milliseconds(2900));
    EXPECT_EQ(take_lines(), Lines{});
    pass(milliseconds(1200));
    EXPECT_EQ(take_lines(), Lines{"end 2.7 from 1.7"});
}

TEST_F(ProberVlanTest, SilenceInOneVlanEndsTheLoopInThisVlanAlone) {
    add_ports(2, list({7, 9}));
    pass_looped({0, 7, 9}, seconds(3));
    Lines found = take_lines();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (Lines{"loop 2.0 from 1.0", "loop 2.7 from 1.7", "loop 2.9 from 1.9"}));
    pass_looped({0, 9}, seconds(20));
    EXPECT_EQ(take_lines(), Lines{"end 2.7 from 1.7"});
    pass_looped({9}, seconds(20));
    EXPECT_EQ(take_lines(), Lines{"end 2.0 from 1.0"});
    EXPECT_EQ(prober.loops(), 1u);
}

TEST_F(ProberVlanTest, ALoopIsEndedAfterTheRecoveryIntervalInItsVlan) {
    settings.recover = seconds(30);
    prober.configure(settings, now);
    add_ports(2, list({7}));
    pass_looped({7}, milliseconds(29500));
    EXPECT_EQ(take_lines(), Lines{"loop 2.7 from 1.7"});
    pass_looped({7}, milliseconds(2500));
    EXPECT_EQ(take_lines(), (Lines{"end 2.7 from 1.7", "loop 2.7 from 1.7"}));
}

TEST_F(ProberVlanTest, AProbeThatComesBackInAnotherVlanIsALoopAndCountedAsLeaked) {
    add_ports(2, list({7}));
    prober.received(2, frame_in(7), now, 9);
    EXPECT_EQ(take_lines(), Lines{"loop 2.9 from 1.7"});
    prober.received(2, frame_in(0), now, 9);
    EXPECT_EQ(take_lines(), Lines{"loop 2.9 from 1.0"});
    EXPECT_EQ(prober.counted(Counted::kLeaked), 2u);
    prober.received(2, frame_in(7), now, 7);
    EXPECT_EQ(prober.counted(Counted::kLeaked), 2u);
    EXPECT_EQ(prober.counted(Counted::kReturned), 3u);
    pass(seconds(5));
    EXPECT_EQ(take_lines().size(), 2u) << "both have ended";
}

TEST_F(ProberVlanTest, TheHashCoversTheVlan) {
    add_ports(2, list({7, 9}));
    Frame frame = frame_in(7);
    ASSERT_EQ(frame[17], 7);
    frame[17] = 9;
    prober.received(2, frame, now, 9);
    EXPECT_EQ(take_lines(), Lines{});
    EXPECT_EQ(prober.ignored(Ignored::kForged), 1u);
}

TEST_F(ProberVlanTest, ALoopInAVlanIsCutOnceAndAnnouncedInThisVlan) {
    add_ports(2, list({7, 9}), true);
    const Frame in_7 = frame_in(7);
    const Frame in_9 = frame_in(9);
    take_sent();
    prober.received(2, in_7, now, 7);
    EXPECT_EQ(take_lines(), (Lines{"loop 2.7 from 1.7", "cut 2"}));
    std::vector<std::pair<uint32_t, uint16_t>> announced;
    for (const Sent& sent : take_sent()) {
        Probe probe;
        ASSERT_EQ(decode(sent.frame, Key{}, probe), FrameFault::kNone);
        EXPECT_NE(probe.flags & kCutting, 0);
        announced.emplace_back(sent.ifx, sent.vid);
    }
    EXPECT_EQ(announced, (std::vector<std::pair<uint32_t, uint16_t>>{{2, 7}, {1, 7}}));
    // The probe in the other VLAN was still under way.
    prober.received(2, in_9, now, 9);
    EXPECT_EQ(take_lines(), Lines{});
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), Lines{"end 2.7 from 1.7"});
}

TEST_F(ProberVlanTest, APortThatForwardsAgainAfterACutIsCutAgain) {
    add_ports(2, list({7, 9}), true);
    prober.received(2, frame_in(7), now, 7);
    EXPECT_EQ(take_lines(), (Lines{"loop 2.7 from 1.7", "cut 2"}));
    pass(milliseconds(200));
    prober.received(2, frame_in(9), now, 9);
    EXPECT_EQ(take_lines(), (Lines{"loop 2.9 from 1.9", "cut 2"}));
}

TEST_F(ProberVlanTest, AVlanThatIsNotProbedAnyMoreHasNoLoop) {
    add_ports(2, list({7, 9}));
    pass_looped({7, 9}, seconds(3));
    EXPECT_EQ(take_lines().size(), 2u);
    prober.configure_port(2, true, false, now);
    EXPECT_EQ(take_lines(), Lines{}) << "port 1 sends the probes";
    prober.configure_port(1, true, false, now, {.vlans = list({9})});
    EXPECT_EQ(take_lines(), Lines{"end 2.7 from 1.7"});
    prober.configure_port(1, true, false, now);
    EXPECT_EQ(take_lines(), Lines{"end 2.9 from 1.9"});
}

TEST_F(ProberVlanTest, AMovedAddressCallsForProbesInItsVlanFirst) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(2, first_vlans(100));
    prober.learned(uint64_t{50} << 48 | 0x020000000001, 1, now);
    prober.learned(uint64_t{50} << 48 | 0x020000000001, 2, now);
    prober.run(now);
    std::map<uint32_t, std::vector<uint16_t>> vlans;
    for (const Sent& sent : take_sent()) {
        vlans[sent.ifx].push_back(sent.vid);
    }
    for (const uint32_t ifx : {1, 2}) {
        ASSERT_EQ(vlans[ifx].size(), 6u) << ifx;
        EXPECT_EQ(vlans[ifx][2], 50) << ifx;
    }
    // The next burst, of an address without a VLAN, goes on with the list.
    pass(milliseconds(5));
    take_sent();
    prober.learned(1, 1, now);
    prober.learned(1, 2, now);
    prober.run(now);
    std::vector<uint16_t> next;
    for (const Sent& sent : take_sent()) {
        if (sent.ifx == 1) {
            next.push_back(sent.vid);
        }
    }
    const uint16_t after = vlans[1].back();
    EXPECT_EQ(next, (std::vector<uint16_t>{
                        0, 0, static_cast<uint16_t>(after + 1), static_cast<uint16_t>(after + 2),
                        static_cast<uint16_t>(after + 3), static_cast<uint16_t>(after + 4)}));
}

TEST_F(ProberVlanTest, TaggedProbesCountInTheLimitOfBursts) {
    settings.interval = seconds(10);
    prober.configure(settings, now);
    add_ports(1000, first_vlans(100));
    pass(seconds(20));
    take_sent();
    for (int n = 0; n < 100; ++n) {
        prober.overrun(now);
        pass(milliseconds(1));
    }
    // 256 at once and 2,000 a second, of two frames each; periodic ones in 3 of 8 turns.
    const size_t frames = take_sent().size();
    EXPECT_GE(frames, 2 * 400u);
    EXPECT_LE(frames, 2 * (256u + 200u) + 385u);
}

TEST_F(ProberVlanTest, AGuardedPortIsProbedInItsVlansBeforeItIsOpened) {
    add_ports(1, list({7}));
    prober.configure_port(2, true, false, now,
                          {.guard = milliseconds(30), .vlans = first_vlans(40)});
    prober.set_port(2, false, now);
    EXPECT_EQ(take_lines(), Lines{"close 2"});
    prober.set_port(2, true, now);
    pass(milliseconds(29));
    EXPECT_EQ(take_lines(), Lines{});
    auto sent = take_sent();
    std::erase_if(sent, [](const Sent& one) { return one.ifx != 2; });
    EXPECT_EQ(by_vlan(sent).size(), 41u);
    pass(milliseconds(1));
    EXPECT_EQ(take_lines(), Lines{"open 2"});
}

TEST_F(ProberVlanTest, ALoopInAVlanKeepsAGuardedPortClosed) {
    add_ports(1, list({7}));
    prober.configure_port(2, true, false, now, {.guard = milliseconds(30), .vlans = list({7})});
    prober.set_port(2, false, now);
    prober.set_port(2, true, now);
    pass_looped({7}, seconds(10), 2, 1);
    EXPECT_EQ(take_lines(), (Lines{"close 2", "loop 1.7 from 2.7"}));
    pass(milliseconds(4200));
    EXPECT_EQ(take_lines(), (Lines{"end 1.7 from 2.7", "open 2"}));
}

}  // namespace
}  // namespace qv::tarnd
