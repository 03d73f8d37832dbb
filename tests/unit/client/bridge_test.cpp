#include "qv/bridge.h"

#include <gtest/gtest.h>

#include "tests/unit/client/ports_rig.h"

namespace {

using qv::Port;
using Texts = std::vector<std::string>;

Texts g_heard;
int g_connected = 0;

void on_event(uint32_t event, const void* payload) {
    const auto* change = static_cast<const bridge_mode_change*>(payload);
    g_heard.push_back(std::to_string(event) + ": port " + std::to_string(change->ifx) + " mode " +
                      std::to_string(change->mode));
}

class BridgeTest : public ::testing::Test {
 protected:
    BridgeTest() {
        for (const uint32_t ifx : {1u, 2u, 30u}) {
            rig.model.port_added(PortsRig::port(ifx));
        }
    }

    void select(uint32_t event) {
        bridge_event_set events{};
        events.word[event / 64] |= uint64_t{1} << (event % 64);
        EXPECT_EQ(bridge_client_reg_event(&events, on_event), 0);
    }

    void set_mode(uint32_t ifx, uint32_t mode) {
        rig.change(ifx, [mode](Port& port) { port.mode = mode; });
    }

    Texts heard() {
        rig.run();
        return std::exchange(g_heard, {});
    }

    PortsRig rig;
};

using Bridge = BridgeTest;

TEST_F(Bridge, ConnectCallbackRunsThroughTheLoop) {
    ASSERT_EQ(bridge_agent_init("LDA", rig.master()), 0);
    bridge_agent_set_connect_callback([] { ++g_connected; });
    EXPECT_EQ(g_connected, 0);
    rig.run();
    EXPECT_EQ(g_connected, 1);
}

TEST_F(Bridge, AgentWithoutAConnectCallbackIsStillConnected) {
    bridge_agent_set_connect_callback(nullptr);
    EXPECT_EQ(bridge_agent_init("LDA", rig.master()), 0);
    rig.run();
}

TEST_F(Bridge, ChangeBeforeTheSelectionIsNotReported) {
    EXPECT_EQ(bridge_agent_init("LDA", rig.master()), 0);
    set_mode(1, SWPORT_MODE_TRUNK);
    select(BRIDGE_EVENT_MODE_CHANGE);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Bridge, PortIsReportedWithItsAggregateAfterTheChange) {
    select(BRIDGE_EVENT_MODE_CHANGE);
    rig.change(1, [](Port& port) {
        port.mode = SWPORT_MODE_TRUNK;
        port.aggregate = 30;
    });
    EXPECT_EQ(heard(), Texts{});
    rig.change(1, [](Port& port) {
        port.mode = SWPORT_MODE_HYBRID;
        port.aggregate = 0;
    });
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(Bridge, AgentWithoutANameIsRefused) {
    EXPECT_EQ(bridge_agent_init(nullptr, rig.master()), -1);
}

TEST_F(Bridge, AgentWithoutAMasterIsRefused) {
    EXPECT_EQ(bridge_agent_init("LDA", nullptr), -1);
}

TEST_F(Bridge, ModeChangeIsReportedThroughTheLoopWithTheNewMode) {
    select(415);
    set_mode(2, SWPORT_MODE_HYBRID);
    EXPECT_EQ(g_heard, Texts{});
    EXPECT_EQ(heard(), Texts{"415: port 2 mode 7"});
}

TEST_F(Bridge, EachChangeIsReportedInOrder) {
    select(415);
    set_mode(2, SWPORT_MODE_TRUNK);
    set_mode(1, SWPORT_MODE_HYBRID);
    set_mode(2, SWPORT_MODE_ACCESS);
    EXPECT_EQ(heard(), (Texts{"415: port 2 mode 2", "415: port 1 mode 7", "415: port 2 mode 1"}));
}

TEST_F(Bridge, OtherSelectionGetsNothing) {
    select(414);
    set_mode(2, SWPORT_MODE_HYBRID);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Bridge, LaterSelectionReplacesTheEarlierOne) {
    select(415);
    select(3);
    set_mode(2, SWPORT_MODE_HYBRID);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Bridge, ChangeIsNotReportedAfterTheSelectionHasChanged) {
    select(415);
    set_mode(2, SWPORT_MODE_TRUNK);
    select(414);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Bridge, SelectionNeedsEventsAndAHandler) {
    const bridge_event_set events{};
    EXPECT_NE(bridge_client_reg_event(nullptr, on_event), 0);
    EXPECT_NE(bridge_client_reg_event(&events, nullptr), 0);
}

TEST_F(Bridge, OtherChangesOfAPortAreNotReported) {
    select(415);
    rig.change(2, [](Port& port) { port.oper_up = false; });
    rig.change(2, [](Port& port) { port.aggregate = 30; });
    rig.model.port_left_bridge(1);
    EXPECT_EQ(heard(), Texts{});
}

TEST_F(Bridge, OnlyTheAggregateSpeaksForItsMembers) {
    select(415);
    rig.change(2, [](Port& port) { port.aggregate = 30; });
    set_mode(2, SWPORT_MODE_TRUNK);
    EXPECT_EQ(heard(), Texts{});
    set_mode(30, SWPORT_MODE_HYBRID);
    EXPECT_EQ(heard(), Texts{"415: port 30 mode 7"});
}

TEST_F(Bridge, BothClientsReadTheModeOfAPort) {
    set_mode(2, SWPORT_MODE_HYBRID);
    uint32_t mode = 99;
    EXPECT_EQ(vl_clnt_get_portmode_by_index(2, &mode), 0);
    EXPECT_EQ(mode, 7u);
    mode = 99;
    EXPECT_EQ(swport_get_port_mode(2, &mode), 0);
    EXPECT_EQ(mode, 7u);
}

TEST_F(Bridge, UnknownPortHasModeZero) {
    uint32_t mode = 99;
    EXPECT_EQ(vl_clnt_get_portmode_by_index(9, &mode), -1);
    EXPECT_EQ(mode, 0u);
    mode = 99;
    EXPECT_EQ(swport_get_port_mode(9, &mode), -1);
    EXPECT_EQ(mode, 0u);
}

TEST_F(Bridge, ModesHaveNames) {
    EXPECT_STREQ(swport_vlan_mode_name(1), "access");
    EXPECT_STREQ(swport_vlan_mode_name(2), "trunk");
    EXPECT_STREQ(swport_vlan_mode_name(7), "hybrid");
    EXPECT_STREQ(swport_vlan_mode_name(0), "none");
    EXPECT_STREQ(swport_vlan_mode_name(3), "none");
}

}  // namespace
