// Sessions with the configuration (22), local (3) and application (4) databases.
#include <gtest/gtest.h>

#include "lda_main.h"
#include "lda_netconf.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::error;
using fake::info;
using fake::Lines;

namespace {

class Sessions : public AgentTest {
 protected:
    static constexpr const char* kCfg = "lda_mom_cfg_db_reg_callback";
    static constexpr const char* kLocal = "lda_mom_local_db_reg_callback";
    static constexpr const char* kApp = "lda_mom_app_db_reg_callback";
};

const char kConnectError[] = "qv_mom_client_connect error[111]\n";
const char kReconnectError[] = "qv_mom_client_set_reconnect_cb error[111]\n";
const char kDisconnectError[] = "qv_mom_client_set_disconnect_cb error[111]\n";

}  // namespace

// ---- Registration ----

TEST_F(Sessions, ConfigurationDatabaseIsRegistered) {
    EXPECT_EQ(lda_mom_cfg_db_reg_callback(), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kCfg, "QV_MOM_CFG_DB reg start\n"),
                                 "qv_mom_client_connect db=22",
                                 "qv_mom_client_set_reconnect_cb db=22",
                                 "qv_mom_client_set_disconnect_cb db=22",
                                 info(kCfg, "QV_MOM_CFG_DB reg end\n"),
                             }));
    EXPECT_EQ(fake::mom_session(22).connect, lda_mom_cfg_db_connect);
    EXPECT_EQ(fake::mom_session(22).reconnect, lda_mom_cfg_db_reconnect);
    EXPECT_EQ(fake::mom_session(22).disconnect, lda_mom_cfg_db_disconnect);
}

TEST_F(Sessions, LocalDatabaseIsRegisteredUnderTheNameOfTheApplicationDatabase) {
    EXPECT_EQ(lda_mom_local_db_reg_callback(), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kLocal, "QV_MOM_APP_DB reg start\n"),
                                 "qv_mom_client_connect db=3",
                                 "qv_mom_client_set_reconnect_cb db=3",
                                 "qv_mom_client_set_disconnect_cb db=3",
                                 info(kLocal, "QV_MOM_APP_DB reg end\n"),
                             }));
    EXPECT_EQ(fake::mom_session(3).connect, lda_mom_local_db_connect);
    EXPECT_EQ(fake::mom_session(3).reconnect, lda_mom_local_db_reconnect);
    EXPECT_EQ(fake::mom_session(3).disconnect, lda_mom_local_db_disconnect);
}

TEST_F(Sessions, ApplicationDatabaseIsRegistered) {
    EXPECT_EQ(lda_mom_app_db_reg_callback(), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kApp, "QV_MOM_APP_DB reg start\n"),
                                 "qv_mom_client_connect db=4",
                                 "qv_mom_client_set_reconnect_cb db=4",
                                 "qv_mom_client_set_disconnect_cb db=4",
                                 info(kApp, "QV_MOM_APP_DB reg end\n"),
                             }));
    EXPECT_EQ(fake::mom_session(4).connect, lda_mom_app_db_connect);
    EXPECT_EQ(fake::mom_session(4).reconnect, lda_mom_app_db_reconnect);
    EXPECT_EQ(fake::mom_session(4).disconnect, lda_mom_app_db_disconnect);
}

TEST_F(Sessions, ConfigurationDatabaseConnectFailureIsReported) {
    fake::fail("qv_mom_client_connect", 111);
    EXPECT_EQ(lda_mom_cfg_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kCfg, "QV_MOM_CFG_DB reg start\n"),
                                 "qv_mom_client_connect db=22",
                                 error(kCfg, kConnectError),
                             }));
}

TEST_F(Sessions, ConfigurationDatabaseReportsItsReconnectSetterAsConnect) {
    fake::fail("qv_mom_client_set_reconnect_cb", 111);
    EXPECT_EQ(lda_mom_cfg_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kCfg, "QV_MOM_CFG_DB reg start\n"),
                                 "qv_mom_client_connect db=22",
                                 "qv_mom_client_set_reconnect_cb db=22",
                                 error(kCfg, kConnectError),
                             }));
}

