// Port events: registration, and the interface table.
#include "lda_lsm.h"

#include "lda_main.h"
#include "lda_state.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

using namespace loop_test;

namespace {

class LdaLsm : public StartedAgent {
 protected:
    static void event(uint32_t event, uint32_t ifx) {
        uint32_t word = ifx;
        lda_lsm_event_handle(event, &word);
    }
};

// ---- Registration ----

TEST_F(LdaLsm, InitSetsTheConnectCallbackAndStartsTheAgent) {
    EXPECT_EQ(lda_lsm_init(), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"lsm_agent_set_connect_callback", "lsm_agent_init \"LDA\""}));
}

TEST_F(LdaLsm, InitFailsWhenTheAgentFails) {
    fake::fail("lsm_agent_init", -1);
    EXPECT_EQ(lda_lsm_init(), -1);
    fake::fail("lsm_agent_init", 5);
    EXPECT_EQ(lda_lsm_init(), -1);
}

const Lines registration = {
    "lsm_client_set_mode 2",
    "lsm_client_reg_event_ex class=26 types=fc070000000000000000000000000000 events=7",
    "lsm_reg_msg_handler_ex class=26",
    "lsm_client_reg_event_ex class=5 types=fc070000000000000000000000000000 events=7",
    "lsm_reg_msg_handler_ex class=5",
    "lsm_client_reg_event_ex class=27 types=fc070000000000000000000000000000 events=2048",
    "lsm_reg_msg_handler_ex class=27",
    "lsm_client_reg_event_ex class=2 types=fc070000000000000000000000000000 events=3",
    "lsm_reg_msg_handler_ex class=2",
    "lsm_client_reg_event_over"};

TEST_F(LdaLsm, EveryConnectionRegistersTheEvents) {
    fake::lsm_connect();
    EXPECT_EQ(fake::take_calls(), registration);
    EXPECT_EQ(fake::lsm_handler(26), lda_lsm_event_handle);
    EXPECT_EQ(fake::lsm_handler(5), lda_lsm_bridge_event_handle);
    EXPECT_EQ(fake::lsm_handler(27), lda_lsm_event_handle);
    EXPECT_EQ(fake::lsm_handler(2), lda_lsm_layer_inline_handle);
    fake::lsm_connect();
    EXPECT_EQ(fake::take_calls(), registration);
}

TEST_F(LdaLsm, ResultsOfTheRegistrationAreIgnored) {
    fake::fail("lsm_client_set_mode");
    fake::fail("lsm_client_reg_event_ex");
    fake::fail("lsm_reg_msg_handler_ex");
    fake::fail("lsm_client_reg_event_over");
    fake::lsm_connect();
    EXPECT_EQ(fake::take_calls(), registration);
}

// ---- Ports ready, bad calls ----

TEST_F(LdaLsm, PortReadyNeedsNoMessage) {
    log_everything();
    lda_lsm_event_handle(48, nullptr);
    EXPECT_EQ(lsm_port_ready, 1);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_lsm_event_handle", "lsm port ready")});
}

TEST_F(LdaLsm, PortReadyIgnoresItsMessage) {
    event(48, 7);
    EXPECT_EQ(lsm_port_ready, 1);
    EXPECT_TRUE(records().empty());
}

TEST_F(LdaLsm, PortReadyAnnouncesReadinessAsTheLastFlagAndOnEveryLaterCall) {
    mom_cfg_ready = mom_local_ready = mom_app_ready = mom_storm_ready = 1;
    lda_lsm_event_handle(48, nullptr);
    lda_lsm_event_handle(48, nullptr);
    EXPECT_EQ(fake::take_calls(), (Lines{"cli_client_ready", "cli_client_ready"}));
}

TEST_F(LdaLsm, EventWithoutAMessageIsReported) {
    for (uint32_t number : {0u, 1u, 2u, 11u, 3u}) {
        lda_lsm_event_handle(number, nullptr);
        EXPECT_EQ(
            fake::take_calls(),
            Lines{error("lda_lsm_event_handle",
                        "LDA:receive lsm event=" + std::to_string(number) + ", msgp=NULL\n")});
    }
}

