// Readiness, the reload hooks and the walk over the loop table.
#include <gtest/gtest.h>

#include <functional>

#include "lda_lsm.h"
#include "lda_main.h"
#include "lda_tarn.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::info;
using fake::Lines;

// ---- Readiness ----

namespace {

class Readiness : public AgentTest {
 protected:
    static void raise_all() {
        mom_cfg_ready = mom_local_ready = mom_app_ready = 1;
        lsm_port_ready = mom_storm_ready = 1;
    }

    static Lines announcement() {
        return {info("lda_try_notify_cli_ready", "cli ready"), "cli_client_ready"};
    }

    static Lines announced() { return fake::calls_of({"cli_client_ready"}); }
};

}  // namespace

TEST_F(Readiness, IsAnnouncedWhenAllFiveFlagsAreUp) {
    raise_all();
    lda_try_notify_cli_ready();
    EXPECT_EQ(fake::calls(), announcement());
}

TEST_F(Readiness, WaitsForEachOfTheFiveFlags) {
    uint8_t* const flags[] = {&mom_cfg_ready, &mom_local_ready, &mom_app_ready, &lsm_port_ready,
                              &mom_storm_ready};
    for (uint8_t* flag : flags) {
        raise_all();
        *flag = 0;
        lda_try_notify_cli_ready();
        EXPECT_EQ(fake::calls(), Lines{});
    }
}

TEST_F(Readiness, DoesNotDependOnTheReplayHavingEnded) {
    raise_all();
    cli_ready = 1;
    lda_try_notify_cli_ready();
    EXPECT_EQ(announced().size(), 1u);
}

TEST_F(Readiness, IsAnnouncedAgainByEveryLaterCall) {
    raise_all();
    lda_try_notify_cli_ready();
    lda_try_notify_cli_ready();
    EXPECT_EQ(announced().size(), 2u);
}

TEST_F(Readiness, AnyFlagMayBeTheLast) {
    struct Setter {
        uint8_t* flag;
        std::function<void()> raise;
    };
    const Setter setters[] = {
        {&mom_cfg_ready,
         [] {
             fake::mom_connect(22);
         }},
        {&mom_local_ready,
         [] {
             fake::mom_connect(3);
         }},
        {&mom_app_ready,
         [] {
             fake::mom_connect(4);
         }},
        {&lsm_port_ready,
         [] {
             lda_lsm_event_handle(48, nullptr);
         }},
        {&mom_storm_ready,
         [] {
             lda_storm_ready();
         }},
    };
    for (const Setter& setter : setters) {
        raise_all();
        *setter.flag = 0;
        fake::clear_calls();
        setter.raise();
        EXPECT_EQ(*setter.flag, 1);
        EXPECT_EQ(announced().size(), 1u);
        EXPECT_EQ(fake::calls().back(), "cli_client_ready");
    }
}

TEST_F(Readiness, StormDetectorRaisesItsFlagFirst) {
    raise_all();
    mom_storm_ready = 0;
    lda_storm_ready();
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_storm_ready", "storm init ready\n"),
                                 info("lda_try_notify_cli_ready", "cli ready"),
                                 "cli_client_ready",
                             }));
}

TEST_F(Readiness, StormDetectorAloneAnnouncesNothing) {
    lda_storm_ready();
    EXPECT_EQ(mom_storm_ready, 1);
    EXPECT_EQ(fake::calls(), (Lines{info("lda_storm_ready", "storm init ready\n")}));
}

TEST_F(Readiness, WholeHandshakeAnnouncesOnce) {
    fake::mom_connect(22);
    fake::mom_connect(3);
    fake::mom_connect(4);
    lda_lsm_event_handle(48, nullptr);
    EXPECT_EQ(announced(), Lines{});
    fake::mom_connect(8);
    EXPECT_EQ(announced().size(), 1u);
}

// ---- Reload hooks ----

