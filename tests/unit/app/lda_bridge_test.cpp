// Bridge-agent client, and the routine that applies every change of a port's loop state.
#include "lda_bridge.h"

#include <gtest/gtest.h>

#include <string>

#include "lda_state.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/agent_fixture.h"

using fake::error;
using fake::info;
using fake::Lines;

namespace {

constexpr uint32_t kModeChange = 415;

class Bridge : public AgentTest {
 protected:
    static void mode_event(uint32_t ifx, uint32_t mode) {
        bridge_mode_change change{ifx, mode};
        lda_bridge_handle(kModeChange, &change);
    }
};

// Applying a proposed record to a stored one.
class Apply : public AgentTest {
 protected:
    struct State {
        uint8_t loop;
        uint8_t shut;
        uint32_t mode;
    };

    static void store(lda_intf_t* record, const State& state) {
        record->total_result = state.loop;
        record->is_shutdown = state.shut;
        record->mode = state.mode;
    }

    // Proposes `to` for a port in state `from`; returns the line that shows both decisions.
    static std::string decision(const State& from, const State& to) {
        lda_intf_t* record = lda_loop_result_get(5);
        store(record, from);
        lda_intf_t proposed = *record;
        store(&proposed, to);
        fake::clear_calls();
        EXPECT_EQ(lda_intf_ret_proc(record, &proposed), 1);
        EXPECT_EQ(record->total_result, to.loop);
        EXPECT_EQ(record->mode, to.mode);
        for (const std::string& line : log_lines())
            if (line.find("act_shut=") != std::string::npos)
                return line;
        return "";
    }

    static std::string decided(int act_shut, int shut, int act_notify) {
        return info("lda_intf_ret_proc", "ifx=5 act_shut=" + std::to_string(act_shut) + "/" +
                                             std::to_string(shut) +
                                             ",act_notify=" + std::to_string(act_notify) + ",\n");
    }
};

std::string notification(const std::string& name, int kind, int policy, int src_port) {
    std::string base =
        "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/notify-entry[name='" +
        name + "']/";
    return "nc_lib_notification_send [" + base + "notify-type 20 " + std::to_string(kind) + "] [" +
           base + "vid 20 0] [" + base + "policy 20 " + std::to_string(policy) + "] [" + base +
           "src-port 8 " + std::to_string(src_port) + "]";
}

const Lines kRegenerated = {"cli_client_c2p_reform", "cli_syn_config_notify"};

}  // namespace

// ---- Registration ----

TEST_F(Bridge, StartsTheClientThenSetsItsCallback) {
    EXPECT_EQ(lda_bridge_init(), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_bridge_init", "enter\n"),
                                 "bridge_agent_init \"LDA\"",
                                 "bridge_agent_set_connect_callback",
                             }));
}

TEST_F(Bridge, FailedClientIsLoggedWithoutALineEnd) {
    fake::fail("bridge_agent_init", 3);
    EXPECT_EQ(lda_bridge_init(), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_bridge_init", "enter\n"),
                                 "bridge_agent_init \"LDA\"",
                                 error("lda_bridge_init", "failed to init lda bridge"),
                             }));
}

TEST_F(Bridge, ConnectionSelectsTheModeChangeAlone) {
    fake::bridge_connect();
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_bridge_con_handle", "enter\n"),
                                 "bridge_client_reg_event 415",
                                 info("lda_bridge_con_handle", "rv: 0\n"),
                             }));
    bridge_event_set selection = fake::bridge_selection();
    for (size_t word = 0; word < 64; word++)
        EXPECT_EQ(selection.word[word], word == 6 ? 0x80000000u : 0u) << word;
    EXPECT_EQ(fake::bridge_handler(), lda_bridge_handle);
}

TEST_F(Bridge, EveryConnectionSelectsAgain) {
    fake::bridge_connect();
    fake::bridge_connect();
    EXPECT_EQ(fake::calls_of({"bridge_client_reg_event"}).size(), 2u);
}