TEST_F(LdaLsm, OtherEventsDoNothing) {
    add(7);
    log_everything();
    event(3, 7);
    event(12, 7);
    event(47, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(records().size(), 1u);
}

// ---- Adding ports ----

TEST_F(LdaLsm, AddedPortGetsARecordAtTheTail) {
    add(5);
    fake::add_port(7, 7);
    log_everything();
    event(0, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_lsm_event_handle", "LDA receive lsm event 0, intf ifx=7\n"),
                     "vl_clnt_get_portmode_by_index 7", info("lda_add_intf", "ifx=7, type=7\n"),
                     "lsm_if_get_sname 7 64",
                     info("lda_add_intf", "+++LDA add intf:ifx=7, name=swp7, intf_num=2\n")}));
    ASSERT_EQ(records().size(), 2u);
    lda_intf_t* record = records()[1];
    EXPECT_EQ(g_lda_loop_set->list.prev, &record->link);
    EXPECT_EQ(record->ifx, 7u);
    EXPECT_STREQ(record->name, "swp7");
    EXPECT_EQ(record->mode, 7u);
    EXPECT_EQ(g_lda_loop_set->intf_num, 2);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LdaLsm, NewRecordIsZeroExceptForIndexModeAndName) {
    lda_intf_t* record = add(7);
    EXPECT_EQ(record->clear_timer, nullptr);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->storm_result, 0);
    EXPECT_EQ(record->spare_word, 0u);
    EXPECT_EQ(record->shutdown_timer, nullptr);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(record->mode_arg, 0);
    EXPECT_EQ(record->vsl_member, 0u);
}

TEST_F(LdaLsm, AddingAPortTwiceReturnsTheSameRecord) {
    lda_intf_t* record = add(7);
    log_everything();
    lda_loop_detect_ptype_set(2);
    cli_ready = 1;
    event(0, 7);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_lsm_event_handle", "LDA receive lsm event 0, intf ifx=7\n")});
    EXPECT_EQ(lda_add_intf(7), record);
    EXPECT_EQ(g_lda_loop_set->intf_num, 1);
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LdaLsm, RecordIsLinkedUnderTheLoopLock) {
    add(6);
    fake::add_port(7);
    Lines seen;
    fake::on_lock(&g_lda_loop_set->lock, [&](bool taken) {
        seen.push_back((taken ? "locked " : "unlocking ") + std::to_string(records().size()) +
                       " of " + std::to_string(g_lda_loop_set->intf_num) +
                       (lda_loop_result_get(7) == nullptr ? "" : " found"));
    });
    bool named_under_lock = false;
    fake::on_call("lsm_if_get_sname",
                  [&] { named_under_lock = !free_for_others(&g_lda_loop_set->lock); });
    lda_add_intf(7);
    EXPECT_EQ(seen, (Lines{"locked 1 of 1", "unlocking 2 of 2 found"}));
    EXPECT_TRUE(named_under_lock);
}

TEST_F(LdaLsm, NewPortIsPostedAfterTheLoopLockIsReleased) {
    fake::add_port(7);
    cli_ready = 1;
    lda_loop_detect_ptype_set(2);
    bool free = false;
    fake::on_signal([&] {
        free = free_for_others(&g_lda_loop_set->lock);
        return 0;
    });
    lda_add_intf(7);
    EXPECT_TRUE(free);
    EXPECT_EQ(take_posted(), Lines{"type=1 mid=2 ifx=7 new_type=2 old_type=2"});
}

TEST_F(LdaLsm, LongNameIsCutTo63Characters) {
    fake::add_port({.ifx = 7, .name = std::string(80, 'n')});
    EXPECT_EQ(lda_add_intf(7)->name, std::string(63, 'n'));
}

TEST_F(LdaLsm, PortWhoseModeOrNameCannotBeReadIsAddedWithoutThem) {
    fake::add_port(7, 7);
    fake::fail("vl_clnt_get_portmode_by_index", 5);
    lda_intf_t* record = lda_add_intf(7);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->mode, 0u);
    EXPECT_STREQ(record->name, "swp7");
    fake::heal("vl_clnt_get_portmode_by_index");
    fake::fail("lsm_if_get_sname", 5);
    fake::add_port(8, 7);
    record = lda_add_intf(8);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->mode, 7u);
    EXPECT_STREQ(record->name, "");
    EXPECT_EQ(lda_loop_result_get(8), record);
    EXPECT_EQ(g_lda_loop_set->intf_num, 2);
}