TEST_F(Sessions, ConfigurationDatabaseReportsItsDisconnectSetterAsConnect) {
    fake::fail("qv_mom_client_set_disconnect_cb", 111);
    EXPECT_EQ(lda_mom_cfg_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kCfg, "QV_MOM_CFG_DB reg start\n"),
                                 "qv_mom_client_connect db=22",
                                 "qv_mom_client_set_reconnect_cb db=22",
                                 "qv_mom_client_set_disconnect_cb db=22",
                                 error(kCfg, kConnectError),
                             }));
}

TEST_F(Sessions, LocalDatabaseConnectFailureIsReported) {
    fake::fail("qv_mom_client_connect", 111);
    EXPECT_EQ(lda_mom_local_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info(kLocal, "QV_MOM_APP_DB reg start\n"),
                                 "qv_mom_client_connect db=3",
                                 error(kLocal, kConnectError),
                             }));
}

TEST_F(Sessions, LocalDatabaseReportsItsReconnectSetter) {
    fake::fail("qv_mom_client_set_reconnect_cb", 111);
    EXPECT_EQ(lda_mom_local_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls().back(), error(kLocal, kReconnectError));
    EXPECT_EQ(fake::count("qv_mom_client_set_disconnect_cb"), 4);  // those of the start
}

TEST_F(Sessions, LocalDatabaseReportsItsDisconnectSetterAsReconnect) {
    fake::fail("qv_mom_client_set_disconnect_cb", 111);
    EXPECT_EQ(lda_mom_local_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls().back(), error(kLocal, kReconnectError));
}

TEST_F(Sessions, ApplicationDatabaseConnectFailureIsReported) {
    fake::fail("qv_mom_client_connect", 111);
    EXPECT_EQ(lda_mom_app_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls().back(), error(kApp, kConnectError));
    EXPECT_EQ(fake::calls_of({"qv_mom_client_set_reconnect_cb"}), Lines{});
}

TEST_F(Sessions, ApplicationDatabaseReportsItsReconnectSetter) {
    fake::fail("qv_mom_client_set_reconnect_cb", 111);
    EXPECT_EQ(lda_mom_app_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls().back(), error(kApp, kReconnectError));
    EXPECT_EQ(fake::calls_of({"qv_mom_client_set_disconnect_cb"}), Lines{});
}

TEST_F(Sessions, ApplicationDatabaseReportsItsDisconnectSetter) {
    fake::fail("qv_mom_client_set_disconnect_cb", 111);
    EXPECT_EQ(lda_mom_app_db_reg_callback(), -1);
    EXPECT_EQ(fake::calls().back(), error(kApp, kDisconnectError));
}

// ---- Configuration database ----

TEST_F(Sessions, ConfigurationConnectRaisesItsFlag) {
    EXPECT_EQ(fake::mom_connect(22), 0);
    EXPECT_EQ(mom_cfg_ready, 1);
    EXPECT_EQ(fake::calls(), (Lines{info("lda_mom_cfg_db_connect", "lda_mom_cfg_db_connect\n")}));
}

TEST_F(Sessions, ConfigurationReconnectRaisesItsFlag) {
    EXPECT_EQ(fake::mom_reconnect(22), 0);
    EXPECT_EQ(mom_cfg_ready, 1);
    EXPECT_EQ(fake::calls(),
              (Lines{info("lda_mom_cfg_db_reconnect", "lda_mom_cfg_db_reconnect\n")}));
}

TEST_F(Sessions, ConfigurationReconnectAnnouncesReadinessAgain) {
    mom_cfg_ready = mom_local_ready = mom_app_ready = lsm_port_ready = mom_storm_ready = 1;
    cli_ready = 1;
    fake::mom_reconnect(22);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_cfg_db_reconnect", "lda_mom_cfg_db_reconnect\n"),
                                 info("lda_try_notify_cli_ready", "cli ready"),
                                 "cli_client_ready",
                             }));
}

