// Loops through several switches: several probers that receive each other's probes.
#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "services/tarnd/prober.h"

namespace qv::tarnd {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

constexpr Duration kHop = microseconds(10);

struct Network;

// A switch with the ports 1 to 4; all of them forward until they are cut.
struct Switch final : ProberOutputs {
    Switch(Network& the_network, uint64_t bridge, uint8_t priority);

    bool send(uint32_t ifx, uint16_t vid, const Frame& frame) override;
    int cut(uint32_t ifx, bool) override {
        lines.push_back("cut " + std::to_string(ifx));
        down.push_back(ifx);
        return 0;
    }
    int guard(uint32_t, bool) override { return 0; }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kLoop) {
            lines.push_back("loop " + std::to_string(report.ifx) + " from " +
                            std::to_string(report.src_ifx));
        }
        return true;
    }
    bool is_down(uint32_t ifx) const {
        return std::find(down.begin(), down.end(), ifx) != down.end();
    }

    Network& network;
    const uint64_t bridge;
    std::vector<uint32_t> down;
    Lines lines;
    Prober prober;
};

// Cables between ports, frames in flight, and the flooding of foreign probes.
struct Network {
    using End = std::pair<size_t, uint32_t>;  // switch, port
    struct Tagged {
        uint16_t vid;
        Frame frame;
    };

    Network() { EXPECT_GE(sodium_init(), 0); }

    Switch& add(uint64_t bridge, uint8_t priority = 128, bool shuts = true) {
        switches.push_back(std::make_unique<Switch>(*this, bridge, priority));
        Switch& made = *switches.back();
        for (uint32_t ifx = 1; ifx <= 4; ++ifx) {
            made.prober.configure_port(ifx, true, shuts, now, {.vlans = vlans});
            made.prober.set_port(ifx, true, now);
        }
        return made;
    }
    void plug(End one, End other) {
        cables[one] = other;
        cables[other] = one;
    }
    void put(const Switch& from, uint32_t ifx, const Tagged& frame) {
        size_t place = 0;
        while (switches[place].get() != &from) {
            ++place;
        }
        put({place, ifx}, frame);
    }
    void put(End from, const Tagged& frame) {
        const auto to = cables.find(from);
        if (to != cables.end() && frame.vid == passed &&
            !switches[from.first]->is_down(from.second)) {
            frames.emplace(now + kHop, std::pair(to->second, frame));
        }
    }
    void arrive(End at, const Tagged& frame) {
        Switch& here = *switches[at.first];
        if (here.is_down(at.second)) {
            return;
        }
        here.prober.received(at.second, frame.frame, now, frame.vid);
        Probe probe;
        EXPECT_EQ(decode(frame.frame, Key{}, probe), FrameFault::kNone);
        for (uint32_t ifx = 1; ifx <= 4 && probe.bridge != here.bridge; ++ifx) {
            if (ifx != at.second) {
                put({at.first, ifx}, frame);
            }
        }
    }
    void pass(Duration time) {
        const Time end = now + time;
        for (;;) {
            Time next = frames.empty() ? Time::max() : frames.begin()->first;
            for (const auto& one : switches) {
                next = std::min(next, one->prober.next());
            }
            if (next > end) {
                break;
            }
            now = std::max(now, next);
            while (!frames.empty() && frames.begin()->first <= now) {
                const auto [to, frame] = frames.extract(frames.begin()).mapped();
                arrive(to, frame);
            }
            for (const auto& one : switches) {
                one->prober.run(now);
            }
        }
        now = end;
    }
    // A link that is down is no carrier for the other end either.
    void notice_down_ports() {
        for (size_t place = 0; place < switches.size(); ++place) {
            for (const uint32_t ifx : switches[place]->down) {
                switches[place]->prober.set_port(ifx, false, now);
            }
        }
    }

    Time now{seconds(5000)};
    std::vector<std::unique_ptr<Switch>> switches;
    std::map<End, End> cables;
    std::multimap<Time, std::pair<End, Tagged>> frames;
    Vlans vlans;          // of every port
    uint16_t passed = 0;  // the VLAN that cables pass
};

Switch::Switch(Network& the_network, uint64_t its_bridge, uint8_t priority)
    : network(the_network),
      bridge(its_bridge),
      prober({.bridge = its_bridge,
              .source = {2, 0, 0, 0, 0, static_cast<uint8_t>(its_bridge)},
              .key = {},
              .first_sequence = 1000},
             *this) {
    prober.configure({.enabled = true, .priority = priority}, network.now);
}

bool Switch::send(uint32_t ifx, uint16_t vid, const Frame& frame) {
    network.put(*this, ifx, {vid, frame});
    return true;
}

