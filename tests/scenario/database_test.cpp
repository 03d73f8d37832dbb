// The agent and the object database: away, back, and full of other programs' records.
#include <gtest/gtest.h>

#include "app_debug.h"
#include "lda_main.h"
#include "lda_msg.h"
#include "lda_netconf.h"
#include "lda_state.h"
#include "p_app.pb-c.h"
#include "p_mng.pb-c.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"
#include "storm_detect.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"
#include "tests/support/golden/golden.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

constexpr uint8_t kEntry[] = {0x2a, 0x02, 0x0a, 0x00};  // a loop entry with an empty name

SwitchRig::Options without(uint32_t db, std::string saved_configuration = "loop-detect enable\n") {
    SwitchRig::Options options;
    options.ports = 1;
    options.saved_configuration = std::move(saved_configuration);
    options.store_made = [db](MemoryStore& store) {
        store.drop(db);
    };
    return options;
}

std::string number(const char* words, uint32_t db) {
    return std::string(words) + " " + std::to_string(db);
}

// ---- Readiness ----

class DatabaseAwayAtStart : public testing::TestWithParam<uint32_t> {};

TEST_P(DatabaseAwayAtStart, ConfigurationIsReplayedOnConnect) {
    SwitchRig rig(without(GetParam()));
    rig.advance(100s);
    EXPECT_FALSE(rig.configured("loop-detect enable"));
    EXPECT_EQ(cli_ready, 0);
    EXPECT_EQ(rig.type(number("test database restore", GetParam())), "");
    EXPECT_TRUE(rig.configured("loop-detect enable"));
    EXPECT_EQ(cli_ready, 1);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 1: tarn port loop-detect warning\r\n",
                     "interface 1: storm-loop-detect enable\r\n",
                     // Once for the policy, once for the end of the replay.
                     "config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 1: tarn port loop-detect warning\r\n",
                     "interface 1: storm-loop-detect enable\r\n"}));
}

INSTANTIATE_TEST_SUITE_P(Each, DatabaseAwayAtStart, testing::Values(22, 3, 4, 8),
                         testing::PrintToStringParamName());

TEST(Database, EntriesOfAnEarlierRunAreRemovedOnConnect) {
    SwitchRig::Options options = without(4);
    options.store_made = [](MemoryStore& store) {
        store.drop(4);
        store.put(4, "p_app.lda_loop_entry/name=swp1", kEntry);
        store.put(4, "p_app.lda_loop_entry/name=swp7", kEntry);
        store.put(4, "p_app.other/name=swp1", kEntry);
    };
    SwitchRig rig(options);
    EXPECT_EQ(rig.store().keys(4, "p_app.lda_loop_entry/*").size(), 2U);
    rig.type("test database restore 4");
    EXPECT_EQ(rig.store().keys(4), Lines{"p_app.other/name=swp1"});
}

TEST(Database, ApplicationReconnectBeforeTheReplayChangesNothing) {
    SwitchRig rig(without(22));
    rig.on_main([&] { rig.store().put(4, "p_app.lda_loop_entry/name=swp1", kEntry); });
    rig.trace();
    rig.type({"test database drop 4", "test database restore 4"});
    EXPECT_EQ(rig.take_log(), traced({
                                  "<lda_mom_app_db_disconnect> lda_mom_app_db_disconnect",
                                  "<lda_mom_app_db_reconnect> lda_mom_app_db_reconnect",
                              }));
    EXPECT_EQ(rig.entry("swp1"), "policy=0 src_port=0");
}

// ---- Reconnects after the replay ----

TEST(Database, ConfigurationReconnectAnnouncesReadinessAgain) {
    SwitchRig::Options options;
    options.ports = 1;
    SwitchRig rig(options);
    rig.trace();
    rig.type("test database drop 22");
    EXPECT_EQ(rig.take_log(), traced({"<lda_mom_cfg_db_disconnect> lda_mom_cfg_db_disconnect"}));
    rig.type("test database restore 22");
    EXPECT_EQ(rig.take_log(), traced({
                                  "<lda_mom_cfg_db_reconnect> lda_mom_cfg_db_reconnect",
                                  "<lda_try_notify_cli_ready> cli ready",
                                  "<lda_loop_config_delivery> enter",
                                  "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[29]",
                                  "<lda_tarn_mom_subscribe_callback> mom subscribe success",
                              }));
}

