// Start-up: default rate, handler table, session with database 8, commands, poll timer.
#include <cstring>

#include "tests/unit/storm/storm_fixture.h"

namespace {

constexpr char kKey[] = "p_cmps_sln/lda/storm_dct_ratelimit/default_value";

const std::string kCapInit = std::string("libqv_cap_init \"LDA\" \"") + kKey + "\"";
const std::string kCapGet = std::string("libqv_cap_get_capacity_int32 \"LDA\" \"") + kKey + "\" -1";

const Lines kCommands = {"cli_add_command 59 \"configure port storm detect\"",
                         "cli_add_command 59 \"configure port limit rate set\"",
                         "pthread_mutex_init recursive"};

using StormStart = StormTest;

TEST_F(StormStart, StartsInOrder) {
    fake::clear_calls();
    EXPECT_EQ(storm_init(fake::master(), fake::mom_client(), storm_verdict, storm_ready), 0);
    EXPECT_EQ(take_calls(), (Lines{kCapInit, kCapGet, "qv_mom_client_connect db=8",
                                   "qv_mom_client_set_reconnect_cb db=8",
                                   "qv_mom_client_set_disconnect_cb db=8"} +
                             kCommands + Lines{"qv_thread_insert_timer \"loop_check\" 4"}));
    EXPECT_EQ(g_storm_master, fake::master());
    EXPECT_EQ(g_storm_global, fake::mom_client());
    EXPECT_EQ(notify_msg_proc, &storm_verdict);
    EXPECT_EQ(notify_ready_msg, &storm_ready);
    EXPECT_EQ(storm_udp_mgr, nullptr);
    EXPECT_EQ(storm_port_head.next, &storm_port_head);
    EXPECT_EQ(storm_port_head.prev, &storm_port_head);
    ASSERT_EQ(fake::timers().size(), 1u);
    EXPECT_EQ(fake::timers()[0].func, &storm_deal_counter_timeout);
    EXPECT_EQ(fake::timers()[0].slot, &g_storm_thread);
}

// A mutex that was made before must not be made again.
TEST_F(StormStart, MutexIsNotUsedBeforeItIsCreated) {
    const pthread_mutex_t untouched{};
    bool fresh = false;
    fake::on_call("pthread_mutex_init",
                  [&] { fresh = memcmp(&g_libstorm_mutex, &untouched, sizeof untouched) == 0; });
    start();
    fake::on_call("pthread_mutex_init", nullptr);
    EXPECT_TRUE(fresh);
}

TEST_F(StormStart, LogsItsSteps) {
    fake::clear_calls();
    start();
    EXPECT_EQ(take_log(),
              (Lines{fake::info("std_load_cap_value", std::string("url ") + kKey + ", value 8000"),
                     fake::info("storm_mom_udp_db_reg_callback", "QV_MOM_APP_DB reg start\n"),
                     fake::info("storm_mom_udp_db_reg_callback", "QV_MOM_APP_DB reg end\n"),
                     fake::warn("storm_init", "storm init done.")}));
}

TEST_F(StormStart, StartsWithoutRecords) {
    start();
    fake::mom_connect(8);
    ASSERT_EQ(storm_add_by_fp(8000, 1024, 101), 0);
    storm_port_info* left = record(101);
    ASSERT_NE(left, nullptr);
    start();
    EXPECT_EQ(storm_port_head.next, &storm_port_head);
    EXPECT_EQ(storm_port_head.prev, &storm_port_head);
    EXPECT_EQ(storm_port_index.find(101), nullptr);
    free(left);
}

TEST_F(StormStart, FillsTheHandlerTableBySlot) {
    start();
    void (*slot[16])(void);
    memcpy(slot, &g_storm_udp_handler, sizeof slot);
    const auto address = [](auto* function) {
        return reinterpret_cast<void (*)(void)>(function);
    };
    EXPECT_EQ(slot[0], address(storm_install_on_acl_success));
    EXPECT_EQ(slot[1], address(storm_install_on_acl_failed));
    EXPECT_EQ(slot[2], address(storm_install_on_ace_success));
    EXPECT_EQ(slot[3], address(storm_install_on_ace_failed));
    EXPECT_EQ(slot[4], address(storm_install_on_apply_success));
    EXPECT_EQ(slot[5], address(storm_install_on_apply_failed));
    EXPECT_EQ(slot[10], address(std_counter_msg));
    for (const int empty : {6, 7, 8, 9, 11, 12, 13, 14, 15}) {
        EXPECT_EQ(slot[empty], nullptr) << empty;
    }
}

TEST_F(StormStart, CapabilityReplacesTheDefaultRate) {
    fake::capability(kKey, 12000);
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 12000u);
}

TEST_F(StormStart, CapabilityOfZeroIsUsed) {
    fake::capability(kKey, 0);
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 0u);
}