TEST(Election, OfTwoSwitchesThatKnowEachOtherTheLowerBridgeCutsOnePort) {
    Network network;
    Switch& first = network.add(10);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    EXPECT_EQ(first.lines, Lines{});
    network.plug({0, 2}, {1, 2});
    network.pass(seconds(2));
    EXPECT_EQ(first.lines, (Lines{"loop 2 from 2", "cut 2"}));
    EXPECT_EQ(second.lines, Lines{});
}

TEST(Election, ThePriorityDecidesBeforeTheBridge) {
    Network network;
    Switch& first = network.add(10, 100);
    Switch& second = network.add(20, 99);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    network.plug({0, 2}, {1, 2});
    network.pass(seconds(2));
    EXPECT_EQ(first.lines, Lines{});
    EXPECT_EQ(second.lines, (Lines{"loop 2 from 2", "cut 2"}));
}

TEST(Election, SwitchesThatMeetInALoopCutItOnce) {
    Network network;
    Switch& first = network.add(10);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.plug({0, 2}, {1, 2});
    network.pass(seconds(2));
    EXPECT_EQ(first.lines.size() + second.lines.size(), 2u);
}

TEST(Election, ALoopInOneVlanIsCutOnceByTheBetterClaim) {
    Network network;
    network.vlans = std::make_shared<const std::vector<uint16_t>>(std::vector<uint16_t>{5, 7});
    network.passed = 7;
    Switch& first = network.add(10);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    EXPECT_EQ(first.lines, Lines{});
    network.plug({0, 2}, {1, 2});
    network.pass(seconds(3));
    EXPECT_EQ(first.lines, (Lines{"loop 2 from 2", "cut 2"}));
    EXPECT_EQ(second.lines, Lines{});
}

TEST(Election, TheOthersCutWhatStillLoopsInAVlan) {
    Network network;
    network.vlans = std::make_shared<const std::vector<uint16_t>>(std::vector<uint16_t>{5, 7});
    network.passed = 7;
    network.add(10);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    // The first claims, but finds nothing.
    network.switches[0]->prober.configure({.enabled = false}, network.now);
    network.plug({0, 2}, {1, 2});
    network.now += milliseconds(5);
    second.prober.overrun(network.now);
    network.pass(milliseconds(190));
    EXPECT_EQ(second.lines, Lines{});
    network.pass(milliseconds(20));
    EXPECT_EQ(second.lines, (Lines{"loop 2 from 2", "cut 2"}));
}

TEST(Election, ARingOfThreeIsCutOnceAndTheRestStaysConnected) {
    Network network;
    Switch& first = network.add(10);
    Switch& second = network.add(20);
    Switch& third = network.add(30);
    network.plug({0, 1}, {1, 2});
    network.plug({1, 1}, {2, 2});
    network.pass(seconds(2));
    network.plug({2, 1}, {0, 2});
    network.pass(seconds(3));
    EXPECT_EQ(first.lines, (Lines{"loop 2 from 2", "cut 2"}));
    EXPECT_EQ(second.lines, Lines{});
    EXPECT_EQ(third.lines, Lines{});
}

TEST(Election, TheOthersCutWhatStillLoopsWhenTheFirstDoesNot) {
    Network network;
    network.add(10);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    // The first switch claims, but finds nothing.
    network.switches[0]->prober.configure({.enabled = false}, network.now);
    network.plug({0, 2}, {1, 2});
    network.now += milliseconds(5);
    second.prober.overrun(network.now);
    network.pass(milliseconds(190));
    EXPECT_EQ(second.lines, Lines{});
    network.pass(milliseconds(20));
    EXPECT_EQ(second.lines, (Lines{"loop 2 from 2", "cut 2"}));
}

TEST(Election, ASwitchThatOnlyWarnsDoesNotDelayTheOther) {
    Network network;
    network.add(10, 0, false);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    network.plug({0, 2}, {1, 2});
    network.now += milliseconds(5);
    second.prober.overrun(network.now);
    network.pass(milliseconds(1));
    EXPECT_EQ(second.lines, (Lines{"loop 2 from 2", "cut 2"}));
}

TEST(Election, ALoopInsideAnotherSwitchIsLeftToThatSwitch) {
    Network network;
    Switch& first = network.add(10, 0);
    Switch& second = network.add(20);
    network.plug({0, 1}, {1, 1});
    network.pass(seconds(2));
    network.plug({1, 2}, {1, 3});
    first.prober.overrun(network.now);
    network.pass(milliseconds(1));
    network.notice_down_ports();
    network.pass(seconds(2));
    EXPECT_EQ(first.lines, Lines{});
    EXPECT_EQ(second.lines, (Lines{"loop 3 from 2", "cut 3"}));
}

}  // namespace
}  // namespace qv::tarnd