TEST(Database, LocalReconnectSubscribesAndAnnouncesAgain) {
    SwitchRig::Options options;
    options.ports = 1;
    SwitchRig rig(options);
    rig.trace();
    rig.type({"test database drop 3", "test database restore 3"});
    expect_golden("database/local_reconnect", rig.take_log());
}

TEST(Database, RepeatedAnnouncementPushesTheFeaturesAgainAndKeepsTheLoops) {
    SwitchRig::Options options;
    options.ports = 1;
    SwitchRig rig(options);
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.forget();
    rig.type({"test database drop 22", "test database restore 22"});
    // The lines of the features for the unchanged replay, then the scan's report: a repeated loop.
    EXPECT_EQ(rig.take_executed(),
              (Lines{"config: tarn enable\r\n", "config: tarn error-recover interval 90\r\n",
                     "interface 1: tarn port loop-detect warning\r\n",
                     "interface 1: storm-loop-detect enable\r\n", "interface 1: shutdown \r\n"}));
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
}

TEST(Database, ReportsWhileTheApplicationDatabaseIsAwayAreFoundByTheScan) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(2, 1, 2);
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp2."});
    rig.type("test database drop 4");
    rig.report(3, 1, 3);  // another program still reaches the database
    rig.report(2, 0, 2);
    rig.advance(120s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.type("test database restore 4");
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."});
    EXPECT_EQ(rig.store().keys(4, "p_app.lda_loop_entry/*"),
              (Lines{"p_app.lda_loop_entry/name=swp2", "p_app.lda_loop_entry/name=swp3"}));
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp2 recovered from loop error."});
}

TEST(Database, LossBetweenWriteAndNoticeLosesNothing) {
    SwitchRig rig;
    rig.set_policy("");
    rig.on_main([&] {
        const uint8_t record[] = {0x2a, 0x02, 0x08, 0x03, 0x30, 0x01, 0x38, 0x01, 0x40, 0x03};
        rig.store().put(4, "p_bridge.tarn_loop_info/ifx=3", record);
        rig.store().drop(4);  // the notice is queued
    });
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.type("test database restore 4");
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."});
}

TEST(Database, RecordsLostDuringASubscriptionArriveWithTheNextOne) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.type("test database drop 4");
    rig.report(2, 1, 2);
    rig.trace();
    rig.on_main([&] {
        rig.store().restore(4);
        rig.store().drop(4);  // before the agent learns of its return
    });
    EXPECT_EQ(rig.take_log(), traced({
                                  "<lda_mom_app_db_reconnect> lda_mom_app_db_reconnect",
                                  "<lda_mom_app_db_disconnect> lda_mom_app_db_disconnect",
                              }));
    rig.type({"debug lda syslog level 0", "test database restore 4"});
    rig.take_log();
    EXPECT_EQ(rig.entry("swp2"), "policy=0 src_port=1");
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=1");
}

TEST(Database, EntryThatCannotBeWrittenIsReportedAndNotRetried) {
    SwitchRig rig;
    rig.set_policy("");
    rig.type({"debug lda syslog level 1", "test database drop 4"});
    rig.forget();
    rig.on_main([] {
        storm_loop_msg loop = {};
        loop.is_loop = 1;
        loop.ifx = 3;
        lda_loop_result_set_for_storm(&loop);
    });
    EXPECT_EQ(rig.take_log(),
              (Lines{"LDA-6-ERROR: <lda_mom_set_loop_entry> qv_mom_set lda entry failed",
                     "LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."}));
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp3", "1", "0", "1")});
    rig.type("test database restore 4");
    EXPECT_EQ(rig.entry("swp3"), "none");
    EXPECT_EQ(lda_loop_result_get(3)->total_result, 1);
}

// ---- Records of other programs ----

