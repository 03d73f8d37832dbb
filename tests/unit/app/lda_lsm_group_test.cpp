// Port events that concern groups of ports: aggregates, the bridge, virtual-switch links.
#include <array>

#include "lda_lsm.h"
#include "lda_state.h"
#include "storm_cli.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

// Removal of a port's storm rule, which the linker redirects: the test sets the result.
int removal_result = 0;
int real_storm_removal(uint32_t phyid) __asm__("__real__Z22storm_del_storm_detectj");
int wrap_storm_removal(uint32_t phyid) __asm__("__wrap__Z22storm_del_storm_detectj");
int wrap_storm_removal(uint32_t phyid) {
    return removal_result != 0 ? removal_result : real_storm_removal(phyid);
}

namespace {

class LsmGroup : public StartedAgent {
 protected:
    static void membership(uint32_t type, uint32_t aggregate, uint32_t member) {
        std::array<uint32_t, LSM_AGGREGATE_MESSAGE_WORDS> message{};
        message[0] = type;
        message[1] = aggregate;
        message[34] = member;
        lda_lsm_event_handle(11, message.data());
    }
    static void layer(uint32_t event, uint32_t ifx, uint32_t flags) {
        std::array<uint32_t, LSM_LAYER_MESSAGE_WORDS> message{};
        message[0] = ifx;
        message[56] = flags;
        lda_lsm_layer_inline_handle(event, message.data());
    }
};

// ---- Aggregate-port membership ----

TEST_F(LsmGroup, JoiningAnAggregateConfiguresThePortAndTakesItsMode) {
    fake::add_port({.ifx = 100, .name = "agg1", .type = 10, .mode = 7});
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    log_everything();
    membership(0, 100, 7);
    expect_golden("lda_lsm_group/joining_an_aggregate", fake::take_calls());
    EXPECT_EQ(record->mode_arg, 100);
    EXPECT_EQ(record->mode, 7u);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LsmGroup, JoiningWhileDetectionIsDisabledExecutesNothing) {
    fake::add_port(100, 7);
    lda_intf_t* record = add(7, 1);
    membership(0, 100, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{"swport_get_port_mode 100", "swport_vlan_mode_name 7"}));
    EXPECT_EQ(record->mode_arg, 100);
    EXPECT_EQ(record->mode, 7u);
}

TEST_F(LsmGroup, LoopedMemberThatLeavesTheShuttableModesIsAnnounced) {
    fake::add_port(100, 2);
    looped(7, 1, 2);
    membership(0, 100, 7);
    EXPECT_EQ(fake::calls_of({"nc_lib_notification_send", "qv_mom_set", "qv_mom_del"}),
              (Lines{notification("swp7", 1, 0, 0), entry_set("swp7", 0, 0)}));
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LsmGroup, MemberStoresItsAggregateBeforeItIsRejudged) {
    fake::add_port(100, 2);
    lda_intf_t* record = looped(7, 1, 2);
    int32_t aggregate = 0;
    fake::on_call("nc_lib_notification_send", [&] { aggregate = record->mode_arg; });
    membership(0, 100, 7);
    EXPECT_EQ(aggregate, 100);
}

