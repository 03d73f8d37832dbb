#include "platform/driver/embedded/embedded_switch.h"

#include <gtest/gtest.h>

#include "platform/client/port_model.h"
#include "platform/driver/embedded/loop_probe.h"
#include "qv/bridge.h"
#include "qv/lsm.h"
#include "tests/support/manual_clock.h"

namespace {

using qv::Port;
using Texts = std::vector<std::string>;
using std::chrono::seconds;

class EmbeddedSwitchTest : public ::testing::Test {
 protected:
    EmbeddedSwitchTest() {
        ports.set_rate_listener([this](uint32_t phyid, uint64_t pps) {
            rates.push_back(std::to_string(phyid) + ": " + std::to_string(pps));
        });
        model.start();
    }

    void run() { qv::test::run_ready(loop, clock); }
    Texts take_rates() { return std::exchange(rates, {}); }

    qv::test::ManualClock clock;
    qv::EventLoop loop{clock};
    qv::EmbeddedSwitch ports{loop, 4};
    qv::PortModel model{ports};
    Texts rates;
};

using EmbeddedSwitch = EmbeddedSwitchTest;

TEST_F(EmbeddedSwitch, PortsAreReportedThroughTheLoop) {
    EXPECT_TRUE(model.ports().empty());
    run();
    EXPECT_TRUE(model.complete());
    ASSERT_EQ(model.ports().size(), 4u);
    const Port& last = *model.find(4);
    EXPECT_EQ(last.name, "swp4");
    EXPECT_EQ(last.phyid, 4u);
    EXPECT_EQ(last.type, LSM_TYPE_ETHERNET);
    EXPECT_EQ(last.mode, SWPORT_MODE_ACCESS);
    EXPECT_TRUE(last.admin_up && last.oper_up && last.switchport && !last.vsl);
}

TEST_F(EmbeddedSwitch, PortAddedBeforeTheReportIsPartOfIt) {
    EXPECT_EQ(ports.add_port("swp5"), "");
    EXPECT_EQ(model.ports().size(), 0u);
    run();
    EXPECT_EQ(model.ports().size(), 5u);
}

TEST_F(EmbeddedSwitch, OperationalStateFollowsTheAdministrativeOne) {
    run();
    EXPECT_EQ(model.set_admin(2, false), "");
    EXPECT_FALSE(model.find(2)->admin_up || model.find(2)->oper_up);
    EXPECT_EQ(model.set_admin(2, true), "");
    EXPECT_TRUE(model.find(2)->admin_up && model.find(2)->oper_up);
}

TEST_F(EmbeddedSwitch, ModeIsSetAndAnUnknownOneRefused) {
    run();
    EXPECT_EQ(model.set_mode(2, SWPORT_MODE_HYBRID), "");
    EXPECT_EQ(model.find(2)->mode, SWPORT_MODE_HYBRID);
    EXPECT_EQ(model.set_mode(2, 3), "no such VLAN mode");
    EXPECT_EQ(model.find(2)->mode, SWPORT_MODE_HYBRID);
}

TEST_F(EmbeddedSwitch, AddedPortGetsTheIndexOfItsNumberOrTheNextFreeOne) {
    run();
    EXPECT_EQ(ports.add_port("swp9"), "");
    EXPECT_EQ(model.find("swp9")->ifx, 9u);
    EXPECT_EQ(ports.add_port("uplink"), "");
    EXPECT_EQ(model.find("uplink")->ifx, 10u);
    EXPECT_EQ(ports.add_port("swp10"), "");
    EXPECT_EQ(model.find("swp10")->ifx, 11u);
    EXPECT_EQ(model.find("swp10")->phyid, 11u);
}

TEST_F(EmbeddedSwitch, ExistingNameIsRefused) {
    run();
    EXPECT_EQ(ports.add_port("swp2"), "port swp2 exists already");
    EXPECT_EQ(ports.add_aggregate("swp2"), "port swp2 exists already");
    EXPECT_EQ(model.ports().size(), 4u);
}

TEST_F(EmbeddedSwitch, BadNameIsRefused) {
    run();
    const char* const reason = "a port name has 1 to 63 printable characters without blanks";
    EXPECT_EQ(ports.add_port(""), reason);
    EXPECT_EQ(ports.add_port("a b"), reason);
    EXPECT_EQ(ports.add_port("swp\x07"), reason);
    EXPECT_EQ(ports.add_port("swp\x7f"), reason);
    EXPECT_EQ(ports.add_port(std::string(64, 'p')), reason);
    EXPECT_EQ(ports.add_port(std::string(63, 'p')), "");
}

TEST_F(EmbeddedSwitch, NumberBeyondTheIndexesIsJustAName) {
    run();
    EXPECT_EQ(ports.add_port("swp99999999999999999999"), "");
    EXPECT_EQ(model.find("swp99999999999999999999")->ifx, 5u);
    EXPECT_EQ(ports.add_port("swp65535"), "");
    EXPECT_EQ(ports.add_port("beyond"), "no interface index left");
}

TEST_F(EmbeddedSwitch, NameWithoutAnIndexGetsTheNextFreeIndex) {
    run();
    EXPECT_EQ(ports.add_port("swp9x"), "");
    EXPECT_EQ(model.find("swp9x")->ifx, 5u);
    EXPECT_EQ(ports.add_port("swp0"), "");
    EXPECT_EQ(model.find("swp0")->ifx, 6u);
    EXPECT_EQ(ports.add_port("swp65536"), "");
    EXPECT_EQ(model.find("swp65536")->ifx, 7u);
}

// Records changes of the ports' aggregates.
class Memberships final : public qv::PortObserver {
 public:
    void on_added(const Port&) override {}
    void on_removed(const Port& port) override { note("gone: ", port); }
    void on_changed(const Port&, const Port& after) override { note("", after); }
    void on_default(const Port&) override {}
    void on_left_bridge(const Port&) override {}
    void on_complete() override {}