TEST_F(StormStart, AbsentCapabilityKeepsTheDefaultRate) {
    fake::clear_calls();
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 8000u);
    EXPECT_EQ(
        take_log(),
        (Lines{fake::info("std_load_cap_value", std::string("url ") + kKey + ", value 8000")}));
}

TEST_F(StormStart, NegativeCapabilityKeepsTheDefaultRate) {
    fake::capability(kKey, -5);
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 8000u);
}

TEST_F(StormStart, CapabilityLibraryFailureKeepsTheDefaultRate) {
    fake::capability(kKey, 12000);
    fake::fail("libqv_cap_init", 5);
    fake::clear_calls();
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 8000u);
    EXPECT_EQ(fake::take_calls(),
              (Lines{kCapInit, fake::error("std_load_cap_value", "libqv_cap_init, failed rv 5")}));
}

// The value that a failed read may have written does not count.
TEST_F(StormStart, CapabilityReadFailureKeepsTheDefaultRate) {
    fake::capability(kKey, 12000);
    fake::fail("libqv_cap_get_capacity_int32", 5);
    fake::clear_calls();
    std_load_cap_value();
    EXPECT_EQ(g_pps_value, 8000u);
    EXPECT_EQ(
        take_log(),
        (Lines{fake::info("std_load_cap_value", std::string("url ") + kKey + ", value 8000")}));
}

TEST_F(StormStart, HandlerTableIsFilledBeforeTheSessionIsOpened) {
    bool filled = false;
    fake::on_call("qv_mom_client_connect", [&] {
        filled = g_storm_udp_handler.acl_success != nullptr &&
                 g_storm_udp_handler.apply_failed != nullptr &&
                 g_storm_udp_handler.counter == std_counter_msg;
    });
    start();
    EXPECT_TRUE(filled);
}

TEST_F(StormStart, ConnectFailureIsLoggedAndStartUpContinues) {
    fake::fail("qv_mom_client_connect", 3);
    fake::clear_calls();
    EXPECT_EQ(storm_init(fake::master(), fake::mom_client(), storm_verdict, storm_ready), 0);
    const Lines log = fake::calls_of({"zlog"});
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[2],
              fake::error("storm_mom_udp_db_reg_callback", "qv_mom_client_connect error[3]\n"));
    EXPECT_EQ(take_calls(), (Lines{kCapInit, kCapGet, "qv_mom_client_connect db=8"} + kCommands +
                             Lines{"qv_thread_insert_timer \"loop_check\" 4"}));
}

TEST_F(StormStart, ReconnectRegistrationFailureIsLoggedAndStartUpContinues) {
    fake::fail("qv_mom_client_set_reconnect_cb", 4);
    fake::clear_calls();
    start();
    EXPECT_EQ(
        fake::calls_of({"zlog"})[2],
        fake::error("storm_mom_udp_db_reg_callback", "qv_mom_client_set_reconnect_cb error[4]\n"));
    EXPECT_EQ(take_calls(), (Lines{kCapInit, kCapGet, "qv_mom_client_connect db=8",
                                   "qv_mom_client_set_reconnect_cb db=8"} +
                             kCommands + Lines{"qv_thread_insert_timer \"loop_check\" 4"}));
}

TEST_F(StormStart, DisconnectRegistrationFailureIsReportedInTheReconnectWords) {
    fake::fail("qv_mom_client_set_disconnect_cb", 6);
    fake::clear_calls();
    start();
    EXPECT_EQ(take_log(),
              (Lines{fake::info("std_load_cap_value", std::string("url ") + kKey + ", value 8000"),
                     fake::info("storm_mom_udp_db_reg_callback", "QV_MOM_APP_DB reg start\n"),
                     fake::error("storm_mom_udp_db_reg_callback",
                                 "qv_mom_client_set_reconnect_cb error[6]\n"),
                     fake::warn("storm_init", "storm init done.")}));
}

TEST_F(StormStart, TimerFailureIsLoggedAndStartUpContinues) {
    fake::fail("qv_thread_insert_timer", 12);
    fake::clear_calls();
    EXPECT_EQ(storm_init(fake::master(), fake::mom_client(), storm_verdict, storm_ready), 0);
    const Lines log = take_log();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[3], fake::error("storm_init", "storm_init qv_thread_insert_timer error 12\n"));
    EXPECT_EQ(log[4], fake::warn("storm_init", "storm init done."));
}

const Lines kConnected = {"fp_udp_register_app_type \"loop_detection_app\"",
                          "fp_udp_cgst_register db=8 \"LDA\"",
                          "fp_udp_register_acl_handler db=8 slots 0,1,2,3,4,5,10",
                          "fp_udp_get_mgr",
                          "fp_acl_expire_add \"loop_detection_app\"",
                          "fp_entry_expire_add \"loop_detection_app\"",
                          "fp_apply_expire_add \"loop_detection_app\"",
                          "ready"};

using StormSession = StormTest;