TEST_F(LdaLsm, WithoutMemoryNoPortIsAdded) {
    fake::add_port(7);
    cli_ready = 1;
    lda_loop_detect_ptype_set(2);
    pend(7);
    fake::fail_calloc(1);
    EXPECT_EQ(lda_add_intf(7), nullptr);
    EXPECT_EQ(fake::take_calls(), Lines{error("lda_add_intf", "LDA malloc node error.\n")});
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_EQ(lda_back_node_lookup(7), 1);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LdaLsm, PortAddedWhileDetectionIsActiveIsConfigured) {
    fake::add_port(7);
    cli_ready = 1;
    lda_loop_detect_ptype_set(3);
    log_everything();
    lda_add_intf(7);
    expect_golden("lda_lsm/port_added_while_active", fake::take_calls());
    EXPECT_EQ(take_posted(), Lines{"type=1 mid=2 ifx=7 new_type=3 old_type=3"});
}

TEST_F(LdaLsm, PortIsNotConfiguredBeforeTheCommandLineIsReady) {
    fake::add_port(7);
    lda_loop_detect_ptype_set(3);
    lda_add_intf(7);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LdaLsm, PortIsNotConfiguredWhileDetectionIsDisabled) {
    fake::add_port(7);
    cli_ready = 1;
    lda_add_intf(7);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(LdaLsm, PendingPortIsShutDownWhenItAppears) {
    fake::add_port(7);
    pend(7);
    pend(8);
    cli_ready = 1;
    lda_loop_detect_ptype_set(2);
    log_everything();
    lda_intf_t* record = lda_add_intf(7);
    expect_golden("lda_lsm/pending_port_appears", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(take_posted(),
              (Lines{"type=1 mid=2 ifx=7 new_type=2 old_type=2", "type=2 mid=2 ifx=7 shutdown=1"}));
    EXPECT_EQ(lda_back_node_lookup(7), 0);
    EXPECT_EQ(lda_back_node_lookup(8), 1);
}

TEST_F(LdaLsm, PendingPortIsLeftUpWhileDetectionIsDisabled) {
    fake::add_port(7);
    pend(7);
    EXPECT_EQ(lda_add_intf(7)->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_EQ(lda_back_node_lookup(7), 0);
}

// ---- Deleting ports ----

TEST_F(LdaLsm, DeletedPortLosesItsRecord) {
    lda_intf_t* first = add(5);
    add(7);
    lda_intf_t* last = add(9);
    log_everything();
    event(1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_lsm_event_handle", "LDA receive lsm delete event 1, intf ifx=7\n"),
                     info("lda_del_intf", "---LDA delete intf:ifx=7, intf_num=2\n")}));
    EXPECT_EQ(records(), (std::vector<lda_intf_t*>{first, last}));
    EXPECT_EQ(g_lda_loop_set->list.prev, &last->link);
    EXPECT_EQ(last->link.prev, &first->link);
    EXPECT_EQ(g_lda_loop_set->intf_num, 2);
}

TEST_F(LdaLsm, RecordIsUnlinkedUnderTheLoopLock) {
    add(7);
    Lines seen;
    fake::on_lock(&g_lda_loop_set->lock, [&](bool taken) {
        seen.push_back((taken ? "locked " : "unlocking ") + std::to_string(records().size()));
    });
    lda_del_intf(7);
    EXPECT_EQ(seen, (Lines{"locked 1", "unlocking 0"}));
}

TEST_F(LdaLsm, DeletingAnUnknownPortChangesNothing) {
    add(5);
    log_everything();
    lda_del_intf(7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(g_lda_loop_set->intf_num, 1);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(LdaLsm, DeletingALoopedPortKeepsTheCountAndTheEntry) {
    looped(7, 1, 2);
    event(1, 7);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(LdaLsm, DeletingAPortKeepsItsClearTimerAndItsMemory) {
    [[maybe_unused]] const lda_intf_t* record = looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    fake::take_calls();
    event(1, 7);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);

    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 2, 0, 1), entry_del("swp7"), recovered("swp7")}));
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_TRUE(records().empty());
#ifdef __SANITIZE_ADDRESS__
    EXPECT_TRUE(__asan_address_is_poisoned(record)) << "the record was not reclaimed";
#endif
}

