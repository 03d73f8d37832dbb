// Start-up, role callback, readiness, and the small shared routines.
#include "lda_main.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "lda_cli_delivery.h"
#include "lda_lsm.h"
#include "storm_detect.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

extern "C" int lda_main();

using fake::error;
using fake::info;
using fake::Lines;
using fake::warn;

namespace {

std::string log(const char* text) {
    return info("hot_standby_callback", text);
}

Lines join(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The lines up to and including the first `last`.
Lines up_to(const Lines& lines, const std::string& last) {
    Lines result;
    for (const std::string& line : lines) {
        result.push_back(line);
        if (line == last)
            return result;
    }
    ADD_FAILURE() << "no line " << last;
    return result;
}

const Lines kLoggingStart = {
    "pthread_mutex_init default",
    "qv_zlog_init \"lda\"",
    "fopen \"/data/lda/lda.dbg\" \"r\"",
    "fclose",
};

const Lines kMainStart =
    join(kLoggingStart, {
                            "app_public_instance_init \"lda\"",
                            info("main", "LDA:qv_thread_master_create start.\n"),
                            "qv_thread_master_create",
                            info("main", "LDA:qv_thread_master_create end.\n"),
                            info("main", "qv_mom_client_init\n"),
                            "qv_mom_client_init \"LDA\"",
                            info("main", "qv_mom_client_init end\n"),
                        });

const Lines kMainLoop = {
    "app_public_init_dead_detection",
    info("main", "LDA:qv_thread_fetch start.\n"),
    "qv_thread_fetch",
    "qv_thread_master_finish",
};

// main() with every log line in the list of calls.
class Main : public ::testing::Test {
 protected:
    Main() {
        fake::file("/data/lda/lda.dbg", "5 0");
        fake::clear_calls();
    }
};

}  // namespace

TEST_F(Main, RunsItsStepsInOrderAndNeverReturnsZero) {
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(join(kMainStart, {"rdnd_lib_mom_reg \"lda\" 4 22 3"}), kMainLoop));
    EXPECT_EQ(g_lda_master, fake::master());
    EXPECT_EQ(g_lda_global, fake::mom_client());
}

TEST_F(Main, RegistersTheRoleCallbackForBothRoles) {
    lda_main();
    fake::Registration registration = fake::rdnd_registration();
    EXPECT_EQ(registration.reg.master, fake::master());
    EXPECT_STREQ(registration.reg.module, "lda");
    EXPECT_EQ(registration.reg.mom, fake::mom_client());
    EXPECT_EQ(registration.reg.master_cb, hot_standby_callback);
    EXPECT_EQ(registration.reg.switch_cb, hot_standby_callback);
    EXPECT_EQ(registration.reg.reserved[0], 0u);
    EXPECT_EQ(registration.reg.reserved[1], 0u);
    EXPECT_EQ(registration.reg.flags, 0u);
    EXPECT_EQ(registration.dbs, (std::vector<uint32_t>{4, 22, 3}));
    EXPECT_EQ(registration.reg.db_num, 3u);
}

TEST_F(Main, IgnoresBrokenPipesBeforeTheLoopExists) {
    bool ignored = false;
    fake::on_call("qv_thread_master_create", [&] {
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        ignored = action.sa_handler == SIG_IGN;
    });
    lda_main();
    EXPECT_TRUE(ignored);
}

TEST_F(Main, RunsAllWorkOneAtATimeUntilTheLoopRunsDry) {
    std::string order;
    fake::queue_work([&] { order += "a"; });
    fake::queue_work([&] {
        order += "b";
        fake::queue_work([&] { order += "d"; });
    });
    fake::queue_work([&] { order += "c"; });
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(order, "abcd");
    EXPECT_EQ(fake::calls_of({"qv_thread_fetch", "qv_thread_call"}),
              (Lines{"qv_thread_fetch", "qv_thread_call", "qv_thread_fetch", "qv_thread_call",
                     "qv_thread_fetch", "qv_thread_call", "qv_thread_fetch", "qv_thread_call",
                     "qv_thread_fetch"}));
}

TEST_F(Main, FillsTheGlobalThreadRecord) {
    qv_thread_master* seen = nullptr;
    fake::queue_work([&] { seen = g_thread.master; });
    lda_main();
    EXPECT_EQ(seen, fake::master());
}