TEST_F(LsmGroup, MemberIsRejudgedByItsStateBeforeItsLinesWereExecuted) {
    fake::add_port(100, 7);
    lda_intf_t* record = looped(7, 1, 2);
    fake::on_call("cli_execute_cmd_buf_fd", [&] { record->is_shutdown = 1; });
    membership(0, 100, 7);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

TEST_F(LsmGroup, LoopedMemberThatStaysInTheShuttableModesIsNotAnnounced) {
    fake::add_port(100, 7);
    lda_intf_t* record = looped(7, 1, 1);
    membership(0, 100, 7);
    EXPECT_EQ(fake::calls_of({"nc_lib_notification_send", "qv_mom_set", "qv_mom_del"}), Lines{});
    EXPECT_EQ(record->mode, 7u);
}

TEST_F(LsmGroup, LeavingAnAggregateOnlyRestoresTheModeOfThePort) {
    fake::add_port(100, 2);
    lda_intf_t* record = looped(7, 1, 2);
    record->mode = 2;
    record->mode_arg = 100;
    log_everything();
    membership(1, 100, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"swport_get_port_mode 100", "swport_vlan_mode_name 2",
                     info("lda_lsm_ap_mem_chg_proc", "type=1 apifx=100 ifx=7 2 trunk\n"),
                     "swport_get_port_mode 7"}));
    EXPECT_EQ(record->mode, 1u);
    EXPECT_EQ(record->mode_arg, 0);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LsmGroup, OtherMembershipChangesDoNothing) {
    fake::add_port(100, 7);
    lda_intf_t* record = looped(7, 1, 2);
    membership(2, 100, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{"swport_get_port_mode 100", "swport_vlan_mode_name 7"}));
    EXPECT_EQ(record->mode, 1u);
    EXPECT_EQ(record->mode_arg, 0);
}

TEST_F(LsmGroup, MembershipOfAnUnknownPortIsReported) {
    fake::add_port(100, 7);
    lda_loop_detect_ptype_set(2);
    for (uint32_t type : {0u, 1u}) {
        membership(type, 100, 7);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{"swport_get_port_mode 100", "swport_vlan_mode_name 7",
                         error("lda_lsm_ap_mem_chg_proc", "get loop failed, ifx=7\n")}));
    }
    EXPECT_TRUE(records().empty());
}

// ---- Bridge membership ----

TEST_F(LsmGroup, LeavingTheBridgeRejudgesThePort) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    log_everything();
    uint32_t word = 7;
    lda_lsm_bridge_event_handle(1, &word);
    expect_golden("lda_lsm_group/held_port_leaves_the_bridge", fake::take_calls());
    EXPECT_EQ(record->mode, 0u);
    EXPECT_EQ(record->is_shutdown, 0);
}

// The mode is stored before the port is judged, so the judgement sees no change of the mode.
TEST_F(LsmGroup, LoopedPortThatIsNotHeldLeavesTheBridgeWithoutANotification) {
    lda_intf_t* record = looped(7, 1, 1);
    uint32_t word = 7;
    lda_lsm_bridge_event_handle(1, &word);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(record->mode, 0u);
    EXPECT_EQ(record->total_result, 1);
}

TEST_F(LsmGroup, AggregateWithoutARecordThatLeavesTheBridgeRejudgesItsMembers) {
    lda_intf_t* first = looped(7, 1, 2);
    lda_intf_t* second = add(8, 1);
    lda_intf_t* other = add(9, 1);
    first->mode_arg = second->mode_arg = 100;
    log_everything();
    uint32_t word = 100;
    lda_lsm_bridge_event_handle(1, &word);
    expect_golden("lda_lsm_group/aggregate_leaves_the_bridge", fake::take_calls());
    EXPECT_EQ(first->mode, 0u);
    EXPECT_EQ(second->mode, 0u);
    EXPECT_EQ(other->mode, 1u);
}

TEST_F(LsmGroup, OtherBridgeEventsAreOnlyLogged) {
    looped(7, 1, 2);
    log_everything();
    uint32_t word = 7;
    lda_lsm_bridge_event_handle(48, nullptr);
    lda_lsm_bridge_event_handle(0, &word);
    lda_lsm_bridge_event_handle(2, &word);
    EXPECT_EQ(fake::take_calls(), (Lines{info("lda_lsm_bridge_event_handle", "event = 48\n"),
                                         info("lda_lsm_bridge_event_handle", "event = 0\n"),
                                         info("lda_lsm_bridge_event_handle", "event = 2\n")}));
    EXPECT_EQ(lsm_port_ready, 0);
}

