#include "platform/client/port_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "qv/bridge.h"
#include "qv/ddm.h"
#include "tests/unit/client/ports_rig.h"

namespace {

using qv::Port;

class Recorder final : public qv::PortObserver {
 public:
    std::vector<std::string> heard;
    std::function<void(const Port&)> when_removed = [](const Port&) {
    };
    std::function<void(const Port&)> when_removing = [](const Port&) {
    };

    void on_added(const Port& port) override { note("added", port); }
    void on_removed(const Port& port) override {
        note("removed", port);
        when_removed(port);
    }
    void on_changed(const Port& before, const Port& after) override {
        heard.push_back("changed " + before.name + " to " + after.name);
    }
    void on_removing(const Port& port) override { when_removing(port); }
    void on_renamed(const Port& port) override { note("renamed", port); }
    void on_default(const Port& port) override { note("default", port); }
    void on_left_bridge(const Port& port) override { note("left", port); }
    void on_complete() override { heard.push_back("complete"); }

 private:
    void note(const char* what, const Port& port) { heard.push_back(what + (" " + port.name)); }
};

using Texts = std::vector<std::string>;

class PortModelTest : public ::testing::Test {
 protected:
    PortModelTest() { rig.model.add_observer(recorder); }

    Texts heard() { return std::exchange(recorder.heard, {}); }

    PortsRig rig;
    Recorder recorder;
};

using PortModel = PortModelTest;

TEST_F(PortModel, FindsPortsByIndexAndByName) {
    rig.model.port_added(PortsRig::port(7));
    ASSERT_NE(rig.model.find(7), nullptr);
    EXPECT_EQ(rig.model.find(7)->name, "swp7");
    EXPECT_EQ(rig.model.find("swp7"), rig.model.find(7));
    EXPECT_EQ(rig.model.find(8), nullptr);
    EXPECT_EQ(rig.model.find("swp"), nullptr);
}

TEST_F(PortModel, PortAddedTwiceIsOnePort) {
    rig.model.port_added(PortsRig::port(7));
    rig.model.port_added(PortsRig::port(7));
    EXPECT_EQ(rig.model.ports().size(), 1u);
    EXPECT_EQ(heard(), (Texts{"added swp7"}));
}

TEST_F(PortModel, PortReportedAgainWithAnotherNameIsAChange) {
    rig.model.port_added(PortsRig::port(7));
    Port renamed = PortsRig::port(7);
    renamed.name = "uplink";
    rig.model.port_added(renamed);
    EXPECT_EQ(heard(), (Texts{"added swp7", "changed swp7 to uplink", "renamed uplink"}));
    EXPECT_EQ(rig.model.find("swp7"), nullptr);
    EXPECT_NE(rig.model.find("uplink"), nullptr);
}

TEST_F(PortModel, PortsThatSwapTheirNamesAreFoundByTheNewOnes) {
    rig.model.port_added(PortsRig::port(1));
    rig.model.port_added(PortsRig::port(2));
    rig.change(1, [](Port& port) { port.name = "swp2"; });
    rig.change(2, [](Port& port) { port.name = "swp1"; });
    EXPECT_EQ(rig.model.find("swp1"), rig.model.find(2));
    EXPECT_EQ(rig.model.find("swp2"), rig.model.find(1));
    rig.model.port_removed(2);
    EXPECT_EQ(rig.model.find("swp1"), nullptr);
}

TEST_F(PortModel, ReportWithoutADifferenceIsNotAChange) {
    rig.model.port_added(PortsRig::port(7));
    rig.model.port_changed(PortsRig::port(7));
    EXPECT_EQ(heard(), (Texts{"added swp7"}));
}

TEST_F(PortModel, DifferenceInAnyFieldIsAChange) {
    const std::vector<void (*)(Port&)> changes = {
        [](Port& port) { port.phyid = 55; },         [](Port& port) { port.name = "uplink"; },
        [](Port& port) { port.type = 9; },           [](Port& port) { port.flags = 2; },
        [](Port& port) { port.switchport = false; }, [](Port& port) { port.mode = 7; },
        [](Port& port) { port.aggregate = 30; },     [](Port& port) { port.vsl = true; },
        [](Port& port) { port.admin_up = false; },   [](Port& port) { port.oper_up = false; },
    };
    rig.model.port_added(PortsRig::port(7));
    for (const auto change : changes) {
        heard();
        rig.change(7, change);
        const Texts texts = heard();
        EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                                [](auto& text) { return text.starts_with("changed "); }),
                  1);
        rig.change(7, change);
        EXPECT_EQ(heard(), Texts{});
    }
}