TEST(Database, InvalidRecordsAreReportedAndDropped) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type("debug lda syslog level 1");
    rig.forget();
    rig.on_main([&] {
        MemoryStore& store = rig.store();
        const uint8_t cut[] = {0x00, 0x2a, 0x05, 0x08};
        store.notify(4, "p_bridge.tarn_loop_info", cut);
        store.notify(4, "p_bridge.tarn_loop_info", {});
        const uint8_t unknown_operation[] = {0x07, 0x38, 0x01};
        store.notify(4, "p_bridge.tarn_loop_info", unknown_operation);
        const uint8_t no_index[] = {0x00, 0x38, 0x01, 0x40, 0x03};
        store.notify(4, "p_bridge.tarn_loop_info", no_index);
        const uint8_t unknown_type[] = {0x00, 0x38, 0x01};
        store.notify(4, "p_bridge.something_else", unknown_type);
        store.put(4, "p_bridge.tarn_loop_info/ifx=5", {});  // its key promises an index
    });
    EXPECT_EQ(rig.take_log(),
              (Lines{"MOM-4-BAD_RECORD: Record of p_bridge.tarn_loop_info in database 4 dropped: 3 "
                     "bytes do not unpack.",
                     "LDA-6-ERROR: <lda_tarn_mom_subscribe_callback> value is null err!",
                     "LDA-6-ERROR: <lda_tarn_mom_subscribe_callback> value is null err!"}));
    rig.advance(1s);
    EXPECT_EQ(rig.take_log(),
              Lines{"MOM-4-BAD_REPEATED: 2 more invalid records or notices were dropped in the "
                    "last second."});
    rig.report(99, 1, 98);  // interfaces that do not exist
    rig.report(0, 1, 0);
    rig.report(4294967295, 1, 4294967295);
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), Lines{"interface 3: shutdown \r\n"});
}

TEST(Database, LoopSeenOnAnUnknownPortStillMarksTheReportingPort) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 99);
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."});
    rig.report(99, 1, 4);
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp4."});
}

TEST(Database, DeletedReportEndsNoLoop) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.forget();
    rig.on_main([&] { rig.store().erase_matching(4, "p_bridge.tarn_loop_info/*"); });
    rig.advance(600s);
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=1");
}

// ---- Policy requests of the management plane ----

std::vector<std::string>& answers() {
    static std::vector<std::string> texts;
    return texts;
}

int take_answer(qv_mom_client*, const qv_mom_msg* message) {
    if (message->cmd != QV_MOM_CMD_RECORD) {
        return 0;
    }
    const auto* answer = reinterpret_cast<const PMng__UiOperate*>(message->value);
    std::string text = message->oper == QV_MOM_OPER_PUBLISH ? "published" : "stored";
    text += std::string(" to ") + answer->index->publisher;
    text += " type " + std::to_string(answer->index->type);
    text += " oid " + std::to_string(answer->index->oid);
    text += " src " + std::to_string(answer->src);
    text += " result " + std::to_string(answer->rst->result);
    text += " std " + std::to_string(answer->rst->std_error);
    text += " priv " + std::to_string(answer->rst->priv_error);
    text += " flag " + std::to_string(answer->rst->flag);
    text += std::string(" text '") + answer->rst->oper_str + "'";
    answers().push_back(text);
    return 0;
}

// The program that sends requests.
class Requester {
 public:
    explicit Requester(SwitchRig& rig) : rig_(rig) {
        rig.on_main([this] {
            client_ = qv_mom_client_init("netconf", master_of(platform().loop()), nullptr);
            qv_mom_client_connect(client_, QV_MOM_LOCAL_DB, listen, this);
            qv_mom_client_set_reconnect_cb(client_, QV_MOM_LOCAL_DB, listen, this);
        });
    }