TEST_F(Main, ReturnsTheErrorOfTheLoggingLock) {
    fake::fail("pthread_mutex_init", 12);
    EXPECT_EQ(lda_main(), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default"}));
}

TEST_F(Main, ReturnsTheErrorOfTheLogFile) {
    fake::fail("qv_zlog_init");
    EXPECT_EQ(lda_main(), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default", "qv_zlog_init \"lda\""}));
}

TEST_F(Main, ExitsWithOneWhenTheInstanceIsRefused) {
    fake::fail("app_public_instance_init");
    fake::Ending ending = fake::run_in_child([] { lda_main(); });
    EXPECT_EQ(ending.status, 1);
    EXPECT_FALSE(ending.returned);
    EXPECT_EQ(ending.calls, join(kLoggingStart, {"app_public_instance_init \"lda\""}));
}

TEST_F(Main, ExitStatusOneIsThatOfTheProcess) {
    fake::fail("app_public_instance_init", 22);
    EXPECT_EXIT(lda_main(), ::testing::ExitedWithCode(1), "");
}

TEST_F(Main, EndsWhenTheThreadMasterCannotBeCreated) {
    fake::fail("qv_thread_master_create");
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(kLoggingStart, {
                                      "app_public_instance_init \"lda\"",
                                      info("main", "LDA:qv_thread_master_create start.\n"),
                                      "qv_thread_master_create",
                                      error("main", "LDA: Failed to create thread master.\n"),
                                      "qv_thread_master_finish null",
                                  }));
}

TEST_F(Main, FinishesTheThreadMasterWhenTheDatabaseClientCannotBeCreated) {
    fake::fail("qv_mom_client_init");
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(), join(up_to(kMainStart, "qv_mom_client_init \"LDA\""),
                                  {
                                      error("main", "qv_mom_client_init fail!\n"),
                                      "qv_thread_master_finish",
                                  }));
    EXPECT_EQ(g_lda_global, nullptr);
}

TEST_F(Main, SkipsTheRedundancyRegistrationWithFlagBitFour) {
    g_flag = 16;
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(), join(kMainStart, kMainLoop));
    EXPECT_EQ(g_lda_loop_set, nullptr);
}

TEST_F(Main, OtherFlagBitsAreHandedToTheRegistration) {
    g_flag = 0xffffffef;
    lda_main();
    EXPECT_EQ(fake::rdnd_registration().reg.flags, 0xffffffefu);
}

TEST_F(Main, RegistrationResultIsNotExamined) {
    fake::fail("rdnd_lib_mom_reg", 5);
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(join(kMainStart, {"rdnd_lib_mom_reg \"lda\" 4 22 3"}), kMainLoop));
}

TEST(MainDefaults, ModuleNameAndDatabases) {
    EXPECT_STREQ(module_name, "lda");
    EXPECT_EQ(db_array[0], 4u);
    EXPECT_EQ(db_array[1], 22u);
    EXPECT_EQ(db_array[2], 3u);
    EXPECT_EQ(db_num, 3u);
    EXPECT_EQ(g_flag, 0u);
    EXPECT_EQ(g_lda_master, nullptr);
    EXPECT_EQ(g_lda_global, nullptr);
    EXPECT_EQ(cli_ready, 0);
    EXPECT_EQ(mom_cfg_ready, 0);
    EXPECT_EQ(mom_local_ready, 0);
    EXPECT_EQ(mom_app_ready, 0);
    EXPECT_EQ(lsm_port_ready, 0);
    EXPECT_EQ(mom_storm_ready, 0);
}

// ---- Role callback ----

