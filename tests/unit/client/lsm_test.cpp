#include "qv/lsm.h"

#include <cstring>

#include <gtest/gtest.h>

#include "qv/bridge.h"
#include "tests/unit/client/ports_rig.h"

namespace {

using qv::Port;
using Texts = std::vector<std::string>;

Texts g_heard;
int g_connected = 0;
void (*g_inside)() = nullptr;  // runs inside the next handler call

std::string text(const char* name, uint32_t event, const void* message) {
    std::string line = name + (" " + std::to_string(event));
    return message ? line + " port " + std::to_string(*static_cast<const uint32_t*>(message))
                   : line;
}

void note(const char* name, uint32_t event, const void* message) {
    g_heard.push_back(text(name, event, message));
    if (auto* const act = std::exchange(g_inside, nullptr)) {
        act();
    }
}

void on_port(uint32_t event, void* message) {
    note("port", event, message);
}
void on_bridge(uint32_t event, void* message) {
    note("bridge", event, message);
}

void on_aggregate(uint32_t event, void* message) {
    if (!message) {
        note("aggregate", event, message);
        return;
    }
    uint32_t words[LSM_AGGREGATE_MESSAGE_WORDS];
    std::memcpy(words, message, sizeof words);
    g_heard.push_back("aggregate " + std::to_string(event) +
                      (words[0] == 0 ? " joined " : " left ") + std::to_string(words[1]) + " by " +
                      std::to_string(words[34]));
}

void on_layer(uint32_t event, void* message) {
    if (!message) {
        note("layer", event, message);
        return;
    }
    uint32_t words[LSM_LAYER_MESSAGE_WORDS];
    std::memcpy(words, message, sizeof words);
    g_heard.push_back("layer " + std::to_string(event) + " port " + std::to_string(words[0]) +
                      " flags " + std::to_string(words[56]));
}

// Registers like the agent: switched ports in the four classes, and the existing ports.
void register_all() {
    ++g_connected;
    uint8_t types[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};  // 2 to 10
    lsm_client_set_mode(2);
    lsm_client_reg_event_ex(LSM_CLASS_PORT, types, 0x7);
    lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
    lsm_client_reg_event_ex(LSM_CLASS_BRIDGE, types, 0x7);
    lsm_reg_msg_handler_ex(LSM_CLASS_BRIDGE, on_bridge);
    lsm_client_reg_event_ex(LSM_CLASS_AGGREGATE, types, 0x800);
    lsm_reg_msg_handler_ex(LSM_CLASS_AGGREGATE, on_aggregate);
    lsm_client_reg_event_ex(LSM_CLASS_LAYER, types, 0x3);
    lsm_reg_msg_handler_ex(LSM_CLASS_LAYER, on_layer);
    lsm_client_reg_event_over();
}

class LsmTest : public ::testing::Test {
 protected:
    void add(uint32_t ifx, uint32_t type = LSM_TYPE_ETHERNET) {
        Port port = PortsRig::port(ifx);
        port.type = type;
        rig.model.port_added(port);
    }

    void connect(void (*callback)()) {
        lsm_agent_set_connect_callback(callback);
        ASSERT_EQ(lsm_agent_init("LDA", rig.master()), 0);
        rig.run();
    }

    // Connects with three ports, and receives their announcement.
    void start() {
        add(1);
        add(2);
        add(30, LSM_TYPE_AGGREGATE);
        rig.model.ports_complete();
        connect(register_all);
        g_heard.clear();
    }

    Texts heard() {
        rig.run();
        return std::exchange(g_heard, {});
    }