    // Sets the request as another process does; returns the answers since the last call.
    std::vector<std::string> ask(uint32_t policy, int32_t type, int32_t oid) {
        PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
        char publisher[] = "netconf-7";
        index.publisher = publisher;
        index.type = type;
        index.oid = oid;
        PMng__UiOperate operation = P_MNG__UI_OPERATE__INIT;
        operation.index = &index;
        operation.src = P_MNG__OPERATE_SRC_T__NETCONF;
        PApp__LdaNcPolicy request = P_APP__LDA_NC_POLICY__INIT;
        request.loop_policy_cli = policy;
        request.rst = &operation;
        rig_.put(QV_MOM_LOCAL_DB, request.base);
        return take_answers();
    }
    static std::vector<std::string> take_answers() { return std::exchange(answers(), {}); }

 private:
    static int listen(void* self) {
        const PMng__UiOperate key = P_MNG__UI_OPERATE__INIT;
        return qv_mom_subscribe(static_cast<Requester*>(self)->client_, QV_MOM_LOCAL_DB, &key.base,
                                0, take_answer, nullptr);
    }

    SwitchRig& rig_;
    qv_mom_client* client_ = nullptr;
};

TEST(PolicyRequest, IsAppliedAndAnsweredByAPublishedResult) {
    SwitchRig rig;
    Requester requester(rig);
    EXPECT_EQ(requester.ask(2, 5, 41),
              Lines{"published to netconf-7 type 5 oid 41 src 2 result 0 std 0 priv 0 flag 0 text "
                    "''"});
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown access-mode"));
    EXPECT_EQ(rig.stored_policy(), 2);
    EXPECT_EQ(rig.take_executed().size(), 2U + 2 * 8);
    EXPECT_EQ(rig.store().keys(3, "p_mng.ui_operate/*"), Lines{});

    // A delete applies the policy in its record.
    EXPECT_EQ(requester.ask(3, 4, 42),
              Lines{"published to netconf-7 type 4 oid 42 src 2 result 0 std 0 priv 0 flag 0 text "
                    "''"});
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown hybrid-mode"));

    // An operation of another type is refused and changes nothing.
    EXPECT_EQ(requester.ask(1, 1, 43),
              Lines{"published to netconf-7 type 1 oid 43 src 2 result 1 std 0 priv 0 flag 0 text "
                    "''"});
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown hybrid-mode"));
    EXPECT_EQ(rig.stored_policy(), 3);
}

TEST(PolicyRequest, RejudgesLoopedPortsAndIsSaved) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.forget();
    Requester requester(rig);
    EXPECT_EQ(requester.ask(2, 2, 1).size(), 1U);
    EXPECT_EQ(rig.take_executed().front(), "interface 3: shutdown \r\n");
    EXPECT_EQ(rig.entry("swp3"), "policy=1 src_port=1");
    EXPECT_EQ(requester.ask(0, 2, 2).size(), 1U);
    EXPECT_EQ(rig.entry("swp3"), "none");
    EXPECT_FALSE(rig.configured("loop-detect enable shutdown access-mode"));
}

TEST(PolicyRequest, MadeWhileTheDatabaseWasAwayIsNotApplied) {
    SwitchRig rig;
    Requester requester(rig);
    rig.type("test database drop 3");
    EXPECT_EQ(requester.ask(2, 2, 1), Lines{});
    rig.type("test database restore 3");
    EXPECT_FALSE(rig.configured("loop-detect enable shutdown access-mode"));
    EXPECT_EQ(requester.ask(2, 2, 2).size(), 1U);
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown access-mode"));
}

TEST(PolicyRequest, WithoutARequesterIsRefused) {
    SwitchRig rig;
    Requester requester(rig);
    rig.type("debug lda syslog level 1");
    PApp__LdaNcPolicy request = P_APP__LDA_NC_POLICY__INIT;
    request.loop_policy_cli = 2;
    rig.put(QV_MOM_LOCAL_DB, request.base);
    EXPECT_EQ(rig.take_log(), Lines{"LDA-6-ERROR: <lda_nc_msg_policy> wrong rst index type 0"});
    EXPECT_EQ(requester.take_answers(),
              Lines{"published to  type 0 oid 0 src 0 result 1 std 0 priv 0 flag 0 text ''"});
    EXPECT_EQ(rig.stored_policy(), -1);
}