// ---- Local database ----

TEST_F(Sessions, LocalConnectSubscribesBeforeItRaisesItsFlag) {
    uint8_t flag_at_subscription = 1;
    fake::on_call("qv_mom_subscribe", [&] { flag_at_subscription = mom_local_ready; });
    EXPECT_EQ(fake::mom_connect(3), 0);
    EXPECT_EQ(flag_at_subscription, 0);
    EXPECT_EQ(mom_local_ready, 1);
    EXPECT_EQ(fake::mom_subscriber(3, "p_app.lda_nc_policy"), lda_nc_msg_policy);
    EXPECT_EQ(fake::calls().front(),
              info("lda_mom_local_db_connect", "lda_mom_local_db_connect\n"));
    EXPECT_EQ(fake::calls_without({"zlog"}).size(), 1u);
}

TEST_F(Sessions, LocalReconnectSubscribesAgainAndAnnouncesAgain) {
    mom_cfg_ready = mom_local_ready = mom_app_ready = lsm_port_ready = mom_storm_ready = 1;
    EXPECT_EQ(fake::mom_reconnect(3), 0);
    EXPECT_EQ(fake::calls().front(),
              info("lda_mom_local_db_reconnect", "lda_mom_local_db_reconnect\n"));
    Lines calls = fake::calls_without({"zlog"});
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].substr(0, 42), "qv_mom_subscribe db=3 p_app.lda_nc_policy");
    EXPECT_EQ(calls[1], "cli_client_ready");
}

TEST_F(Sessions, LocalReconnectBeforeAnyConnectBehavesAsAConnect) {
    EXPECT_EQ(fake::mom_reconnect(3), 0);
    EXPECT_EQ(mom_local_ready, 1);
    EXPECT_NE(fake::mom_subscriber(3, "p_app.lda_nc_policy"), nullptr);
}

TEST_F(Sessions, LocalDatabaseIsSubscribedOnEveryConnectAndReconnect) {
    fake::mom_connect(3);
    for (int times = 1; times <= 3; times++) {
        fake::mom_disconnect(3);
        EXPECT_EQ(fake::calls_of({"qv_mom_subscribe"}).size(), static_cast<size_t>(times));
        fake::mom_reconnect(3);
    }
    EXPECT_EQ(fake::calls_of({"qv_mom_subscribe"}), (Lines(4,
                                                           "qv_mom_subscribe db=3 "
                                                           "p_app.lda_nc_policy")));
}

TEST_F(Sessions, LocalReconnectIgnoresTheResultOfTheSubscription) {
    fake::fail("qv_mom_subscribe", 107);
    EXPECT_EQ(fake::mom_reconnect(3), 0);
    EXPECT_EQ(mom_local_ready, 1);
}

TEST_F(Sessions, LocalConnectIgnoresTheResultOfTheSubscription) {
    fake::fail("qv_mom_subscribe", 107);
    EXPECT_EQ(fake::mom_connect(3), 0);
    EXPECT_EQ(mom_local_ready, 1);
}

// ---- Application database ----

namespace {

const Lines kPurge = {
    info("lda_mom_del_all_loop_entry", "delete all loop entry\n"),
    "qv_mom_pdel db=4 p_app.lda_loop_entry index{}",
};

Lines after(const std::string& first, const Lines& rest) {
    Lines lines{first};
    lines.insert(lines.end(), rest.begin(), rest.end());
    return lines;
}

}  // namespace

TEST_F(Sessions, ApplicationConnectPurgesTheLoopEntriesBeforeItRaisesItsFlag) {
    uint8_t flag_at_purge = 1;
    fake::on_call("qv_mom_pdel", [&] { flag_at_purge = mom_app_ready; });
    EXPECT_EQ(fake::mom_connect(4), 0);
    EXPECT_EQ(flag_at_purge, 0);
    EXPECT_EQ(mom_app_ready, 1);
    EXPECT_EQ(fake::calls(),
              after(info("lda_mom_app_db_connect", "lda_mom_app_db_connect\n"), kPurge));
}