namespace {

const char kRateKey[] = "\"LDA\" \"p_cmps_sln/lda/storm_dct_ratelimit/default_value\"";

const Lines kState = {
    log("It Works! This function will run on master or on switch.\n"),
    log("LDA:lda_init start.\n"),
    "pthread_mutex_init recursive",
    "pthread_condattr_init",
    "pthread_condattr_setclock monotonic",
    "pthread_cond_init monotonic",
    "pthread_condattr_destroy",
    "pthread_mutex_init default",
    log("LDA:lda_init end.\n"),
};

const Lines kCommands = {
    log("LDA:lda_cli_init start.\n"),
    "cli_client_init \"LDA\"",
    "cli_add_param_reload_start_hook",
    "cli_add_param_reload_end_hook",
    "cli_interface_show_run_hook",
    "cli_add_command 57 \"show loop detect apply shutdown\"",
    "cli_add_command 28 \"cfg loop detect\"",
    "cli_add_command 6 \"show loop detect\"",
    "cli_add_command 17 \"debug lda result clear interval\"",
    "cli_add_command 17 \"debug lda logging status\"",
    "cli_add_command 6 \"show lda client\"",
    "sys_add_debug \"lda-debug\"",
    log("LDA: register CLI success.\n"),
    log("LDA:lda_cli_init end.\n"),
};

const Lines kClients = {
    "pthread_create",
    "qv_thread_add_timer 10",
    log("LDA:lda_lsm_init start.\n"),
    "lsm_agent_set_connect_callback",
    "lsm_agent_init \"LDA\"",
    log("LDA: register LSM success.\n"),
    log("LDA:lda_lsm_init end.\n"),
    info("lda_bridge_init", "enter\n"),
    "bridge_agent_init \"LDA\"",
    "bridge_agent_set_connect_callback",
    log("LDA:lda_bridge_init end.\n"),
};

const Lines kSessions = {
    info("lda_mom_cfg_db_reg_callback", "QV_MOM_CFG_DB reg start\n"),
    "qv_mom_client_connect db=22",
    "qv_mom_client_set_reconnect_cb db=22",
    "qv_mom_client_set_disconnect_cb db=22",
    info("lda_mom_cfg_db_reg_callback", "QV_MOM_CFG_DB reg end\n"),
    info("lda_mom_local_db_reg_callback", "QV_MOM_APP_DB reg start\n"),
    "qv_mom_client_connect db=3",
    "qv_mom_client_set_reconnect_cb db=3",
    "qv_mom_client_set_disconnect_cb db=3",
    info("lda_mom_local_db_reg_callback", "QV_MOM_APP_DB reg end\n"),
    info("lda_mom_app_db_reg_callback", "QV_MOM_APP_DB reg start\n"),
    "qv_mom_client_connect db=4",
    "qv_mom_client_set_reconnect_cb db=4",
    "qv_mom_client_set_disconnect_cb db=4",
    info("lda_mom_app_db_reg_callback", "QV_MOM_APP_DB reg end\n"),
};

const Lines kStorm = {
    std::string("libqv_cap_init ") + kRateKey,
    std::string("libqv_cap_get_capacity_int32 ") + kRateKey + " -1",
    info("std_load_cap_value", "url p_cmps_sln/lda/storm_dct_ratelimit/default_value, value 8000"),
    info("storm_mom_udp_db_reg_callback", "QV_MOM_APP_DB reg start\n"),
    "qv_mom_client_connect db=8",
    "qv_mom_client_set_reconnect_cb db=8",
    "qv_mom_client_set_disconnect_cb db=8",
    info("storm_mom_udp_db_reg_callback", "QV_MOM_APP_DB reg end\n"),
    "cli_add_command 59 \"configure port storm detect\"",
    "cli_add_command 59 \"configure port limit rate set\"",
    "pthread_mutex_init recursive",
    "qv_thread_insert_timer \"loop_check\" 4",
    warn("storm_init", "storm init done."),
};

const Lines kUpToSessions = join(join(kState, kCommands), kClients);
const Lines kWholeStart = join(join(kUpToSessions, kSessions), kStorm);

// The role callback with every log line in the list of calls, logging being set up.
class RoleCallback : public ::testing::Test {
 protected:
    RoleCallback() {
        fake::file("/data/lda/lda.dbg", "5 0");
        app_debug_init("lda", "LDA");
        g_lda_master = fake::master();
        g_lda_global = fake::mom_client();
        fake::clear_calls();
    }

    // A failing start: exit status 255 after exactly these calls.
    static void expect_exit_after(const Lines& expected) {
        fake::Ending ending = fake::run_in_child([] { hot_standby_callback(); });
        EXPECT_EQ(ending.status, 255);
        EXPECT_FALSE(ending.returned);
        EXPECT_EQ(ending.calls, expected);
    }
};

}  // namespace