TEST_F(Bridge, FailedSelectionIsOnlyLogged) {
    fake::fail("bridge_client_reg_event", -7);
    fake::bridge_connect();
    EXPECT_EQ(fake::calls().back(), info("lda_bridge_con_handle", "rv: -7\n"));
}

// ---- Events ----

TEST_F(Bridge, OtherEventsAreLoggedAndIgnored) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 2;
    bridge_mode_change change{5, 2};
    lda_bridge_handle(414, &change);
    EXPECT_EQ(fake::calls(), (Lines{info("lda_bridge_handle", "event=414\n")}));
    EXPECT_EQ(record->mode, 1u);
    EXPECT_FALSE(is_held(&g_lda_loop_set->lock));
}

TEST_F(Bridge, OtherEventsNeedNoPayload) {
    lda_bridge_handle(0, nullptr);
    EXPECT_EQ(fake::calls(), (Lines{info("lda_bridge_handle", "event=0\n")}));
}

TEST_F(Bridge, ModeOfAQuietPortIsOnlyStored) {
    lda_intf_t* record = add_record(5, 1);
    g_lda_loop_set->policy = 4;
    mode_event(5, 7);
    EXPECT_EQ(record->mode, 7u);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_bridge_handle", "event=415\n"),
                                 info("lda_bridge_handle", "modify ifx=5, mode=7\n"),
                                 info("lda_brid_intf_mod_chg_cbk", "ifx=5, mode=7\n"),
                                 info("lda_intf_ret_proc", "ifx=5 act_shut=0/0,act_notify=0,\n"),
                             }));
    EXPECT_EQ(queued(), Lines{});
}

TEST_F(Bridge, ModeOfAnUnknownPortChangesNothing) {
    add_record(5, 1);
    mode_event(9, 7);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_bridge_handle", "event=415\n"),
                                 info("lda_bridge_handle", "modify ifx=9, mode=7\n"),
                             }));
}

TEST_F(Bridge, LoopLockIsHeldDuringTheWalkAndReleasedAfterIt) {
    add_looped(5, 1);
    g_lda_loop_set->policy = 3;
    bool at_event = false;
    bool at_request = false;
    fake::on_call("qvdf_zlog", [&] {
        if (fake::calls().size() == 1)
            at_event = is_held(&g_lda_loop_set->lock);
    });
    fake::on_call("cli_syn_config_notify", [&] { at_request = is_held(&g_lda_loop_set->lock); });
    mode_event(5, 7);
    EXPECT_TRUE(at_event);
    EXPECT_TRUE(at_request);
    EXPECT_FALSE(is_held(&g_lda_loop_set->lock));
}

TEST_F(Bridge, ModeChangeOfOnePortStopsAtThatPort) {
    add_record(5, 1);
    lda_intf_t* member = add_record(6, 1);
    member->mode_arg = 5;
    mode_event(5, 7);
    EXPECT_EQ(lda_loop_result_get(5)->mode, 7u);
    EXPECT_EQ(member->mode, 1u);
}

TEST_F(Bridge, ModeChangeOfAnAggregateReachesEveryMemberRecord) {
    for (uint32_t ifx : {5u, 6u, 7u})
        add_record(ifx, 1);
    lda_loop_result_get(5)->mode_arg = 40;
    lda_loop_result_get(7)->mode_arg = 40;
    mode_event(40, 2);
    EXPECT_EQ(lda_loop_result_get(5)->mode, 2u);
    EXPECT_EQ(lda_loop_result_get(6)->mode, 1u);
    EXPECT_EQ(lda_loop_result_get(7)->mode, 2u);
    expect_golden("lda_bridge/mode_of_an_aggregate", fake::calls());
}