    Texts heard;

 private:
    void note(const std::string& what, const Port& port) {
        heard.push_back(what + port.name + " of " + std::to_string(port.aggregate));
    }
};

TEST_F(EmbeddedSwitch, DeletedMemberLeavesItsAggregateFirst) {
    run();
    ports.add_aggregate("po1");
    ports.join_aggregate(5, 2);
    Memberships memberships;
    model.add_observer(memberships);
    ports.delete_port(2);
    EXPECT_EQ(memberships.heard, (Texts{"swp2 of 0", "gone: swp2 of 0"}));
}

TEST_F(EmbeddedSwitch, MembersOfOtherAggregatesStay) {
    run();
    ports.add_aggregate("po1");
    ports.add_aggregate("po2");
    ports.join_aggregate(5, 1);
    ports.join_aggregate(6, 2);
    EXPECT_EQ(ports.leave_aggregate(5, 2), "swp2 is not a member of that aggregate port");
    EXPECT_EQ(model.find(2)->aggregate, 6u);
    ports.delete_port(5);
    EXPECT_EQ(model.find(1)->aggregate, 0u);
    EXPECT_EQ(model.find(2)->aggregate, 6u);
}

TEST_F(EmbeddedSwitch, DeletedPortIsAddedAgainWithItsIndex) {
    run();
    EXPECT_EQ(ports.delete_port(2), "");
    EXPECT_EQ(model.find(2), nullptr);
    EXPECT_EQ(ports.delete_port(2), "no such port");
    EXPECT_EQ(ports.add_port("swp2"), "");
    EXPECT_EQ(model.find("swp2")->ifx, 2u);
}

TEST_F(EmbeddedSwitch, RenamedPortKeepsItsIndex) {
    run();
    EXPECT_EQ(ports.rename_port(2, "uplink"), "");
    EXPECT_EQ(model.find("uplink")->ifx, 2u);
    EXPECT_EQ(ports.rename_port(3, "uplink"), "port uplink exists already");
    EXPECT_EQ(ports.rename_port(9, "other"), "no such port");
}

TEST_F(EmbeddedSwitch, PortOutsideTheBridgeReturnsWithAMode) {
    run();
    EXPECT_EQ(ports.leave_bridge(2), "");
    EXPECT_EQ(model.find(2)->mode, SWPORT_MODE_NONE);
    EXPECT_EQ(ports.leave_bridge(2), "swp2 is in no bridge");
    EXPECT_EQ(model.set_mode(2, SWPORT_MODE_ACCESS), "");
    EXPECT_EQ(model.find(2)->mode, SWPORT_MODE_ACCESS);
}

TEST_F(EmbeddedSwitch, AggregateAcceptsAndReleasesMembers) {
    run();
    EXPECT_EQ(ports.add_aggregate("ag1"), "");
    EXPECT_EQ(model.find("ag1")->type, LSM_TYPE_AGGREGATE);
    EXPECT_EQ(model.find("ag1")->phyid, 0u);
    EXPECT_EQ(ports.join_aggregate(5, 2), "");
    EXPECT_EQ(model.find(2)->aggregate, 5u);
    EXPECT_EQ(ports.join_aggregate(5, 2), "swp2 is a member of an aggregate port already");
    EXPECT_EQ(ports.join_aggregate(3, 4), "swp3 is not an aggregate port");
    EXPECT_EQ(ports.join_aggregate(5, 5), "ag1 is an aggregate port itself");
    EXPECT_EQ(ports.leave_aggregate(5, 3), "swp3 is not a member of that aggregate port");
    EXPECT_EQ(ports.leave_aggregate(5, 2), "");
    EXPECT_EQ(model.find(2)->aggregate, 0u);
}

TEST_F(EmbeddedSwitch, DeletedAggregateSetsItsMembersFree) {
    run();
    ports.add_aggregate("ag1");
    ports.join_aggregate(5, 2);
    EXPECT_EQ(ports.delete_port(5), "");
    EXPECT_EQ(model.find(2)->aggregate, 0u);
}

TEST_F(EmbeddedSwitch, VirtualSwitchLinkIsMadeAndTakenBack) {
    run();
    EXPECT_EQ(ports.remove_vsl(2), "swp2 is not a virtual switch link");
    EXPECT_EQ(ports.create_vsl(2), "");
    EXPECT_TRUE(model.find(2)->vsl);
    EXPECT_EQ(ports.create_vsl(2), "swp2 is a virtual switch link already");
    EXPECT_EQ(ports.remove_vsl(2), "");
    EXPECT_FALSE(model.find(2)->vsl);
}

TEST_F(EmbeddedSwitch, CableNeedsTwoFreePortsAndStormsOnBoth) {
    run();
    EXPECT_EQ(ports.plug(1, 3), "");
    EXPECT_TRUE(ports.has_cable(1) && ports.has_cable(3) && !ports.has_cable(2));
    EXPECT_EQ(ports.loop_peer(1), 3u);
    EXPECT_EQ(ports.loop_peer(3), 1u);
    EXPECT_EQ(take_rates(), (Texts{"1: 100000", "3: 100000"}));
    EXPECT_EQ(ports.plug(3, 2), "swp3 has a cable already");
    EXPECT_EQ(ports.unplug(1, 2), "no cable between these ports");
    EXPECT_EQ(ports.unplug(3, 1), "");
    EXPECT_FALSE(ports.has_cable(1) || ports.has_cable(3));
    EXPECT_EQ(take_rates(), (Texts{"1: 0", "3: 0"}));
}

TEST_F(EmbeddedSwitch, LoopBreaksWhileOneEndIsDown) {
    run();
    ports.plug(1, 3);
    model.set_admin(1, false);
    EXPECT_EQ(ports.loop_peer(3), std::nullopt);
    model.set_admin(1, true);
    EXPECT_EQ(ports.loop_peer(3), 1u);
    EXPECT_EQ(take_rates(),
              (Texts{"1: 100000", "3: 100000", "1: 0", "3: 0", "1: 100000", "3: 100000"}));
}

TEST_F(EmbeddedSwitch, LoopBreaksWhileOneEndIsOutsideTheBridge) {
    run();
    ports.plug(1, 3);
    ports.leave_bridge(1);
    EXPECT_EQ(ports.loop_peer(3), std::nullopt);
}

TEST_F(EmbeddedSwitch, PortPluggedWithItselfLoopsWithoutAStorm) {
    run();
    EXPECT_EQ(ports.plug(2, 2), "");
    EXPECT_EQ(ports.loop_peer(2), 2u);
    EXPECT_EQ(take_rates(), Texts{});
    EXPECT_EQ(ports.unplug(2, 2), "");
    EXPECT_EQ(ports.loop_peer(2), std::nullopt);
}

TEST_F(EmbeddedSwitch, AggregatePortRefusesCablesAndStorms) {
    run();
    ports.add_aggregate("ag1");
    EXPECT_EQ(ports.plug(1, 5), "ag1 is an aggregate port and takes no cable");
    EXPECT_EQ(ports.set_storm(5, 10), "ag1 is an aggregate port and receives nothing of its own");
}

TEST_F(EmbeddedSwitch, StormArrivesWhileThePortIsUp) {
    run();
    EXPECT_EQ(ports.set_storm(2, 9000), "");
    model.set_admin(2, false);
    model.set_admin(2, true);
    EXPECT_EQ(ports.set_storm(2, 0), "");
    EXPECT_EQ(take_rates(), (Texts{"2: 9000", "2: 0", "2: 9000", "2: 0"}));
}

TEST_F(EmbeddedSwitch, StormAndLoopAddUp) {
    run();
    ports.set_storm(1, 5);
    ports.plug(1, 3);
    EXPECT_EQ(take_rates(), (Texts{"1: 5", "1: 100005", "3: 100000"}));
}

TEST_F(EmbeddedSwitch, DeletedPortLosesItsCableAndItsStorm) {
    run();
    ports.plug(1, 3);
    ports.set_storm(1, 5);
    take_rates();
    EXPECT_EQ(ports.delete_port(1), "");
    EXPECT_FALSE(ports.has_cable(3));
    EXPECT_EQ(take_rates(), (Texts{"1: 0", "3: 0"}));
}

// Shutting thousands of ports is fast only if none of the others is examined.
TEST_F(EmbeddedSwitch, ChangeConcernsThePortAndTheFarEndOfItsCableOnly) {
    run();
    std::vector<uint32_t> concerned;
    ports.set_wiring_listener([&](uint32_t ifx) { concerned.push_back(ifx); });
    const auto take = [&] {
        return std::exchange(concerned, {});
    };
    using Ports = std::vector<uint32_t>;

    model.set_admin(2, false);
    EXPECT_EQ(take(), Ports{2});
    ports.plug(3, 1);
    EXPECT_EQ(take(), (Ports{1, 3}));
    model.set_admin(3, false);
    EXPECT_EQ(take(), (Ports{1, 3}));
    ports.leave_bridge(3);
    EXPECT_EQ(take(), (Ports{1, 3}));
    ports.unplug(1, 3);
    EXPECT_EQ(take(), (Ports{1, 3}));
    ports.plug(4, 4);
    EXPECT_EQ(take(), Ports{4});
    ports.plug(1, 3);
    take();
    ports.delete_port(3);
    EXPECT_EQ(take(), (Ports{1, 3}));
}

TEST_F(EmbeddedSwitch, CablePluggedBeforeTheReportLoopsFromItOn) {
    std::vector<uint32_t> concerned;
    EXPECT_EQ(ports.plug(1, 3), "");
    ports.set_wiring_listener([&](uint32_t ifx) { concerned.push_back(ifx); });
    run();
    EXPECT_EQ(concerned, (std::vector<uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(take_rates(), (Texts{"1: 100000", "3: 100000"}));
}

TEST_F(EmbeddedSwitch, ControlsOfUnknownPortsAreRefused) {
    run();
    const char* const reason = "no such port";
    EXPECT_EQ(ports.plug(1, 9), reason);
    EXPECT_EQ(ports.unplug(9, 1), reason);
    EXPECT_EQ(ports.set_storm(9, 1), reason);
    EXPECT_EQ(ports.leave_bridge(9), reason);
    EXPECT_EQ(ports.join_aggregate(9, 1), reason);
    EXPECT_EQ(ports.leave_aggregate(9, 1), reason);
    EXPECT_EQ(ports.create_vsl(9), reason);
    EXPECT_EQ(ports.set_admin(9, true), reason);
    EXPECT_EQ(ports.set_mode(9, SWPORT_MODE_ACCESS), reason);
}

// ---- The peer protocol's stand-in ----

class LoopProbeTest : public EmbeddedSwitchTest {
 protected:
    LoopProbeTest() {
        run();
        started = clock.now();
    }

    void pass(seconds time) { qv::test::run_for(loop, clock, time); }
    Texts take_reports() {
        run();
        return std::exchange(reports, {});
    }

    bool publish(const qv::LoopReport& report) {
        if (away) {
            return false;
        }
        const auto at = std::chrono::duration_cast<seconds>(clock.now() - started).count();
        reports.push_back(std::to_string(at) + " s: " + std::to_string(report.ifx) +
                          (report.is_loop ? " loops with " : " is free of ") +
                          std::to_string(report.src_ifx));
        return true;
    }

    std::set<uint32_t> probed{1, 2, 3, 4};
    bool away = false;  // reports cannot be published
    Texts reports;
    qv::Time started;
    uint32_t alone = 0;  // reports a loop alone; 0: both of its ports do
    std::chrono::milliseconds guard{0};
    Texts guards;
    qv::LoopProbe probe{
        loop,
        ports,
        {.enabled = [this](uint32_t ifx) { return probed.contains(ifx); },
         .choose = [this](uint32_t, uint32_t) { return alone; },
         .guard = [this](uint32_t) { return guard; },
         .guard_changed =
             [this](uint32_t ifx) {
                 guards.push_back(std::to_string(ifx) + (probe.guarded(ifx) ? " held" : " open"));
             }},
        [this](const qv::LoopReport& report) {
            return publish(report);
        }};
};

using LoopProbe = LoopProbeTest;

TEST_F(LoopProbe, BothPortsReportTheirLoopAgainAndAgain) {
    ports.plug(1, 3);
    pass(seconds(11));
    EXPECT_EQ(take_reports(),
              (Texts{"0 s: 1 loops with 3", "0 s: 3 loops with 1", "5 s: 1 loops with 3",
                     "5 s: 3 loops with 1", "10 s: 1 loops with 3", "10 s: 3 loops with 1"}));
}

TEST_F(LoopProbe, ReportsAreMadeThroughTheLoop) {
    ports.plug(1, 3);
    EXPECT_EQ(reports, Texts{});
}

TEST_F(LoopProbe, EndOfTheCableIsReportedOnce) {
    ports.plug(1, 3);
    run();
    take_reports();
    ports.unplug(1, 3);
    pass(seconds(20));
    EXPECT_EQ(take_reports(), (Texts{"0 s: 1 is free of 3", "0 s: 3 is free of 1"}));
}

TEST_F(LoopProbe, PortThatGoesDownEndsTheLoopOfBoth) {
    ports.plug(1, 3);
    pass(seconds(1));
    take_reports();
    model.set_admin(3, false);
    EXPECT_EQ(take_reports(), (Texts{"1 s: 1 is free of 3", "1 s: 3 is free of 1"}));
    pass(seconds(20));
    EXPECT_EQ(take_reports(), Texts{});
}

TEST_F(LoopProbe, PortThatComesUpAgainIsProbedOneIntervalLater) {
    ports.plug(1, 3);
    model.set_admin(3, false);
    pass(seconds(7));
    take_reports();
    model.set_admin(3, true);
    pass(seconds(10));
    EXPECT_EQ(take_reports(), (Texts{"12 s: 1 loops with 3", "12 s: 3 loops with 1",
                                     "17 s: 1 loops with 3", "17 s: 3 loops with 1"}));
}

TEST_F(LoopProbe, PortsThatAreDownWhenTheyArePluggedWaitForNothing) {
    model.set_admin(3, false);
    ports.plug(1, 3);
    EXPECT_EQ(take_reports(), Texts{});
    EXPECT_EQ(loop.next_timer(), std::nullopt);
}

TEST_F(LoopProbe, OnlyProbedPortsReport) {
    probed = {3};
    ports.plug(1, 3);
    EXPECT_EQ(take_reports(), Texts{"0 s: 3 loops with 1"});
    probed = {1, 3};
    pass(seconds(5));
    EXPECT_EQ(take_reports(), (Texts{"5 s: 1 loops with 3", "5 s: 3 loops with 1"}));
}

TEST_F(LoopProbe, EndOfProbingIsReportedOnce) {
    ports.plug(1, 3);
    run();
    take_reports();
    probed.clear();
    pass(seconds(20));
    EXPECT_EQ(take_reports(), (Texts{"5 s: 1 is free of 3", "5 s: 3 is free of 1"}));
}

TEST_F(LoopProbe, ChosenPortReportsTheLoopAloneAndAsItsOwn) {
    alone = 3;
    ports.plug(1, 3);
    pass(seconds(5));
    EXPECT_EQ(take_reports(), (Texts{"0 s: 3 loops with 3", "5 s: 3 loops with 3"}));
    ports.unplug(1, 3);
    EXPECT_EQ(take_reports(), Texts{"5 s: 3 is free of 3"});
}

TEST_F(LoopProbe, ChosenPortThatIsNotProbedLeavesTheReportToTheOther) {
    alone = 3;
    probed = {1};
    ports.plug(1, 3);
    EXPECT_EQ(take_reports(), Texts{"0 s: 1 loops with 1"});
}

TEST_F(LoopProbe, GuardBlocksAPortForItsTime) {
    guard = std::chrono::milliseconds(1000);
    ports.plug(1, 3);
    EXPECT_EQ(take_reports(), Texts{});
    EXPECT_TRUE(probe.guarded(1) && probe.guarded(3));
    pass(seconds(1));
    EXPECT_EQ(take_reports(), (Texts{"1 s: 1 loops with 3", "1 s: 3 loops with 1"}));
    EXPECT_FALSE(probe.guarded(1) || probe.guarded(3));
    model.set_admin(3, false);
    take_reports();
    model.set_admin(3, true);
    EXPECT_TRUE(probe.guarded(3));
    model.set_admin(3, false);
    EXPECT_FALSE(probe.guarded(3));
    EXPECT_EQ(take_reports(), Texts{});
    EXPECT_EQ((Texts(guards.begin(), guards.begin() + 4)),
              (Texts{"1 held", "3 held", "1 open", "3 open"}));
}

TEST_F(LoopProbe, PortPluggedWithItselfReportsItself) {
    ports.plug(2, 2);
    EXPECT_EQ(take_reports(), Texts{"0 s: 2 loops with 2"});
    ports.unplug(2, 2);
    EXPECT_EQ(take_reports(), Texts{"0 s: 2 is free of 2"});
}

TEST_F(LoopProbe, DeletedPortEndsItsLoop) {
    ports.plug(1, 3);
    run();
    take_reports();
    ports.delete_port(1);
    EXPECT_EQ(take_reports(), (Texts{"0 s: 1 is free of 3", "0 s: 3 is free of 1"}));
}

TEST_F(LoopProbe, NothingIsLeftToWaitForWithoutACable) {
    ports.plug(1, 3);
    run();
    ports.unplug(1, 3);
    pass(seconds(5));
    EXPECT_EQ(loop.next_timer(), std::nullopt);
}

TEST_F(LoopProbe, EndThatCannotBeMadeKnownIsReportedLater) {
    ports.plug(1, 1);
    run();
    take_reports();
    away = true;
    ports.unplug(1, 1);
    pass(seconds(7));
    away = false;
    pass(seconds(7));
    EXPECT_EQ(take_reports(), Texts{"10 s: 1 is free of 1"});
    EXPECT_EQ(loop.next_timer(), std::nullopt);
}

TEST_F(LoopProbe, ChangeOfAPortDoesNotPutItsProbeOff) {
    ports.plug(1, 3);
    pass(seconds(4));
    take_reports();
    model.set_mode(1, SWPORT_MODE_TRUNK);
    pass(seconds(1));
    EXPECT_EQ(take_reports(), (Texts{"5 s: 1 loops with 3", "5 s: 3 loops with 1"}));
}

TEST_F(LoopProbe, CablePluggedInAfterALateReportIsProbedAtOnce) {
    ports.plug(1, 1);
    run();
    away = true;
    ports.unplug(1, 1);
    pass(seconds(2));
    away = false;
    pass(seconds(5));
    take_reports();
    ports.plug(1, 1);
    EXPECT_EQ(take_reports(), Texts{"7 s: 1 loops with 1"});
}

TEST_F(LoopProbe, CableMovedToAnotherPortIsANewLoop) {
    ports.plug(1, 3);
    run();
    take_reports();
    ports.unplug(1, 3);
    ports.plug(1, 4);
    pass(seconds(5));
    EXPECT_EQ(take_reports(),
              (Texts{"0 s: 1 is free of 3", "0 s: 3 is free of 1", "0 s: 1 loops with 4",
                     "0 s: 4 loops with 1", "5 s: 1 loops with 4", "5 s: 4 loops with 1"}));
}

}  // namespace