TEST_F(StormSession, ConnectRegistersAndReportsReady) {
    start();
    fake::clear_calls();
    EXPECT_EQ(fake::mom_connect(8), 0);
    EXPECT_EQ(fake::calls_of({"zlog"}),
              (Lines{fake::info("storm_mom_udp_db_connect", "storm_mom_local_db_connect\n")}));
    EXPECT_EQ(take_calls(), kConnected);
    EXPECT_NE(storm_udp_mgr, nullptr);
}

TEST_F(StormSession, ExpiryRegistrationsCarryTheCallbackArgument) {
    start();
    fake::mom_connect(8);
    fake::clear_calls();
    int argument = 0;
    storm_fp_expire_add(&argument);
    EXPECT_EQ(take_calls(), (Lines{"fp_acl_expire_add \"loop_detection_app\" with argument",
                                   "fp_entry_expire_add \"loop_detection_app\" with argument",
                                   "fp_apply_expire_add \"loop_detection_app\" with argument"}));
}

TEST_F(StormSession, ReconnectBeforeReadinessRunsTheWholeConnectCallback) {
    start();
    fake::clear_calls();
    EXPECT_EQ(fake::mom_reconnect(8), 0);
    EXPECT_EQ(fake::calls_of({"zlog"}),
              (Lines{fake::info("storm_mom_udp_db_reconnect", "storm_mom_local_db_reconnect\n"),
                     fake::info("storm_mom_udp_db_connect", "storm_mom_local_db_connect\n")}));
    EXPECT_EQ(take_calls(), kConnected);
}

TEST_F(StormSession, ReconnectAfterReadinessOnlyRegistersTheHandlersAgain) {
    start();
    fake::mom_connect(8);
    mom_storm_ready = 1;
    fake::clear_calls();
    EXPECT_EQ(fake::mom_reconnect(8), 0);
    EXPECT_EQ(fake::calls_of({"zlog"}),
              (Lines{fake::info("storm_mom_udp_db_reconnect", "storm_mom_local_db_reconnect\n")}));
    EXPECT_EQ(take_calls(), (Lines{"fp_udp_register_acl_handler db=8 slots 0,1,2,3,4,5,10"}));
}

TEST_F(StormSession, DisconnectTearsNothingDown) {
    start();
    fake::mom_connect(8);
    storm_set(1, true);
    fake::clear_calls();
    EXPECT_EQ(fake::mom_disconnect(8), 0);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{fake::info("storm_mom_udp_db_disconnect", "storm_mom_local_db_disconnect\n")}));
    EXPECT_NE(record(101), nullptr);
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormSession, RulesAreNotRebuiltAfterAReconnect) {
    start();
    fake::mom_connect(8);
    mom_storm_ready = 1;
    storm_set(1, true);
    fake::mom_disconnect(8);
    fake::clear_calls();
    fake::mom_reconnect(8);
    EXPECT_EQ(take_calls(), (Lines{"fp_udp_register_acl_handler db=8 slots 0,1,2,3,4,5,10"}));
}

TEST_F(StormSession, MissingManagerIsReportedWhenExpiryIsRegistered) {
    start();
    fake::fail("fp_udp_get_mgr");
    fake::clear_calls();
    fake::mom_connect(8);
    EXPECT_EQ(take_log(),
              (Lines{fake::info("storm_mom_udp_db_connect", "storm_mom_local_db_connect\n"),
                     fake::error("storm_fp_expire_add", "storm_udp_mgr is NULL !")}));
}

using StormCommandRegistration = StormTest;

TEST_F(StormCommandRegistration, RefusedTreesAreReportedWithNumberZero) {
    fake::fail("cli_add_command", -1);
    fake::clear_calls();
    std_cli_init();
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_add_command 59 \"configure port storm detect\"",
                     "cli_printf \"cli_add_command configure port storm detect failed, rv = 0!\"",
                     "cli_add_command 59 \"configure port limit rate set\"",
                     "cli_printf \"cli_add_command configure port rate failed, rv = 0!\"",
                     "pthread_mutex_init recursive"}));
}

TEST_F(StormCommandRegistration, ListsAreEmptiedOnlyWithAMutex) {
    storm_rate_info rate{};
    rate.ifx = 9;
    rate.rate = 1;
    lda_list_add_head(&g_libstorm_rate_head, &rate.link);
    storm_ifx_info ifx{};
    ifx.ifx = 9;
    lda_list_add_head(&g_libstorm_head, &ifx.link);
    fake::fail_nth("pthread_mutex_init", 1, 12);
    std_cli_init();
    EXPECT_EQ(rates(), "9:1/0");
    EXPECT_EQ(enabled(), "9");
    std_cli_init();
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(enabled(), "");
}

TEST_F(StormCommandRegistration, LockIsRecursive) {
    start();
    ASSERT_EQ(pthread_mutex_lock(&g_libstorm_mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&g_libstorm_mutex), 0);
    pthread_mutex_unlock(&g_libstorm_mutex);
    pthread_mutex_unlock(&g_libstorm_mutex);
}

}  // namespace
