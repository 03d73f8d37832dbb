// The C functions of qv/lsm.h and qv/bridge.h when operator new fails.
#include <cerrno>

#include <gtest/gtest.h>

#include "qv/bridge.h"
#include "qv/lsm.h"
#include "tests/support/memory_shortage.h"
#include "tests/unit/client/ports_rig.h"

namespace {

using qv::test::without_memory;

int g_connections = 0;
int g_events = 0;

void on_connect() {
    ++g_connections;
}

void on_port_event(uint32_t /*event*/, void* /*message*/) {
    ++g_events;
}

void on_mode_event(uint32_t /*event*/, const void* /*payload*/) {
    ++g_events;
}

constexpr uint8_t kAllTypes[LSM_TYPE_BITMAP_BYTES] = {0xff, 0xff};

TEST(MemoryShortage, EachCallOfThePortClientReturnsItsError) {
    PortsRig rig;
    rig.model.port_added(PortsRig::port(7));
    rig.model.ports_complete();
    lsm_agent_set_connect_callback(on_connect);
    EXPECT_EQ(without_memory([&] { return lsm_agent_init("LDA", rig.master()); }), -1);
    EXPECT_EQ(without_memory([] { return lsm_client_set_mode(2); }), -1);
    ASSERT_EQ(lsm_agent_init("LDA", rig.master()), 0);
    rig.run();
    EXPECT_EQ(g_connections, 1);

    EXPECT_EQ(
        without_memory([] { return lsm_client_reg_event_ex(LSM_CLASS_PORT, kAllTypes, 0x7); }), -1);
    EXPECT_EQ(without_memory([] { return lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port_event); }),
              -1);
    EXPECT_EQ(without_memory([] { return lsm_get_intfcb(7); }), nullptr);

    EXPECT_EQ(lsm_client_set_mode(2), 0);
    EXPECT_EQ(lsm_client_reg_event_ex(LSM_CLASS_PORT, kAllTypes, 0x7), 0);
    EXPECT_EQ(lsm_reg_msg_handler_ex(LSM_CLASS_PORT, on_port_event), 0);
    EXPECT_EQ(without_memory([] { return lsm_client_reg_event_over(); }), -1);
    rig.run();
    EXPECT_EQ(g_events, 0);
    EXPECT_EQ(lsm_client_reg_event_over(), 0);
    rig.run();
    EXPECT_EQ(g_events, 2) << "the port, and that it was the last one";
    ASSERT_NE(lsm_get_intfcb(7), nullptr);
    EXPECT_EQ(lsm_get_intfcb(7)->ifx, 7U);
}

TEST(MemoryShortage, EachCallOfTheBridgeClientReturnsItsError) {
    PortsRig rig;
    rig.model.port_added(PortsRig::port(7));
    bridge_event_set events{};
    events.word[BRIDGE_EVENT_MODE_CHANGE / 64] = uint64_t{1} << (BRIDGE_EVENT_MODE_CHANGE % 64);
    bridge_agent_set_connect_callback(on_connect);
    EXPECT_EQ(without_memory([&] { return bridge_agent_init("LDA", rig.master()); }), -1);
    EXPECT_EQ(without_memory([&] { return bridge_client_reg_event(&events, on_mode_event); }),
              ENOMEM);
    ASSERT_EQ(bridge_agent_init("LDA", rig.master()), 0);
    rig.run();
    EXPECT_EQ(g_connections, 1);
    EXPECT_EQ(bridge_client_reg_event(&events, on_mode_event), 0);
    rig.change(7, [](qv::Port& port) { port.mode = SWPORT_MODE_TRUNK; });
    rig.run();
    EXPECT_EQ(g_events, 1);
}

}  // namespace