TEST_F(Bridge, MembersBeforeTheAggregatePortItselfAreReached) {
    add_record(5, 1)->mode_arg = 40;
    add_record(40, 1);
    add_record(6, 1)->mode_arg = 40;
    mode_event(40, 7);
    EXPECT_EQ(lda_loop_result_get(5)->mode, 7u);
    EXPECT_EQ(lda_loop_result_get(40)->mode, 7u);
    EXPECT_EQ(lda_loop_result_get(6)->mode, 1u);
}

// A port outside an aggregate has index 0 for it, so a change of index 0 applies to all such ports.
TEST_F(Bridge, ChangeOfIndexZeroReachesThePortsInNoAggregate) {
    for (uint32_t ifx : {5u, 6u, 7u})
        add_record(ifx, 1);
    lda_loop_result_get(6)->mode_arg = 40;
    mode_event(0, 7);
    EXPECT_EQ(lda_loop_result_get(5)->mode, 7u);
    EXPECT_EQ(lda_loop_result_get(6)->mode, 1u);
    EXPECT_EQ(lda_loop_result_get(7)->mode, 7u);
}

TEST_F(Bridge, VisitorResultEndsTheWalk) {
    lda_intf_t* record = add_record(5, 1);
    record->mode_arg = 40;
    const uint32_t own[] = {5, 7};
    const uint32_t aggregate[] = {40, 7};
    const uint32_t other[] = {6, 7};
    EXPECT_EQ(lda_brid_intf_mod_chg_cbk(record, own), 1u);
    EXPECT_EQ(lda_brid_intf_mod_chg_cbk(record, aggregate), 0u);
    fake::clear_calls();
    EXPECT_EQ(lda_brid_intf_mod_chg_cbk(record, other), 0u);
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(Bridge, ShutDownFlagIsRecomputed) {
    struct Case {
        uint32_t policy;
        uint32_t mode;
        uint8_t shut;
    };
    const Case cases[] = {{1, 1, 0}, {2, 1, 1}, {3, 1, 0}, {4, 1, 1}, {5, 1, 0},
                          {1, 7, 0}, {2, 7, 0}, {3, 7, 1}, {4, 7, 1}, {5, 7, 0},
                          {2, 2, 0}, {4, 2, 0}, {3, 0, 0}, {0, 1, 0}, {0, 7, 0}};
    lda_intf_t* record = add_looped(5, 1);
    for (const Case& c : cases) {
        for (uint8_t before : {0, 1}) {
            record->is_shutdown = before;
            g_lda_loop_set->policy = c.policy;
            mode_event(5, c.mode);
            EXPECT_EQ(record->is_shutdown, c.shut) << c.policy << " " << c.mode;
        }
    }
}

TEST_F(Bridge, ModeChangeRecoversAPortHeldWithoutALoop) {
    for (uint32_t mode : {1u, 7u, 2u}) {
        SCOPED_TRACE(mode);
        lda_intf_t* record = add_record(10 + mode, 1);
        record->is_shutdown = 1;
        g_lda_loop_set->policy = 4;
        mode_event(10 + mode, mode);
        EXPECT_EQ(record->is_shutdown, 0);
        EXPECT_EQ(queued().back(), "type=2 mid=2 ifx=" + std::to_string(10 + mode));
    }
}

TEST_F(Bridge, ModeChangeNeverShutsDownAQuietPort) {
    lda_intf_t* record = add_record(5, 2);
    for (uint32_t policy : {2u, 3u, 4u}) {
        for (uint32_t mode : {1u, 7u}) {
            g_lda_loop_set->policy = policy;
            mode_event(5, mode);
            EXPECT_EQ(record->is_shutdown, 0);
        }
    }
    EXPECT_EQ(queued(), Lines{});
}

TEST_F(Bridge, ModeChangeWithoutTheLockDoesNotTakeIt) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 3;
    bool held = true;
    fake::on_call("cli_syn_config_notify", [&] { held = is_held(&g_lda_loop_set->lock); });
    bridge_mode_change change{5, 7};
    EXPECT_EQ(lda_intf_mod_change(&change), record);
    EXPECT_FALSE(held);
    EXPECT_EQ(record->mode, 7u);
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(Bridge, ModeChangeOfNoPortReturnsNothing) {
    add_record(5, 1)->mode_arg = 40;
    bridge_mode_change unknown{9, 7};
    bridge_mode_change aggregate{40, 7};
    EXPECT_EQ(lda_intf_mod_change(&unknown), nullptr);
    EXPECT_EQ(lda_intf_mod_change(&aggregate), nullptr);
}

// ---- Applying a change: whole sequences ----

TEST_F(Bridge, LoopingPortThatBecomesHybridIsShutDownUnderHybrid) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 3;
    record->recover_ticks = 12;
    mode_event(5, 7);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5 shutdown=1"}));
    expect_golden("lda_bridge/looping_port_becomes_hybrid", fake::calls());
}