TEST_F(LdaLsm, DeletingAPortWithoutATimerReclaimsItAtOnce) {
    [[maybe_unused]] const lda_intf_t* record = looped(7, 1, 1);
    event(1, 7);
    EXPECT_EQ(lda_loop_result_get(7), nullptr);
#ifdef __SANITIZE_ADDRESS__
    EXPECT_TRUE(__asan_address_is_poisoned(record)) << "the record was not reclaimed";
#endif
}

TEST_F(LdaLsm, TimerOfADeletedPortDoesNotAffectItsSuccessor) {
    looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    event(1, 7);
    lda_intf_t* successor = lda_add_intf(7);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(g_lda_loop_set->loop_num, 2);
    fake::clear_calls();
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(fake::take_calls(), Lines{}) << "the successor's entry is withdrawn";
    EXPECT_EQ(successor->total_result, 1);
    EXPECT_EQ(successor->tarn_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(records(), std::vector<lda_intf_t*>{successor});
    // The successor's own timer reports its end.
    lda_loop_result_set(0, 0, 7);
    fake::clear_calls();
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 2, 0, 1), entry_del("swp7"), recovered("swp7")}));
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
}

TEST_F(LdaLsm, TimerOfADeletedPortDoesNotAffectALoopingPortOfItsName) {
    looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    event(1, 7);
    fake::add_port({.ifx = 8, .name = "swp7"});
    lda_add_intf(8);
    lda_loop_result_set(0, 1, 8);
    fake::clear_calls();
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LdaLsm, TimerOfADeletedPortReportsItsEndWhileItsSuccessorIsQuiet) {
    looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    event(1, 7);
    lda_add_intf(7);
    looped(8, 1, 1);
    EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 2, 0, 1), entry_del("swp7"), recovered("swp7")}));
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(LdaLsm, TimerOfAPortKeepsItsRecordWhileADeletedOneWaits) {
    looped(8, 1, 1);
    lda_intf_t* record = looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    lda_loop_result_set(0, 0, 8);
    event(1, 8);
    EXPECT_EQ(fake::fire(record->clear_timer), 0);
    EXPECT_EQ(lda_loop_result_get(7), record);
    EXPECT_EQ(records(), std::vector<lda_intf_t*>{record});
    EXPECT_EQ(record->total_result, 0);
}

TEST_F(LdaLsm, SeveralDeletedPortsWaitForTheirTimers) {
    for (uint32_t ifx = 1; ifx <= 5; ifx++) {
        looped(ifx, 1, 1);
        lda_loop_result_set(0, 0, ifx);
        lda_del_intf(ifx);
    }
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(fake::fire(lda_intf_loop_clear), 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
}

// ---- Default configuration ----

TEST_F(LdaLsm, DefaultEventReleasesAHeldPortAndCleansItsStormLines) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    log_everything();
    event(2, 7);
    expect_golden("lda_lsm/default_event_of_a_held_port", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=7", "type=6 mid=1 ifx=7"}));
}

TEST_F(LdaLsm, DefaultEventRemovesAnUnknownPortFromThePendingList) {
    pend(7);
    event(2, 7);
    EXPECT_EQ(lda_back_node_lookup(7), 0);
    EXPECT_EQ(take_posted(), Lines{"type=6 mid=1 ifx=7"});
}

// ---- Questions about a port ----

TEST_F(LdaLsm, ShutDownFlagOfAPort) {
    add(7)->is_shutdown = 1;
    add(8);
    EXPECT_EQ(lda_get_intf_policy_with_intf(7), 1u);
    EXPECT_EQ(lda_get_intf_policy_with_intf(8), 0u);
    EXPECT_EQ(lda_get_intf_policy_with_intf(9), 0xFFFFFFFFu);
}

TEST_F(LdaLsm, ShuttableModesAreAccessAndHybrid) {
    add(1, 1);
    add(2, 2);
    add(3, 0);
    add(7, 7);
    EXPECT_EQ(lda_get_src_with_intf(1), 1u);
    EXPECT_EQ(lda_get_src_with_intf(2), 0u);
    EXPECT_EQ(lda_get_src_with_intf(3), 0u);
    EXPECT_EQ(lda_get_src_with_intf(7), 1u);
    EXPECT_EQ(lda_get_src_with_intf(9), 0xFFFFFFFFu);
}

}  // namespace