    PortsRig rig;
};

using Lsm = LsmTest;

TEST_F(Lsm, ConnectCallbackRunsThroughTheLoop) {
    lsm_agent_set_connect_callback([] { ++g_connected; });
    ASSERT_EQ(lsm_agent_init("LDA", rig.master()), 0);
    EXPECT_EQ(g_connected, 0);
    rig.run();
    EXPECT_EQ(g_connected, 1);
}

TEST_F(Lsm, AgentWithoutAMasterOrANameIsRefused) {
    EXPECT_EQ(lsm_agent_init("LDA", nullptr), -1);
    EXPECT_EQ(lsm_agent_init(nullptr, rig.master()), -1);
}

TEST_F(Lsm, AgentWithoutAConnectCallbackIsStillConnected) {
    lsm_agent_set_connect_callback(nullptr);
    EXPECT_EQ(lsm_agent_init("LDA", rig.master()), 0);
    rig.run();
}

TEST_F(Lsm, SelectionWithoutTypesIsRefused) {
    EXPECT_EQ(lsm_client_reg_event_ex(LSM_CLASS_PORT, nullptr, 0x7), -1);
}

TEST_F(Lsm, ExistingPortsAreAnnouncedBeforeEveryHandlerGetsPortReady) {
    add(2);
    add(1);
    add(30, LSM_TYPE_AGGREGATE);
    rig.model.ports_complete();
    connect(register_all);
    EXPECT_EQ(heard(), (Texts{"port 0 port 1", "port 0 port 2", "port 0 port 30", "layer 48",
                              "bridge 48", "port 48", "aggregate 48"}));
}

TEST_F(Lsm, PortsThatCompleteAfterRegistrationAreAnnouncedWhenTheyDo) {
    add(1);
    connect(register_all);
    EXPECT_EQ(heard(), (Texts{"port 0 port 1"}));
    add(2);
    EXPECT_EQ(heard(), (Texts{"port 0 port 2"}));
    rig.model.ports_complete();
    EXPECT_EQ(heard(), (Texts{"layer 48", "bridge 48", "port 48", "aggregate 48"}));
}

TEST_F(Lsm, HandlerOfTwoClassesGetsPortReadyOnce) {
    rig.model.ports_complete();
    connect([] {
        lsm_client_set_mode(2);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_reg_msg_handler_ex(LSM_CLASS_AGGREGATE, on_port);
        lsm_client_reg_event_over();
    });
    EXPECT_EQ(heard(), Texts{"port 48"});
}

TEST_F(Lsm, WithoutModeTwoOnlyLaterPortsAreAnnounced) {
    add(1);
    rig.model.ports_complete();
    connect([] {
        const uint8_t types[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};
        lsm_client_reg_event_ex(LSM_CLASS_PORT, types, 0x7);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_client_reg_event_over();
    });
    EXPECT_EQ(heard(), Texts{});
    add(2);
    EXPECT_EQ(heard(), (Texts{"port 0 port 2"}));
}

TEST_F(Lsm, WithoutModeTwoInitialPortsAreNotAnnounced) {
    connect([] {
        const uint8_t types[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};
        lsm_client_reg_event_ex(LSM_CLASS_PORT, types, 0x7);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_client_reg_event_over();
    });
    add(1);
    rig.model.ports_complete();
    EXPECT_EQ(heard(), Texts{});
    add(2);
    EXPECT_EQ(heard(), (Texts{"port 0 port 2"}));
}

TEST_F(Lsm, NothingIsReportedBeforeTheRegistrationIsOver) {
    rig.model.ports_complete();
    connect([] {
        const uint8_t types[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};
        lsm_client_set_mode(2);
        lsm_client_reg_event_ex(LSM_CLASS_PORT, types, 0x7);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
    });
    add(1);
    EXPECT_EQ(heard(), Texts{});
    lsm_client_reg_event_over();
    EXPECT_EQ(heard(), (Texts{"port 0 port 1", "port 48"}));
}

TEST_F(Lsm, PortsThatCompleteBeforeTheRegistrationIsOverAreAnnouncedAfterIt) {
    connect([] {
        lsm_client_set_mode(2);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
    });
    rig.model.ports_complete();
    EXPECT_EQ(heard(), Texts{});
    lsm_client_reg_event_over();
    EXPECT_EQ(heard(), Texts{"port 48"});
}

TEST_F(Lsm, EventThatTwoSelectionsCoverIsReportedOnce) {
    rig.model.ports_complete();
    connect([] {
        const uint8_t switched[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};
        const uint8_t ethernet[LSM_TYPE_BITMAP_BYTES] = {0x04};
        lsm_client_reg_event_ex(LSM_CLASS_PORT, switched, 0x7);
        lsm_client_reg_event_ex(LSM_CLASS_PORT, ethernet, 0x3);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_client_reg_event_over();
    });
    add(1);
    rig.model.port_removed(1);
    EXPECT_EQ(heard(), (Texts{"port 0 port 1", "port 1 port 1"}));
}

TEST_F(Lsm, AddDeleteAndDefaultReachTheClassOfPorts) {
    start();
    add(3);
    rig.model.restore_defaults(3);
    rig.model.port_removed(3);
    EXPECT_EQ(heard(), (Texts{"port 0 port 3", "port 2 port 3", "port 1 port 3"}));
}

TEST_F(Lsm, RenamedPortIsReportedAsRemovedAndAdded) {
    start();
    rig.change(1, [](Port& port) { port.name = "uplink"; });
    EXPECT_EQ(heard(), (Texts{"port 1 port 1", "port 0 port 1"}));
    char name[16];
    EXPECT_EQ(lsm_if_get_sname(1, name, sizeof name), 0);
    EXPECT_STREQ(name, "uplink");
}

TEST_F(Lsm, HandlerNeverRunsInsideTheChange) {
    start();
    add(3);
    EXPECT_EQ(g_heard, Texts{});
    EXPECT_EQ(heard(), (Texts{"port 0 port 3"}));
}

TEST_F(Lsm, PortRemovedBeforeItsEventIsReportedKeepsTheOrder) {
    start();
    add(3);
    rig.model.port_removed(3);
    EXPECT_EQ(lsm_if_get_type(3), 0u);
    EXPECT_EQ(heard(), (Texts{"port 0 port 3", "port 1 port 3"}));
}

TEST_F(Lsm, ChangeMadeInsideAHandlerIsReportedAfterIt) {
    start();
    add(3);
    g_inside = [] {
        qv::platform().ports().port_removed(3);
    };
    EXPECT_EQ(heard(), (Texts{"port 0 port 3", "port 1 port 3"}));
}

TEST_F(Lsm, UnselectedTypesAreNotReported) {
    start();
    add(40, LSM_TYPE_OTHER);
    add(41, LSM_TYPE_VLAN);
    add(42, 200);
    rig.model.port_removed(41);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Lsm, UnselectedEventsAreNotReported) {
    rig.model.ports_complete();
    connect([] {
        const uint8_t types[LSM_TYPE_BITMAP_BYTES] = {0xfc, 0x07};
        lsm_client_reg_event_ex(LSM_CLASS_PORT, types, 0x2);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_client_reg_event_over();
    });
    add(1);
    rig.model.restore_defaults(1);
    rig.model.port_removed(1);
    EXPECT_EQ(heard(), (Texts{"port 1 port 1"}));
}

TEST_F(Lsm, LaterSelectionOfTheSameClassAddsToTheEarlierOne) {
    rig.model.ports_complete();
    connect([] {
        const uint8_t ethernet[LSM_TYPE_BITMAP_BYTES] = {0x04};
        const uint8_t vlan[LSM_TYPE_BITMAP_BYTES] = {0, 0x08};
        lsm_client_reg_event_ex(LSM_CLASS_PORT, ethernet, 0x1);
        lsm_client_reg_event_ex(LSM_CLASS_PORT, vlan, 0x2);
        lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port);
        lsm_client_reg_event_over();
    });
    add(1);
    add(41, LSM_TYPE_VLAN);
    rig.model.port_removed(1);
    rig.model.port_removed(41);
    EXPECT_EQ(heard(), (Texts{"port 0 port 1", "port 1 port 41"}));
}