TEST_F(Bridge, ShutDownAccessPortThatBecomesATrunkIsRecoveredAndNotified) {
    lda_intf_t* record = add_looped(5, 1);
    record->is_shutdown = 1;
    record->recover_ticks = 12;
    g_lda_loop_set->policy = 2;
    mode_event(5, 2);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(record->mode, 2u);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5"}));
    EXPECT_EQ(fake::calls_without({"zlog"}),
              (Lines{
                  "cli_client_c2p_reform",
                  "cli_syn_config_notify",
                  "cli_client_c2p_reform",
                  "cli_syn_config_notify",
                  notification("swp5", 1, 0, 0),
                  "qv_mom_set db=4 p_app.lda_loop_entry index{name=\"swp5\"}",
              }));
}

TEST_F(Bridge, RecoveryOfAQuietSourceArmsTheClearTimer) {
    lda_intf_t* record = add_looped(5, 1);
    record->is_shutdown = 1;
    record->tarn_result = 0;
    g_lda_loop_set->policy = 2;
    mode_event(5, 2);
    EXPECT_EQ(fake::calls_of({"qv_thread_add_timer"}), (Lines{"qv_thread_add_timer 60"}));
    EXPECT_NE(record->clear_timer, nullptr);
}

TEST_F(Bridge, MoveBetweenAccessAndHybridUnderBothChangesOnlyTheMode) {
    lda_intf_t* record = add_looped(5, 1);
    record->is_shutdown = 1;
    record->recover_ticks = 12;
    g_lda_loop_set->policy = 4;
    mode_event(5, 7);
    EXPECT_EQ(record->mode, 7u);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(record->recover_ticks, 12u);
    EXPECT_EQ(fake::calls_without({"zlog"}), Lines{});
    EXPECT_EQ(log_lines().back(), info("lda_intf_ret_proc", "ifx=5 act_shut=0/1,act_notify=0,\n"));
}

TEST_F(Bridge, PortAlreadyShutIsRecoveredWhileDetectionIsDisabled) {
    lda_intf_t* record = add_looped(5, 1);
    record->is_shutdown = 1;
    mode_event(5, 7);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5"}));
}

TEST_F(Bridge, AggregateModeChangeShutsEveryLoopingMember) {
    for (uint32_t ifx : {5u, 6u})
        add_looped(ifx, 2)->mode_arg = 40;
    g_lda_loop_set->policy = 4;
    mode_event(40, 1);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5 shutdown=1", "type=2 mid=2 ifx=6 shutdown=1"}));
}

// ---- Applying a change: decisions ----

TEST_F(Apply, ChangedFlagShutsAndNotifies) {
    add_record(5);
    g_lda_loop_set->policy = 4;
    EXPECT_EQ(decision({1, 0, 1}, {1, 1, 1}), decided(1, 1, 1));
    EXPECT_EQ(decision({1, 1, 1}, {1, 0, 1}), decided(1, 0, 1));
    EXPECT_EQ(decision({0, 0, 1}, {0, 1, 1}), decided(1, 1, 1));
    EXPECT_EQ(decision({1, 1, 1}, {0, 0, 2}), decided(1, 0, 1));
}