TEST_F(RoleCallback, BuildsTheAgentInOrder) {
    EXPECT_EQ(hot_standby_callback(), 0);
    EXPECT_EQ(fake::calls(), kWholeStart);
    EXPECT_EQ(fake::held_threads(), 1);
}

TEST_F(RoleCallback, LogLinesNameTheirSourceFile) {
    hot_standby_callback();
    ASSERT_FALSE(fake::zlog_lines().empty());
    fake::ZlogLine first = fake::zlog_lines().front();
    EXPECT_EQ(first.file, "app/src/lda_main.cpp");
    EXPECT_EQ(first.function, "hot_standby_callback");
    EXPECT_GT(first.line, 0);
}

TEST_F(RoleCallback, RunsFromTheRedundancyServiceInsideTheMainLoop) {
    fake::queue_work([] { fake::rdnd_registration().reg.master_cb(); });
    EXPECT_EQ(lda_main(), -1);
    ASSERT_NE(g_lda_loop_set, nullptr);
    EXPECT_EQ(fake::calls_of({"qv_thread_fetch", "cli_client_init", "qv_thread_master_finish"}),
              (Lines{"qv_thread_fetch", "cli_client_init \"LDA\"", "qv_thread_fetch",
                     "qv_thread_master_finish"}));
}

TEST_F(RoleCallback, MakesAnEmptyLoopSetAndQueue) {
    hot_standby_callback();
    EXPECT_EQ(g_lda_loop_set->list.next, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->list.prev, &g_lda_loop_set->list);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(g_lda_loop_set->policy, 0u);
    EXPECT_EQ(g_lda_cli_msg_set->list.next, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->list.prev, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->count, 0);
    EXPECT_EQ(backup_node_list.next, &backup_node_list);
    EXPECT_EQ(backup_node_list.prev, &backup_node_list);
}

TEST_F(RoleCallback, GivesTheRecoveryTimeItsDefaults) {
    memset(&g_lda_recover_time, 0xff, sizeof g_lda_recover_time);
    hot_standby_callback();
    EXPECT_EQ(g_lda_recover_time.time, 300u);
    EXPECT_EQ(g_lda_recover_time.enabled, 1);
    const uint8_t zero[3] = {};
    EXPECT_EQ(memcmp(g_lda_recover_time.spare, zero, sizeof zero), 0);
}

TEST_F(RoleCallback, RecoveryTimeIsSetBeforeTheLoopSetExists) {
    uint32_t time = 0;
    fake::on_call("pthread_mutex_init", [&] { time = g_lda_recover_time.time; });
    fake::fail_calloc(2);
    fake::on_call("pthread_mutex_destroy", [&] { fake::record("time " + std::to_string(time)); });
    expect_exit_after({
        log("It Works! This function will run on master or on switch.\n"),
        log("LDA:lda_init start.\n"),
        "pthread_mutex_init recursive",
        "pthread_mutex_destroy",
        "time 300",
        error("hot_standby_callback", "LDA: Failed to initialize list.\n"),
    });
}

TEST_F(RoleCallback, LoopLockIsRecursive) {
    hot_standby_callback();
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_EQ(lda_loop_lock(), 0);
    EXPECT_EQ(lda_loop_unlock(), 0);
    EXPECT_EQ(lda_loop_unlock(), 0);
}

TEST_F(RoleCallback, ArmsTheRecoveryTick) {
    hot_standby_callback();
    std::vector<fake::Timer> timers = fake::timers();
    ASSERT_EQ(timers.size(), 2u);
    EXPECT_EQ(timers[0].func, lda_intf_shutdown_timer_call);
    EXPECT_EQ(timers[0].seconds, 10);
    EXPECT_EQ(timers[0].arg, nullptr);
    EXPECT_EQ(timers[1].name, "loop_check");
    EXPECT_EQ(timers[1].seconds, 4);
}

TEST_F(RoleCallback, RegistersTheReloadHooks) {
    hot_standby_callback();
    EXPECT_EQ(fake::reload_start_hook(), lda_cli_reload_start_handle);
    EXPECT_EQ(fake::reload_end_hook(), lda_cli_reload_end_handle);
}