TEST_F(Lsm, LeavingTheBridgeReachesItsClass) {
    start();
    rig.model.port_left_bridge(2);
    EXPECT_EQ(heard(), (Texts{"bridge 1 port 2"}));
}

TEST_F(Lsm, AggregateMembershipReportsChangeAggregateAndMember) {
    start();
    rig.change(2, [](Port& port) { port.aggregate = 30; });
    EXPECT_EQ(heard(), (Texts{"aggregate 11 joined 30 by 2"}));
    rig.change(2, [](Port& port) { port.aggregate = 0; });
    EXPECT_EQ(heard(), (Texts{"aggregate 11 left 30 by 2"}));
}

TEST_F(Lsm, MoveBetweenAggregatesLeavesTheOldOneFirst) {
    start();
    rig.change(2, [](Port& port) { port.aggregate = 30; });
    rig.change(2, [](Port& port) { port.aggregate = 31; });
    EXPECT_EQ(heard(), (Texts{"aggregate 11 joined 30 by 2", "aggregate 11 left 30 by 2",
                              "aggregate 11 joined 31 by 2"}));
}

TEST_F(Lsm, VirtualSwitchLinkIsReportedWithItsFlag) {
    start();
    rig.change(2, [](Port& port) { port.vsl = true; });
    rig.change(2, [](Port& port) { port.vsl = false; });
    EXPECT_EQ(heard(), (Texts{"layer 0 port 2 flags 1024", "layer 1 port 2 flags 0"}));
}