TEST_F(PortModel, ReportsAboutUnknownPortsAreDropped) {
    rig.model.port_changed(PortsRig::port(7));
    rig.model.port_removed(7);
    rig.model.port_left_bridge(7);
    rig.model.restore_defaults(7);
    EXPECT_EQ(heard(), Texts{});
    EXPECT_TRUE(rig.model.ports().empty());
}

TEST_F(PortModel, RemovedPortIsGoneWhenItsRemovalIsReported) {
    rig.model.port_added(PortsRig::port(7));
    bool known = true;
    recorder.when_removed = [&](const Port& port) {
        known = rig.model.find(port.ifx) || rig.model.find(port.name) || rig.model.find_phyid(107);
    };
    rig.model.port_removed(7);
    EXPECT_EQ(heard(), (Texts{"added swp7", "removed swp7"}));
    EXPECT_FALSE(known);
}

TEST_F(PortModel, PortThatLeftTheBridgeHasNoMode) {
    rig.model.port_added(PortsRig::port(7));
    rig.model.port_left_bridge(7);
    EXPECT_EQ(rig.model.find(7)->mode, SWPORT_MODE_NONE);
    EXPECT_EQ(heard(), (Texts{"added swp7", "left swp7"}));
}

TEST_F(PortModel, PortIsStillKnownWhenItsRemovalIsAnnounced) {
    rig.model.port_added(PortsRig::port(7));
    bool known = false;
    recorder.when_removing = [&](const Port& port) {
        known = rig.model.find(port.ifx) == &port && heard() == Texts{"added swp7"};
    };
    rig.model.port_removed(7);
    EXPECT_TRUE(known);
    EXPECT_EQ(heard(), Texts{"removed swp7"});
}

TEST_F(PortModel, PortThatLeavesTheBridgeIsReportedWithItsFormerMode) {
    rig.model.port_added(PortsRig::port(7));
    rig.change(7, [](Port& port) { port.mode = SWPORT_MODE_HYBRID; });
    class Modes final : public qv::PortObserver {
     public:
        uint32_t before = SWPORT_MODE_NONE;
        void on_added(const Port&) override {}
        void on_removed(const Port&) override {}
        void on_changed(const Port&, const Port&) override {}
        void on_default(const Port&) override {}
        void on_left_bridge(const Port& port) override { before = port.mode; }
        void on_complete() override {}
    } modes;
    rig.model.add_observer(modes);
    rig.model.port_left_bridge(7);
    EXPECT_EQ(modes.before, SWPORT_MODE_HYBRID);
    EXPECT_EQ(rig.model.find(7)->mode, SWPORT_MODE_NONE);
}

TEST_F(PortModel, RenameWaitsWhileTheOldNameIsInUse) {
    std::string in_use = "swp7";
    rig.model.set_name_in_use([&](const std::string& name) { return name == in_use; });
    rig.model.port_added(PortsRig::port(7));
    rig.change(7, [](Port& port) { port.name = "first"; });
    EXPECT_EQ(heard(), (Texts{"added swp7", "changed swp7 to first"}));
    rig.change(7, [](Port& port) { port.name = "second"; });
    rig.model.settle_renames();
    EXPECT_EQ(heard(), Texts{"changed first to second"}) << "it is the first name that counts";
    in_use.clear();
    rig.model.settle_renames();
    rig.model.settle_renames();
    EXPECT_EQ(heard(), Texts{"renamed second"});
}

TEST_F(PortModel, PortThatGetsItsOldNameBackWasNeverRenamed) {
    bool in_use = true;
    rig.model.set_name_in_use([&](const std::string&) { return in_use; });
    rig.model.port_added(PortsRig::port(7));
    rig.change(7, [](Port& port) { port.name = "other"; });
    rig.change(7, [](Port& port) { port.name = "swp7"; });
    in_use = false;
    rig.model.settle_renames();
    EXPECT_EQ(heard(), (Texts{"added swp7", "changed swp7 to other", "changed other to swp7"}));
}