TEST_F(Apply, ChangedLoopStateOnlyNotifies) {
    add_record(5);
    g_lda_loop_set->policy = 4;
    EXPECT_EQ(decision({0, 0, 1}, {1, 0, 1}), decided(0, 0, 1));
    EXPECT_EQ(decision({1, 0, 1}, {0, 0, 1}), decided(0, 0, 1));
    EXPECT_EQ(decision({1, 1, 1}, {0, 1, 1}), decided(0, 1, 1));
}

TEST_F(Apply, LoopingPortThatChangesItsModeClassIsNotified) {
    add_record(5);
    g_lda_loop_set->policy = 4;
    for (uint32_t source : {1u, 7u}) {
        for (uint32_t other : {0u, 2u, 3u}) {
            EXPECT_EQ(decision({1, 0, source}, {1, 0, other}), decided(0, 0, 1));
            EXPECT_EQ(decision({1, 0, other}, {1, 0, source}), decided(0, 0, 1));
        }
    }
}

TEST_F(Apply, ModeChangeWithinItsClassIsNotNotified) {
    add_record(5);
    g_lda_loop_set->policy = 4;
    EXPECT_EQ(decision({1, 0, 1}, {1, 0, 7}), decided(0, 0, 0));
    EXPECT_EQ(decision({1, 1, 7}, {1, 1, 1}), decided(0, 1, 0));
    EXPECT_EQ(decision({1, 0, 2}, {1, 0, 3}), decided(0, 0, 0));
    EXPECT_EQ(decision({1, 0, 1}, {1, 0, 1}), decided(0, 0, 0));
}

TEST_F(Apply, QuietPortThatChangesItsModeIsNotNotified) {
    add_record(5);
    g_lda_loop_set->policy = 4;
    EXPECT_EQ(decision({0, 0, 1}, {0, 0, 2}), decided(0, 0, 0));
    EXPECT_EQ(decision({0, 0, 2}, {0, 0, 7}), decided(0, 0, 0));
    EXPECT_EQ(fake::calls_without({"zlog"}), Lines{});
}

TEST_F(Apply, ProposedShutDownIsClearedWhileDetectionIsDisabled) {
    lda_intf_t* record = add_looped(5, 1);
    lda_intf_t proposed = *record;
    proposed.is_shutdown = 1;
    EXPECT_EQ(lda_intf_ret_proc(record, &proposed), 1);
    EXPECT_EQ(proposed.is_shutdown, 0);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(fake::calls(),
              (Lines{
                  info("lda_intf_ret_proc", "global is disable, but shutdown, change to noshut\n"),
                  info("lda_intf_ret_proc", "ifx=5 act_shut=0/0,act_notify=0,\n"),
              }));
}

TEST_F(Apply, ProposedShutDownOfAShutPortRecoversItWhileDetectionIsDisabled) {
    lda_intf_t* record = add_looped(5, 1);
    record->is_shutdown = 1;
    lda_intf_t proposed = *record;
    EXPECT_EQ(lda_intf_ret_proc(record, &proposed), 1);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5"}));
    EXPECT_EQ(log_lines().at(1), info("lda_intf_ret_proc", "ifx=5 act_shut=1/0,act_notify=1,\n"));
}

TEST_F(Apply, ShutDownRequestDropsTheOtherTimerWithoutCancellingIt) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 2;
    record->shutdown_timer =
        qv_thread_add_timer(g_lda_master, lda_intf_shutdown_timer_call, nullptr, 10);
    record->recover_ticks = 3;
    size_t pending = fake::timers().size();
    lda_intf_t proposed = *record;
    proposed.is_shutdown = 1;
    fake::clear_calls();
    lda_intf_ret_proc(record, &proposed);
    EXPECT_EQ(record->shutdown_timer, nullptr);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(fake::calls_of({"qv_thread_cancel"}), Lines{});
    EXPECT_EQ(fake::timers().size(), pending);
}