TEST_F(Lsm, StateChangesOfOtherKindsAreNotReported) {
    start();
    rig.change(2, [](Port& port) { port.admin_up = port.oper_up = false; });
    rig.change(2, [](Port& port) { port.mode = SWPORT_MODE_HYBRID; });
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Lsm, ClassWithoutAHandlerIsDropped) {
    start();
    lsm_reg_msg_handler_ex(LSM_CLASS_PORT, nullptr);
    add(3);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Lsm, NameIsCutToTheRoomThatIsThere) {
    start();
    char name[5];
    EXPECT_EQ(lsm_if_get_sname(30, name, sizeof name), 0);
    EXPECT_STREQ(name, "swp3");
}

TEST_F(Lsm, UnknownPortHasEmptyNameNoTypeNoBlockAndIsHidden) {
    char name[8] = "before";
    EXPECT_EQ(lsm_if_get_sname(9, name, sizeof name), -1);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(lsm_if_get_type(9), 0u);
    EXPECT_EQ(lsm_get_intfcb(9), nullptr);
    EXPECT_EQ(lsm_if_get_flags(9), LSM_IF_FLAG_HIDDEN);
}

TEST_F(Lsm, ControlBlockShowsSwitchPortsAndFollowsThePort) {
    start();
    const lsm_intfcb* block = lsm_get_intfcb(2);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->ifx, 2u);
    EXPECT_EQ(block->flags, LSM_INTFCB_FLAG_SWITCHPORT);
    EXPECT_EQ(lsm_get_intfcb(2), block);
    rig.change(2, [](Port& port) { port.switchport = false; });
    EXPECT_EQ(block->flags, 0u);
}

TEST_F(Lsm, FlagsAreThoseOfThePort) {
    Port port = PortsRig::port(5);
    EXPECT_EQ((rig.model.port_added(port), lsm_if_get_flags(5)), 0u);
    rig.change(5, [](Port& changed) { changed.flags = LSM_IF_FLAG_HIDDEN; });
    EXPECT_EQ(lsm_if_get_flags(5), LSM_IF_FLAG_HIDDEN);
}

TEST_F(Lsm, WalkGoesUpTheIndexesAndStopsAtTheFirstResult) {
    add(7);
    add(1);
    add(4);
    std::vector<uint32_t> seen;
    const auto all = [](uint32_t ifx, void* arg) {
        static_cast<std::vector<uint32_t>*>(arg)->push_back(ifx);
        return 0;
    };
    EXPECT_EQ(lsm_walk_through_ex(all, &seen), 0);
    EXPECT_EQ(seen, (std::vector<uint32_t>{1, 4, 7}));
    const auto until_four = [](uint32_t ifx, void*) {
        return ifx == 4 ? -5 : 0;
    };
    EXPECT_EQ(lsm_walk_through_ex(until_four, nullptr), -5);
}

TEST_F(Lsm, PortsMayBeRemovedDuringTheWalk) {
    for (uint32_t ifx = 1; ifx <= 4; ifx++) {
        add(ifx);
    }
    std::vector<uint32_t> seen;
    const auto remove_two = [](uint32_t ifx, void* arg) {
        static_cast<std::vector<uint32_t>*>(arg)->push_back(ifx);
        qv::platform().ports().port_removed(ifx);
        qv::platform().ports().port_removed(ifx + 1);
        return ifx > 4 ? -1 : 0;
    };
    EXPECT_EQ(lsm_walk_through_ex(remove_two, &seen), 0);
    EXPECT_EQ(seen, (std::vector<uint32_t>{1, 3}));
}

}  // namespace