TEST_F(LsmGroup, BridgeEventWithoutAMessageIsReported) {
    lda_lsm_bridge_event_handle(1, nullptr);
    EXPECT_EQ(fake::take_calls(),
              Lines{error("lda_lsm_bridge_event_handle", "LDA:receive lsm event=1, msgp=NULL\n")});
}

// ---- Virtual-switch links ----

TEST_F(LsmGroup, LayerEventWithoutAMessageDoesNothing) {
    log_everything();
    lda_lsm_layer_inline_handle(0, nullptr);
    lda_lsm_layer_inline_handle(1, nullptr);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LsmGroup, LayerEventsWaitForTheCommandLine) {
    lda_intf_t* record = add(7);
    layer(0, 7, 0x400);
    layer(1, 8, 0x400);
    EXPECT_EQ(fake::take_calls(),
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: create vsl"),
                     warn("lda_lsm_layer_inline_handle", "cli is not ready."),
                     warn("lda_lsm_layer_inline_handle", "GET vsl information: remove vsl"),
                     warn("lda_lsm_layer_inline_handle", "cli is not ready.")}));
    EXPECT_EQ(record->vsl_member, 0u);
    EXPECT_EQ(records().size(), 1u);
}

TEST_F(LsmGroup, OtherLayerEventsOnlyLogRemove) {
    add(7);
    cli_ready = 1;
    layer(0, 7, 0x200);
    layer(2, 8, 0x400);
    EXPECT_EQ(fake::take_calls(),
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: create vsl"),
                     warn("lda_lsm_layer_inline_handle", "GET vsl information: remove vsl")}));
    EXPECT_EQ(records().size(), 1u);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, VslPortKeepsItsRecordWhileDetectionIsDisabled) {
    lda_intf_t* record = looped(7, 1, 0);
    record->storm_result = 1;
    cli_ready = 1;
    log_everything();
    layer(0, 7, 0x401);
    expect_golden("lda_lsm_group/vsl_port_while_disabled", fake::take_calls());
    EXPECT_EQ(records(), std::vector<lda_intf_t*>{record});
    EXPECT_EQ(record->vsl_member, 1u);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->storm_result, 0);
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(record->mode, 0u);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, VslConversionRemovesRecordRuleAndSettingsWhileDetectionIsActive) {
    add(7);
    fake::mom_connect(8);
    cli_ready = 1;
    lda_loop_detect_ptype_set(1);
    storm_set(7, true);
    storm_set_burst_limit(7, 500, 0, true);
    fake::clear_calls();
    log_everything();
    layer(0, 7, 0x400);
    EXPECT_EQ(fake::calls().back(),
              info("lda_lsm_layer_inline_handle", "vsl port 7, del storm detect done."));
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(fake::calls_of({"libddm_get_phyid_by_ifx"}), Lines{"libddm_get_phyid_by_ifx 7"});
    EXPECT_EQ(storm_port_num, 0u);
    EXPECT_EQ(storm_find_rate(7), nullptr);
    EXPECT_EQ(g_libstorm_head.next, &g_libstorm_head);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, VslConversionRecoversAHeldPortBeforeItsRecordIsRemoved) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    fake::mom_connect(8);
    cli_ready = 1;
    fake::clear_calls();
    layer(0, 7, 0x400);
    EXPECT_EQ(
        fake::calls_of({"cli_client_c2p_reform", "cli_syn_config_notify", "qv_thread_add_timer",
                        "nc_lib_notification_send", "qv_mom_del", "libddm_get_phyid_by_ifx"}),
        (Lines{"cli_client_c2p_reform", "cli_syn_config_notify", "cli_client_c2p_reform",
               "cli_syn_config_notify", "qv_thread_add_timer 60", notification("swp7", 2, 0, 0),
               entry_del("swp7"), "libddm_get_phyid_by_ifx 7"}));
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);

    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LsmGroup, UnknownVslPortStillLosesItsRule) {
    fake::add_port(7);
    fake::mom_connect(8);
    cli_ready = 1;
    lda_loop_detect_ptype_set(1);
    log_everything();
    fake::clear_calls();
    layer(0, 7, 0x400);
    Lines calls = fake::take_calls();
    ASSERT_GE(calls.size(), 4u);
    calls.resize(4);
    EXPECT_EQ(calls,
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: create vsl"),
                     warn("lda_vsl_convert_proc", "VSL convert proc: ifx is 7 , vsl stats is 1"),
                     info("lda_vsl_convert_proc", "get loop failed, READD ifx=7\n"),
                     "libddm_get_phyid_by_ifx 7"}));
}