TEST_F(RoleCallback, HandsTheStormDetectorItsCallbacks) {
    hot_standby_callback();
    EXPECT_EQ(g_storm_master, fake::master());
    EXPECT_EQ(g_storm_global, fake::mom_client());
    EXPECT_EQ(notify_msg_proc, lda_loop_result_set_for_storm);
    EXPECT_EQ(notify_ready_msg, lda_storm_ready);
}

TEST_F(RoleCallback, ExitsWithoutMemoryForTheLoopSet) {
    fake::fail_calloc(1);
    expect_exit_after({
        log("It Works! This function will run on master or on switch.\n"),
        log("LDA:lda_init start.\n"),
        error("hot_standby_callback", "LDA: Failed to initialize list.\n"),
    });
}

TEST_F(RoleCallback, DestroysTheLoopLockWithoutMemoryForTheQueue) {
    fake::fail_calloc(2);
    expect_exit_after({
        log("It Works! This function will run on master or on switch.\n"),
        log("LDA:lda_init start.\n"),
        "pthread_mutex_init recursive",
        "pthread_mutex_destroy",
        error("hot_standby_callback", "LDA: Failed to initialize list.\n"),
    });
}

TEST_F(RoleCallback, ExitsSilentlyWhenTheCommandClientFails) {
    fake::fail("cli_client_init");
    expect_exit_after(join(kState, up_to(kCommands, "cli_client_init \"LDA\"")));
}

TEST_F(RoleCallback, ExitsSilentlyWhenTheDeliveryThreadCannotStart) {
    fake::fail("pthread_create", 11);
    expect_exit_after(join(join(kState, kCommands), {"pthread_create"}));
}

TEST_F(RoleCallback, ExitStatusIsThatOfTheProcess) {
    fake::fail("pthread_create", 11);
    EXPECT_EXIT(hot_standby_callback(), ::testing::ExitedWithCode(255), "");
}

TEST_F(RoleCallback, ExitsWhenThePortStateClientFails) {
    fake::fail("lsm_agent_init");
    expect_exit_after(join(up_to(kUpToSessions, "lsm_agent_init \"LDA\""),
                           {error("hot_standby_callback", "LDA: Failed to register LSM.\n")}));
}

TEST_F(RoleCallback, ExitsWhenTheBridgeClientFails) {
    fake::fail("bridge_agent_init");
    expect_exit_after(
        join(up_to(kUpToSessions, "bridge_agent_init \"LDA\""),
             {
                 error("lda_bridge_init", "failed to init lda bridge"),
                 error("hot_standby_callback", "LDA: Failed to register lda bridge client.\n"),
             }));
}

TEST_F(RoleCallback, ExitsWhenTheConfigurationDatabaseFails) {
    fake::fail_nth("qv_mom_client_connect", 1, 7);
    expect_exit_after(
        join(kUpToSessions,
             join(up_to(kSessions, "qv_mom_client_connect db=22"),
                  {
                      error("lda_mom_cfg_db_reg_callback", "qv_mom_client_connect error[7]\n"),
                      error("hot_standby_callback", "lda_mom_cfg_db_reg_callback fail!\n"),
                  })));
}

TEST_F(RoleCallback, ExitsWhenTheLocalDatabaseFails) {
    fake::fail_nth("qv_mom_client_set_reconnect_cb", 2, 7);
    expect_exit_after(join(
        kUpToSessions,
        join(
            up_to(kSessions, "qv_mom_client_set_reconnect_cb db=3"),
            {
                error("lda_mom_local_db_reg_callback", "qv_mom_client_set_reconnect_cb error[7]\n"),
                error("hot_standby_callback", "lda_mom_local_db_reg_callback fail!\n"),
            })));
}

TEST_F(RoleCallback, ExitsWhenTheApplicationDatabaseFails) {
    fake::fail_nth("qv_mom_client_set_disconnect_cb", 3, 7);
    expect_exit_after(join(
        kUpToSessions,
        join(up_to(kSessions, "qv_mom_client_set_disconnect_cb db=4"),
             {
                 error("lda_mom_app_db_reg_callback", "qv_mom_client_set_disconnect_cb error[7]\n"),
                 error("hot_standby_callback", "lda_mom_app_db_reg_callback fail!\n"),
             })));
}