TEST_F(PortModel, RenameOfARemovedPortIsDropped) {
    bool in_use = true;
    rig.model.set_name_in_use([&](const std::string&) { return in_use; });
    rig.model.port_added(PortsRig::port(7));
    rig.change(7, [](Port& port) { port.name = "other"; });
    rig.model.port_removed(7);
    in_use = false;
    rig.model.settle_renames();
    EXPECT_EQ(heard(), (Texts{"added swp7", "changed swp7 to other", "removed other"}));
}

TEST_F(PortModel, CompletionIsReportedOnce) {
    EXPECT_FALSE(rig.model.complete());
    rig.model.ports_complete();
    rig.model.ports_complete();
    EXPECT_TRUE(rig.model.complete());
    EXPECT_EQ(heard(), Texts{"complete"});
}

TEST_F(PortModel, RequestsReachTheDriverAndReturnItsReason) {
    rig.model.port_added(PortsRig::port(7));
    EXPECT_EQ(rig.model.set_admin(7, false), "");
    rig.driver.answer = "Operation not permitted";
    EXPECT_EQ(rig.model.set_mode(7, SWPORT_MODE_TRUNK), "Operation not permitted");
    EXPECT_EQ(rig.driver.requests, (Texts{"admin 7 down", "mode 7 2"}));
}

TEST_F(PortModel, RequestForAnUnknownPortNeverReachesTheDriver) {
    EXPECT_EQ(rig.model.set_admin(7, true), "no such port");
    EXPECT_EQ(rig.model.set_mode(7, SWPORT_MODE_ACCESS), "no such port");
    EXPECT_EQ(rig.driver.requests, Texts{});
}

TEST_F(PortModel, DefaultsAreReportedToTheObservers) {
    rig.model.port_added(PortsRig::port(7));
    rig.model.restore_defaults(7);
    EXPECT_EQ(heard(), (Texts{"added swp7", "default swp7"}));
}

TEST_F(PortModel, DeviceMappingWorksBothWays) {
    rig.model.port_added(PortsRig::port(7));
    uint32_t id = 0;
    EXPECT_EQ(libddm_get_phyid_by_ifx(7, &id), 0);
    EXPECT_EQ(id, 107u);
    uint32_t ifx = 0;
    EXPECT_EQ(libddm_get_ifx_by_phyid(107, &ifx), 0);
    EXPECT_EQ(ifx, 7u);
}

TEST_F(PortModel, PortsThatSwapTheirForwardingPlaneIdsAreFoundByTheNewOnes) {
    rig.model.port_added(PortsRig::port(7));
    rig.model.port_added(PortsRig::port(8));
    Port seven = PortsRig::port(7);
    Port eight = PortsRig::port(8);
    std::swap(seven.phyid, eight.phyid);
    rig.model.port_changed(seven);  // for a moment both have id 108
    uint32_t ifx = 0;
    EXPECT_EQ(libddm_get_ifx_by_phyid(108, &ifx), 0);
    EXPECT_EQ(ifx, 7u);
    EXPECT_NE(libddm_get_ifx_by_phyid(107, &ifx), 0);
    rig.model.port_changed(eight);
    EXPECT_EQ(libddm_get_ifx_by_phyid(108, &ifx), 0);
    EXPECT_EQ(ifx, 7u);
    EXPECT_EQ(libddm_get_ifx_by_phyid(107, &ifx), 0);
    EXPECT_EQ(ifx, 8u);
    rig.model.port_removed(7);
    EXPECT_NE(libddm_get_ifx_by_phyid(108, &ifx), 0);
}

TEST_F(PortModel, DeviceMappingOfAnUnknownPortLeavesTheResultAlone) {
    uint32_t result = 55;
    EXPECT_NE(libddm_get_phyid_by_ifx(7, &result), 0);
    EXPECT_NE(libddm_get_ifx_by_phyid(107, &result), 0);
    EXPECT_EQ(result, 55u);
}

TEST_F(PortModel, AggregatePortHasNoForwardingPlaneId) {
    Port aggregate = PortsRig::port(30);
    aggregate.phyid = 0;
    rig.model.port_added(aggregate);
    uint32_t result = 55;
    EXPECT_NE(libddm_get_phyid_by_ifx(30, &result), 0);
    EXPECT_NE(libddm_get_ifx_by_phyid(0, &result), 0);
    EXPECT_EQ(result, 55u);
}

}  // namespace