TEST_F(Sessions, ApplicationConnectIgnoresTheResultOfThePurge) {
    fake::fail("qv_mom_pdel", 107);
    EXPECT_EQ(fake::mom_connect(4), 0);
    EXPECT_EQ(mom_app_ready, 1);
}

TEST_F(Sessions, ApplicationReconnectBeforeAnyConnectBehavesAsAConnect) {
    EXPECT_EQ(fake::mom_reconnect(4), 0);
    EXPECT_EQ(mom_app_ready, 1);
    EXPECT_EQ(fake::calls(),
              after(info("lda_mom_app_db_reconnect", "lda_mom_app_db_reconnect\n"), kPurge));
}

TEST_F(Sessions, ApplicationReconnectBeforeAnyConnectMayCompleteReadiness) {
    mom_cfg_ready = mom_local_ready = lsm_port_ready = mom_storm_ready = 1;
    fake::mom_reconnect(4);
    EXPECT_EQ(fake::calls().back(), "cli_client_ready");
}

TEST_F(Sessions, ApplicationReconnectDuringTheReplayChangesNothing) {
    fake::mom_connect(4);
    mom_cfg_ready = mom_local_ready = lsm_port_ready = mom_storm_ready = 1;
    fake::clear_calls();
    EXPECT_EQ(fake::mom_reconnect(4), 0);
    EXPECT_EQ(fake::calls(),
              (Lines{info("lda_mom_app_db_reconnect", "lda_mom_app_db_reconnect\n")}));
}

TEST_F(Sessions, ApplicationReconnectAfterTheReplaySubscribesAgainAndKeepsTheEntries) {
    mom_cfg_ready = mom_local_ready = mom_app_ready = lsm_port_ready = mom_storm_ready = 1;
    cli_ready = 1;
    EXPECT_EQ(fake::mom_reconnect(4), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_app_db_reconnect", "lda_mom_app_db_reconnect\n"),
                                 "qv_mom_subscribe db=4 p_bridge.tarn_loop_info index{}",
                             }));
}

TEST_F(Sessions, ApplicationReconnectAfterTheReplaySubscribesEvenBeforeTheFirstConnect) {
    mom_cfg_ready = mom_local_ready = lsm_port_ready = mom_storm_ready = 1;
    cli_ready = 1;
    EXPECT_EQ(fake::mom_reconnect(4), 0);
    EXPECT_EQ(mom_app_ready, 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_app_db_reconnect", "lda_mom_app_db_reconnect\n"),
                                 "qv_mom_subscribe db=4 p_bridge.tarn_loop_info index{}",
                             }));
}

// ---- Loss ----

TEST_F(Sessions, LostSessionIsOnlyLogged) {
    mom_cfg_ready = mom_local_ready = mom_app_ready = lsm_port_ready = mom_storm_ready = 1;
    cli_ready = 1;
    EXPECT_EQ(fake::mom_disconnect(22), 0);
    EXPECT_EQ(fake::mom_disconnect(3), 0);
    EXPECT_EQ(fake::mom_disconnect(4), 0);
    EXPECT_EQ(fake::calls(),
              (Lines{
                  info("lda_mom_cfg_db_disconnect", "lda_mom_cfg_db_disconnect\n"),
                  info("lda_mom_local_db_disconnect", "lda_mom_local_db_disconnect\n"),
                  info("lda_mom_app_db_disconnect", "lda_mom_app_db_disconnect\n"),
              }));
    EXPECT_EQ(mom_cfg_ready, 1);
    EXPECT_EQ(mom_local_ready, 1);
    EXPECT_EQ(mom_app_ready, 1);
    EXPECT_EQ(cli_ready, 1);
}

TEST_F(Sessions, LoopStateSurvivesALostSession) {
    lda_intf_t* record = add_looped(5);
    fake::mom_disconnect(4);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}