TEST_F(RoleCallback, GoesOnWithoutACondition) {
    fake::fail("pthread_condattr_init", 12);
    EXPECT_EQ(hot_standby_callback(), 0);
    Lines calls = fake::calls();
    EXPECT_EQ(up_to(calls, log("LDA:lda_init end.\n")),
              (Lines{
                  log("It Works! This function will run on master or on switch.\n"),
                  log("LDA:lda_init start.\n"),
                  "pthread_mutex_init recursive",
                  "pthread_condattr_init",
                  error("lda_pthread_cond_init", "pthread_condattr_init error\n"),
                  "pthread_mutex_init default",
                  log("LDA:lda_init end.\n"),
              }));
    EXPECT_EQ(calls.back(), warn("storm_init", "storm init done."));
}

TEST_F(RoleCallback, GoesOnWithoutARecoveryTick) {
    fake::fail("qv_thread_add_timer");
    EXPECT_EQ(hot_standby_callback(), 0);
    EXPECT_EQ(fake::calls().back(), warn("storm_init", "storm init done."));
    EXPECT_EQ(fake::timers().size(), 1u);
}

TEST_F(RoleCallback, GoesOnWithoutTheStormSession) {
    fake::fail_nth("qv_mom_client_connect", 4, 7);
    EXPECT_EQ(hot_standby_callback(), 0);
    EXPECT_EQ(fake::calls().back(), warn("storm_init", "storm init done."));
}

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

TEST_F(Readiness, LastFlagAnnouncesWhicheverItIs) {
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

// ---- Condition variable ----

namespace {

class Condition : public RoleCallback {
 protected:
    pthread_cond_t cond_;
};

}  // namespace

TEST_F(Condition, RunsOnTheMonotonicClock) {
    EXPECT_EQ(lda_pthread_cond_init(&cond_), 0);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                                    "pthread_cond_init monotonic", "pthread_condattr_destroy"}));
}

TEST_F(Condition, ReportsAnAttributeThatCannotBeMade) {
    fake::fail("pthread_condattr_init", 12);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(),
              (Lines{"pthread_condattr_init",
                     error("lda_pthread_cond_init", "pthread_condattr_init error\n")}));
}

TEST_F(Condition, ReportsAClockThatCannotBeSetAndDestroysTheAttribute) {
    fake::fail("pthread_condattr_setclock", 22);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(),
              (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                     error("lda_pthread_cond_init", "pthread_condattr_setclock error\n"),
                     "pthread_condattr_destroy"}));
}

TEST_F(Condition, ReportsAConditionThatCannotBeMadeAndDestroysTheAttribute) {
    fake::fail("pthread_cond_init", 12);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                                    "pthread_cond_init monotonic",
                                    error("lda_pthread_cond_init", "pthread_cond_init error\n"),
                                    "pthread_condattr_destroy"}));
}

// ---- Temporary path ----

TEST(MakePath, DefaultDirectoryIsFollowedDirectlyByTheName) {
    unsetenv("TMPDIR");
    EXPECT_STREQ(lda_make_path("loops"), "/tmploops");
    EXPECT_STREQ(lda_make_path("/loops"), "/tmp/loops");
    EXPECT_STREQ(lda_make_path(""), "/tmp");
}

TEST(MakePath, TakesTheDirectoryFromTheEnvironment) {
    setenv("TMPDIR", "/var/run/", 1);
    EXPECT_STREQ(lda_make_path("loops"), "/var/run/loops");
}

TEST(MakePath, ReturnsTheSameBufferEachTime) {
    unsetenv("TMPDIR");
    const char* first = lda_make_path("a");
    EXPECT_EQ(lda_make_path("b"), first);
    EXPECT_STREQ(first, "/tmpb");
}

TEST(MakePath, NeverLeavesItsSixtyFourBytes) {
    unsetenv("TMPDIR");
    std::string name(100, 'x');
    EXPECT_EQ(std::string(lda_make_path(name.c_str())), "/tmp" + std::string(59, 'x'));
    std::string directory = "/" + std::string(99, 'd');
    setenv("TMPDIR", directory.c_str(), 1);
    EXPECT_EQ(std::string(lda_make_path("name")), "/" + std::string(62, 'd'));
}