TEST_F(LsmGroup, VslPortWithoutAForwardingPlaneIdIsReported) {
    add(7);
    fake::unmap_port(7);
    cli_ready = 1;
    lda_loop_detect_ptype_set(1);
    layer(0, 7, 0x400);
    EXPECT_EQ(fake::take_calls(),
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: create vsl"),
                     warn("lda_vsl_convert_proc", "VSL convert proc: ifx is 7 , vsl stats is 1"),
                     "libddm_get_phyid_by_ifx 7",
                     error("lda_lsm_layer_inline_handle", "ifx (7) convert is failed")}));
    EXPECT_TRUE(records().empty());
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, VslPortWhoseRuleCannotBeRemovedKeepsItsStormSettings) {
    add(7);
    cli_ready = 1;
    lda_loop_detect_ptype_set(1);
    storm_set_burst_limit(7, 500, 0, true);
    fake::clear_calls();
    removal_result = -1;
    layer(0, 7, 0x400);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: create vsl"),
               warn("lda_vsl_convert_proc", "VSL convert proc: ifx is 7 , vsl stats is 1"),
               "libddm_get_phyid_by_ifx 7",
               error("lda_lsm_layer_inline_handle", "del storm detect failed. phyid = 107")}));
    EXPECT_TRUE(records().empty());
    EXPECT_NE(storm_find_rate(7), nullptr);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, RemovedVslAddsThePortAgain) {
    fake::add_port(7);
    cli_ready = 1;
    layer(1, 7, 0);
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(records()[0]->ifx, 7u);
    EXPECT_EQ(records()[0]->vsl_member, 0u);
    EXPECT_EQ(fake::take_calls(),
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: remove vsl"),
                     warn("lda_vsl_convert_proc", "VSL convert proc: ifx is 7 , vsl stats is 0"),
                     "vl_clnt_get_portmode_by_index 7", "lsm_if_get_sname 7 64"}));
}

TEST_F(LsmGroup, RemovedVslUnmarksARecordThatWasKept) {
    lda_intf_t* record = add(7);
    record->vsl_member = 1;
    cli_ready = 1;
    layer(1, 7, 0x400);
    EXPECT_EQ(records(), std::vector<lda_intf_t*>{record});
    EXPECT_EQ(record->vsl_member, 0u);
}

TEST_F(LsmGroup, RemovedVslWithoutMemoryIsReported) {
    fake::add_port(7);
    cli_ready = 1;
    fake::fail_calloc(1);
    layer(1, 7, 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{warn("lda_lsm_layer_inline_handle", "GET vsl information: remove vsl"),
                     warn("lda_vsl_convert_proc", "VSL convert proc: ifx is 7 , vsl stats is 0"),
                     error("lda_add_intf", "LDA malloc node error.\n"),
                     error("lda_vsl_convert_proc", "lda add intf ifx 7 failed.")}));
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LsmGroup, LayerHandlerHoldsTheLoopLock) {
    looped(7, 1, 0);
    cli_ready = 1;
    bool held = false;
    fake::on_call("nc_lib_notification_send",
                  [&] { held = !free_for_others(&g_lda_loop_set->lock); });
    layer(0, 7, 0x400);
    EXPECT_TRUE(held);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

}  // namespace