TEST_F(AgentTest, ReloadStartReturnsItsArgumentAndChangesNothing) {
    EXPECT_EQ(lda_cli_reload_start_handle(0), 0u);
    EXPECT_EQ(lda_cli_reload_start_handle(0xfedcba98), 0xfedcba98u);
    EXPECT_EQ(cli_ready, 0);
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(AgentTest, ReloadEndSubscribesToLoopReports) {
    lda_cli_reload_end_handle();
    EXPECT_EQ(cli_ready, 1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_loop_config_delivery", "enter"),
                                 "qv_mom_subscribe db=4 p_bridge.tarn_loop_info index{}",
                             }));
    EXPECT_EQ(fake::mom_subscriber(4, "p_bridge.tarn_loop_info"), lda_tarn_mom_subscribe_callback);
    EXPECT_EQ(queued(), Lines{});
}

TEST_F(AgentTest, ReloadEndPushesTheConfigurationOfBothFeaturesBeforeItSubscribes) {
    g_lda_loop_set->policy = 2;
    uint8_t ready_at_post = 0;
    Lines at_subscription;
    fake::on_call("qv_mom_subscribe", [&] {
        ready_at_post = cli_ready;
        at_subscription = queued();
    });
    lda_cli_reload_end_handle();
    EXPECT_EQ(ready_at_post, 1);
    EXPECT_EQ(at_subscription, (Lines{"type=5 mid=2 new_type=2"}));
}

TEST_F(AgentTest, ReloadEndAnnouncesReadinessBeforeItRejudgesThePorts) {
    add_looped(5);
    g_lda_loop_set->policy = 2;
    uint8_t ready = 0;
    fake::on_call("cli_client_c2p_reform", [&] { ready = cli_ready; });
    lda_cli_reload_end_handle();
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5 shutdown=1", "type=5 mid=2 new_type=2"}));
    EXPECT_EQ(ready, 1);
}

// ---- Loop-table walk ----

namespace {

uint32_t g_visited[8];
size_t g_visits;

uint32_t visit_until(lda_intf_t* record, const uint32_t* argument) {
    g_visited[g_visits++] = record->ifx;
    return argument != nullptr && record->ifx == *argument ? 5 : 0;
}

uint32_t visit_and_delete(lda_intf_t* record, const uint32_t*) {
    g_visited[g_visits++] = record->ifx;
    lda_del_intf(record->ifx);
    return 0;
}

}  // namespace

TEST_F(AgentTest, WalkOfAnEmptyTableVisitsNothing) {
    EXPECT_EQ(lda_loop_result_walk(visit_until, nullptr), nullptr);
    EXPECT_EQ(g_visits, 0u);
}

TEST_F(AgentTest, WalkStopsAtTheFirstRecordThatMatches) {
    add_record(3);
    lda_intf_t* second = add_record(1);
    add_record(2);
    uint32_t wanted = 1;
    EXPECT_EQ(lda_loop_result_walk(visit_until, &wanted), second);
    EXPECT_EQ(g_visits, 2u);
    EXPECT_EQ(g_visited[0], 3u);
    EXPECT_EQ(g_visited[1], 1u);
}

TEST_F(AgentTest, WalkWithoutAMatchRunsToTheEnd) {
    add_record(3);
    add_record(1);
    uint32_t wanted = 9;
    EXPECT_EQ(lda_loop_result_walk(visit_until, &wanted), nullptr);
    EXPECT_EQ(g_visits, 2u);
}

TEST_F(AgentTest, WalkWithoutAVisitorFindsNothing) {
    add_record(3);
    EXPECT_EQ(lda_loop_result_walk(nullptr, nullptr), nullptr);
}

TEST_F(AgentTest, WalkSurvivesAVisitorThatFreesItsRecord) {
    add_record(3);
    add_record(1);
    add_record(2);
    EXPECT_EQ(lda_loop_result_walk(visit_and_delete, nullptr), nullptr);
    EXPECT_EQ(g_visits, 3u);
    EXPECT_EQ(g_lda_loop_set->list.next, &g_lda_loop_set->list);
}