TEST(PolicyRequest, WithoutAnIndexIsRefused) {
    SwitchRig rig;
    Requester requester(rig);
    rig.type("debug lda syslog level 1");
    PMng__UiOperate operation = P_MNG__UI_OPERATE__INIT;
    operation.src = P_MNG__OPERATE_SRC_T__SNMP;
    PApp__LdaNcPolicy request = P_APP__LDA_NC_POLICY__INIT;
    request.loop_policy_cli = 2;
    request.rst = &operation;
    rig.put(QV_MOM_LOCAL_DB, request.base);
    EXPECT_EQ(rig.take_log(), Lines{"LDA-6-ERROR: <lda_nc_msg_policy> wrong rst index type 0"});
    EXPECT_EQ(requester.take_answers(),
              Lines{"published to  type 0 oid 0 src 3 result 1 std 0 priv 0 flag 0 text ''"});
    EXPECT_EQ(rig.stored_policy(), -1);
}

TEST(PolicyRequest, ForAnUnknownPolicyIsAnsweredAsDone) {
    SwitchRig rig;
    Requester requester(rig);
    rig.set_policy("shutdown access-mode");
    rig.type("debug lda syslog level 1");
    EXPECT_EQ(requester.ask(6, 2, 9),
              Lines{"published to netconf-7 type 2 oid 9 src 2 result 0 std 0 priv 0 flag 0 text "
                    "''"});
    EXPECT_EQ(rig.take_log(), Lines{"LDA-6-ERROR: <lda_cli_policy_set> para wrong type(6)"});
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown access-mode"));
    EXPECT_EQ(rig.stored_policy(), 2);
}

// The database is lost between the request and its answer: the policy stays, the requester waits.
TEST(PolicyRequest, ThatCannotBeAnsweredIsAppliedAndReported) {
    SwitchRig rig;
    Requester requester(rig);
    rig.type("debug lda syslog level 1");
    const uint8_t request[] = {0x28, 0x02, 0x32, 0x04, 0x2a, 0x02, 0x10, 0x02};
    rig.on_main([&] {
        PApp__LdaNcPolicy* decoded = p_app__lda_nc_policy__unpack(nullptr, sizeof request, request);
        rig.store().drop(3);
        const qv_mom_msg message = {QV_MOM_CMD_RECORD, QV_MOM_OPER_SET, 3, &decoded->base};
        EXPECT_EQ(lda_nc_msg_policy(g_lda_global, &message), 0);
        p_app__lda_nc_policy__free_unpacked(decoded, nullptr);
    });
    EXPECT_EQ(rig.take_log(), Lines{"LDA-6-ERROR: <send_mom_publish_result> mom publish err"});
    EXPECT_TRUE(rig.configured("loop-detect enable shutdown access-mode"));
    EXPECT_EQ(requester.take_answers(), Lines{});
}

TEST(PolicyRequest, IsAppliedAfterEveryReconnect) {
    SwitchRig rig;
    Requester requester(rig);
    for (int round = 1; round <= 3; round++) {
        rig.type({"test database drop 3", "test database restore 3"});
        EXPECT_EQ(requester.ask(round % 2 + 1, 2, round).size(), 1U);
        EXPECT_EQ(rig.stored_policy(), round % 2 + 1);
    }
}

// ---- Notifications ----

TEST(LoopNotification, IsLostWithTheDatabaseAndTheLoopIsNot) {
    SwitchRig rig;
    rig.set_policy("");
    rig.type({"debug lda syslog level 1", "test database drop 3"});
    rig.forget();
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_log(),
              (Lines{"LDA-6-ERROR: <lda_send_info_ntf> send loop-detect state ERR",
                     "LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."}));
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(rig.entry("swp3"), "policy=0 src_port=1");
    rig.type("test database restore 3");
    EXPECT_EQ(rig.take_notifications(), Lines{}) << "nothing is retried";
    rig.report(4, 1, 4);
    EXPECT_EQ(rig.take_notifications(), Lines{notified("swp4", "1", "0", "1")});
}

}  // namespace
}  // namespace qv::test