TEST_F(Apply, TicksRestartOnlyAfterTheRequest) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 2;
    record->recover_ticks = 3;
    std::vector<uint32_t> ticks;
    fake::on_call("cli_client_c2p_reform", [&] { ticks.push_back(record->recover_ticks); });
    lda_intf_t proposed = *record;
    proposed.is_shutdown = 1;
    lda_intf_ret_proc(record, &proposed);
    EXPECT_EQ(ticks, (std::vector<uint32_t>{3, 3}));
    EXPECT_EQ(record->recover_ticks, 0u);
}

TEST_F(Apply, WithoutAShutDownRequestTicksAndTimerAreKept) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 2;
    record->shutdown_timer =
        qv_thread_add_timer(g_lda_master, lda_intf_shutdown_timer_call, nullptr, 10);
    record->recover_ticks = 3;
    lda_intf_t proposed = *record;
    proposed.total_result = 0;
    lda_intf_ret_proc(record, &proposed);
    EXPECT_NE(record->shutdown_timer, nullptr);
    EXPECT_EQ(record->recover_ticks, 3u);
}

TEST_F(Apply, EndOfALoopIsNotifiedAsCleared) {
    lda_intf_t* record = add_looped(5, 7);
    g_lda_loop_set->policy = 3;
    lda_intf_t proposed = *record;
    proposed.total_result = 0;
    lda_intf_ret_proc(record, &proposed);
    EXPECT_EQ(fake::calls_without({"zlog"}),
              (Lines{
                  notification("swp5", 2, 1, 1),
                  "qv_mom_del db=4 p_app.lda_loop_entry index{name=\"swp5\"}",
              }));
}

TEST_F(Apply, NewShutDownOfAPortNotYetInTheTableIsNotifiedAsCleared) {
    lda_intf_t* record = add_record(5, 1);
    g_lda_loop_set->policy = 2;
    lda_intf_t proposed = *record;
    proposed.is_shutdown = 1;
    lda_intf_ret_proc(record, &proposed);
    EXPECT_EQ(fake::calls_without({"zlog"}),
              (Lines{
                  kRegenerated[0],
                  kRegenerated[1],
                  kRegenerated[0],
                  kRegenerated[1],
                  notification("swp5", 2, 1, 1),
                  "qv_mom_del db=4 p_app.lda_loop_entry index{name=\"swp5\"}",
              }));
}

TEST_F(Apply, OnlyLoopStateFlagAndModeAreApplied) {
    lda_intf_t* record = add_record(5, 1);
    g_lda_loop_set->policy = 1;
    lda_intf_t proposed = *record;
    proposed.tarn_result = 1;
    proposed.mode_arg = 40;
    proposed.recover_ticks = 9;
    proposed.vsl_member = 1;
    lda_intf_ret_proc(record, &proposed);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->mode_arg, 0);
    EXPECT_EQ(record->recover_ticks, 0u);
    EXPECT_EQ(record->vsl_member, 0u);
}

// ---- Utilities ----

TEST_F(Bridge, LoopRemovalIsNotifiedAndLoggedToTheSystemLog) {
    lda_intf_t* record = add_looped(5, 1);
    g_lda_loop_set->policy = 2;
    lda_intf_loop_del(record);
    expect_golden("lda_bridge/loop_removal", fake::calls());
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(Bridge, ShutDownIsAllowedWhileEnabledOrWithoutTheFlag) {
    EXPECT_NE(lda_intf_shutdownable(0), 0);
    EXPECT_EQ(lda_intf_shutdownable(1), 0);
    EXPECT_EQ(lda_intf_shutdownable(16), 0);
    g_lda_loop_set->policy = 1;
    EXPECT_NE(lda_intf_shutdownable(0), 0);
    EXPECT_NE(lda_intf_shutdownable(1), 0);
}
