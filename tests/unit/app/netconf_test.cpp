// Policy requests from the local database, and loop-state notifications.
#include <cstdio>
#include <cstring>

#include "lda_netconf.h"
#include "lda_notify.h"
#include "lda_state.h"
#include "p_app.pb-c.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

const std::string type = "p_app.lda_nc_policy";
const std::string callback = "lda_nc_msg_policy";

std::string pointer(const void* value) {
    char text[32];
    snprintf(text, sizeof text, "%p", value);
    return text;
}

class Netconf : public StartedAgent {
 protected:
    Netconf() {
        lda_nc_mom_reg_subscribe();
        fake::clear_calls();
    }
    static int request(uint32_t policy, int operation, int message_oper = 0) {
        char publisher[] = "nc-1";
        char text[] = "ignored";
        PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
        index.publisher = publisher;
        index.type = operation;
        index.oid = 41;
        PMng__OperateResult result = P_MNG__OPERATE_RESULT__INIT;
        result.result = 9;
        result.std_error = 8;
        result.priv_error = 7;
        result.oper_str = text;
        result.flag = 6;
        PMng__UiOperate operate = P_MNG__UI_OPERATE__INIT;
        operate.index = &index;
        operate.rst = &result;
        operate.src = P_MNG__OPERATE_SRC_T__NETCONF;
        PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
        record.loop_policy_cli = policy;
        record.rst = &operate;
        return fake::mom_message(3, type, 1, message_oper, &record.base);
    }
    static std::string answer(int operation, int result) {
        return "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=" +
               std::to_string(operation) + " oid=41} rst{" +
               (result == 0 ? "" : "result=" + std::to_string(result)) + "} src=2";
    }
};

TEST_F(Netconf, SubscribesInTheLocalDatabase) {
    EXPECT_EQ(lda_nc_mom_reg_subscribe(), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_mom_subscribe db=3 p_app.lda_nc_policy"});
    EXPECT_EQ(fake::mom_subscriber(3, type), lda_nc_msg_policy);
    fake::fail("qv_mom_subscribe", 107);
    EXPECT_EQ(lda_nc_mom_reg_subscribe(), 0);
}

TEST_F(Netconf, BadCallIsReported) {
    qv_mom_msg message{1, 0, 3, nullptr};
    EXPECT_EQ(lda_nc_msg_policy(nullptr, &message), -1);
    EXPECT_EQ(lda_nc_msg_policy(fake::mom_client(), nullptr), -1);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{error(callback, "global[(nil)] mom_msg[" + pointer(&message) + "]"),
               error(callback, "global[" + pointer(fake::mom_client()) + "] mom_msg[(nil)]")}));
}

TEST_F(Netconf, ConfirmationIsLogged) {
    log_everything();
    EXPECT_EQ(fake::mom_message(3, type, 29, 0, nullptr), 0);
    EXPECT_EQ(fake::take_calls(), (Lines{info(callback, "recv mom msg, cmd[29]"),
                                         info(callback, "subscribe success")}));
}

TEST_F(Netconf, MessageWithoutARecordIsReported) {
    EXPECT_EQ(fake::mom_message(3, type, 1, 0, nullptr), -1);
    EXPECT_EQ(fake::take_calls(), Lines{error(callback, "value is null err!")});
}

// ---- Requests that leave something out are of type 0 ----

TEST_F(Netconf, RequestWithoutARequesterIsRefusedAsTypeZero) {
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = 2;
    log_everything();
    EXPECT_EQ(fake::mom_message(3, type, 1, 0, &record.base), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info(callback, "recv mom msg, cmd[1]"), info(callback, "loop_policy_cli[2]"),
                     error(callback, "wrong rst index type 0"),
                     "qv_mom_publish db=3 p_mng.ui_operate index{} rst{result=1}"}));
    EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Netconf, RequestWithoutAnIndexIsRefusedAsTypeZeroAndKeepsItsSource) {
    PMng__UiOperate operate = P_MNG__UI_OPERATE__INIT;
    operate.src = P_MNG__OPERATE_SRC_T__WEB;
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = 2;
    record.rst = &operate;
    EXPECT_EQ(fake::mom_message(3, type, 1, 0, &record.base), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{error(callback, "wrong rst index type 0"),
                     "qv_mom_publish db=3 p_mng.ui_operate index{} rst{result=1} src=5"}));
    EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
}

TEST_F(Netconf, EmptyRecordIsRefusedAsTypeZero) {
    const PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    EXPECT_EQ(fake::mom_message(3, type, 1, 1, &record.base), 0) << "such as a delete notice";
    EXPECT_EQ(fake::take_calls(),
              (Lines{error(callback, "wrong rst index type 0"),
                     "qv_mom_publish db=3 p_mng.ui_operate index{} rst{result=1}"}));
}

// ---- Every operation type ----

TEST_F(Netconf, EveryTypeGetsItsAnswer) {
    struct Row {
        int operation;
        const char* answer;
        uint32_t policy_afterwards;  // the request is 4
    };
    const Row rows[] = {
        {0,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" oid=41} rst{result=1} "
         "src=2",
         0},
        {1,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=1 oid=41} "
         "rst{result=1} src=2",
         0},
        {2,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=2 oid=41} rst{} src=2",
         4},
        {3,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=3 oid=41} rst{} src=2",
         4},
        {4,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=4 oid=41} rst{} src=2",
         4},
        {5,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=5 oid=41} rst{} src=2",
         4},
        {6,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=6 oid=41} rst{} src=2",
         4},
        {7,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=7 oid=41} "
         "rst{result=1} src=2",
         0},
        {-2147483647 - 1,
         "qv_mom_publish db=3 p_mng.ui_operate index{publisher=\"nc-1\" type=-2147483648 oid=41} "
         "rst{result=1} src=2",
         0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.operation);
        lda_loop_detect_ptype_set(0);
        EXPECT_EQ(request(4, row.operation), 0);
        EXPECT_EQ(fake::take_calls().back(), row.answer);
        EXPECT_EQ(lda_loop_detect_ptype_get(), row.policy_afterwards);
    }
}

TEST_F(Netconf, DeleteSetsThePolicyOfTheRequestAndNotZero) {
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(request(3, 4), 0);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 3u);
}

TEST_F(Netconf, TypeOneKeepsThePolicy) {
    lda_loop_detect_ptype_set(3);
    EXPECT_EQ(request(0, 1), 0);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 3u);
    EXPECT_EQ(fake::take_calls(), (Lines{error(callback, "wrong rst index type 1"), answer(1, 1)}));
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Netconf, OperationOfTheMessageDoesNotMatter) {
    for (int oper : {0, 1, 2}) {
        SCOPED_TRACE(oper);
        lda_loop_detect_ptype_set(0);
        EXPECT_EQ(request(3, 2, oper), 0);
        EXPECT_EQ(lda_loop_detect_ptype_get(), 3u);
        EXPECT_EQ(fake::take_calls().back(), answer(2, 0));
    }
}

TEST_F(Netconf, SetRequestsApplyThePolicyAndAreAnswered) {
    uint32_t policy = 1;
    for (int operation : {2, 5, 6}) {
        SCOPED_TRACE(operation);
        EXPECT_EQ(request(policy, operation), 0);
        EXPECT_EQ(lda_loop_detect_ptype_get(), policy);
        EXPECT_EQ(
            fake::take_calls(),
            (Lines{"qv_mom_set db=22 p_app.lda_nc_policy loop_policy_cli=" + std::to_string(policy),
                   "cli_client_c2p_reform", "cli_syn_config_notify", answer(operation, 0)}));
        policy++;
    }
}

TEST_F(Netconf, DeleteRequestsApplyTheirPolicyToo) {
    uint32_t policy = 3;
    for (int operation : {3, 4}) {
        SCOPED_TRACE(operation);
        EXPECT_EQ(request(policy, operation), 0);
        EXPECT_EQ(lda_loop_detect_ptype_get(), policy);
        EXPECT_EQ(
            fake::take_calls(),
            (Lines{"qv_mom_set db=22 p_app.lda_nc_policy loop_policy_cli=" + std::to_string(policy),
                   "cli_client_c2p_reform", "cli_syn_config_notify", answer(operation, 0)}));
        policy--;
    }
}

TEST_F(Netconf, SetRequestLogsItsSteps) {
    log_everything();
    request(2, 2);
    expect_golden("netconf/set_request", fake::take_calls());
}

TEST_F(Netconf, DeleteRequestLogsItsSteps) {
    log_everything();
    request(0, 4);
    expect_golden("netconf/delete_request", fake::take_calls());
}

TEST_F(Netconf, EachTypeIsLoggedUnderTheNameOfItsHandler) {
    const std::pair<int, const char*> names[] = {{2, "lda_server_nc_set_loop_policy_cli"},
                                                 {3, "lda_server_nc_del_loop_policy_cli"},
                                                 {4, "lda_server_nc_del_loop_policy_cli"},
                                                 {5, "lda_server_nc_set_loop_policy_cli"},
                                                 {6, "lda_server_nc_set_loop_policy_cli"}};
    log_everything();
    for (const auto& [operation, name] : names) {
        fake::clear_calls();
        EXPECT_EQ(request(0, operation), 0);
        const Lines calls = fake::take_calls();
        ASSERT_GE(calls.size(), 3u);
        EXPECT_EQ(calls[2], info(name, "enter")) << operation;
    }
}

TEST(NetconfRecords, OperateResultHasItsFields) {
    struct Row {
        unsigned id;
        const char* name;
        ProtobufCType type;
    };
    const Row rows[] = {{1, "result", PROTOBUF_C_TYPE_INT32},
                        {2, "std_error", PROTOBUF_C_TYPE_INT32},
                        {3, "priv_error", PROTOBUF_C_TYPE_INT32},
                        {4, "oper_str", PROTOBUF_C_TYPE_STRING},
                        {5, "flag", PROTOBUF_C_TYPE_UINT32}};
    const ProtobufCMessageDescriptor& descriptor = p_mng__operate_result__descriptor;
    EXPECT_STREQ(descriptor.name, "p_mng.operate_result");
    ASSERT_EQ(descriptor.n_fields, std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
        EXPECT_EQ(descriptor.fields[i].id, rows[i].id);
        EXPECT_STREQ(descriptor.fields[i].name, rows[i].name);
        EXPECT_EQ(descriptor.fields[i].type, rows[i].type);
        EXPECT_EQ(descriptor.fields[i].label, PROTOBUF_C_LABEL_NONE);
    }
}

TEST(NetconfRecords, SourcesHaveTheirNamesAndNumbers) {
    const char* const names[] = {"OTHERS", "CLI", "NETCONF", "SNMP", "CWMP", "WEB"};
    const ProtobufCEnumDescriptor& descriptor = p_mng__operate_src_t__descriptor;
    ASSERT_EQ(descriptor.n_values, std::size(names));
    for (size_t i = 0; i < std::size(names); i++) {
        EXPECT_STREQ(descriptor.values[i].name, names[i]);
        EXPECT_EQ(descriptor.values[i].value, static_cast<int>(i));
    }
}

TEST_F(Netconf, OtherOperationsAreRefused) {
    for (int operation : {1, 7, -3}) {
        SCOPED_TRACE(operation);
        EXPECT_EQ(request(2, operation), 0);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{error(callback, "wrong rst index type " + std::to_string(operation)),
                         answer(operation, 1)}));
        EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
    }
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Netconf, RejectedPolicyIsAnsweredAsDone) {
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(request(6, 2), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{error("lda_cli_policy_set", "para wrong type(6)"), "cli_client_c2p_reform",
                     "cli_syn_config_notify", answer(2, 0)}));
    EXPECT_EQ(request(4294967295, 3), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{error("lda_cli_policy_set", "para wrong type(-1)"), "cli_client_c2p_reform",
                     "cli_syn_config_notify", answer(3, 0)}));
    EXPECT_EQ(lda_loop_detect_ptype_get(), 2u);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Netconf, SamePolicyAgainIsPublishedAndAnsweredAgain) {
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(request(1, 2), 0);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{"qv_mom_set db=22 p_app.lda_nc_policy "
                         "loop_policy_cli=1",
                         "cli_client_c2p_reform", "cli_syn_config_notify", answer(2, 0)}));
    }
    EXPECT_EQ(take_posted().size(), 1u);
}

TEST_F(Netconf, FailedAnswerLeavesThePolicyApplied) {
    fake::fail("qv_mom_publish", 107);
    EXPECT_EQ(request(2, 2), 0);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 2u);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"qv_mom_set db=22 p_app.lda_nc_policy loop_policy_cli=2",
                     "cli_client_c2p_reform", "cli_syn_config_notify", answer(2, 0),
                     error("send_mom_publish_result", "mom publish err")}));
}

TEST_F(Netconf, FailedAnswerIsReported) {
    fake::fail("qv_mom_publish", 107);
    EXPECT_EQ(request(2, 1), 0);
    EXPECT_EQ(fake::take_calls(), (Lines{error(callback, "wrong rst index type 1"), answer(1, 1),
                                         error("send_mom_publish_result", "mom publish err")}));
}

// ---- Notifications ----

class Notification : public StartedAgent {
 protected:
    static lda_notify_t record() {
        lda_notify_t result{};
        result.notify_type = 1;
        strcpy(result.name, "swp7");
        result.ifx = 7;
        return result;
    }
};

TEST_F(Notification, RecordFieldsAreInOrder) {
    EXPECT_EQ(offsetof(lda_notify_t, notify_type), 0u);
    EXPECT_EQ(offsetof(lda_notify_t, vid), 4u);
    EXPECT_EQ(offsetof(lda_notify_t, name), 8u);
    EXPECT_EQ(offsetof(lda_notify_t, ifx), 72u);
    EXPECT_EQ(offsetof(lda_notify_t, policy), 76u);
    EXPECT_EQ(offsetof(lda_notify_t, src_port), 80u);
}

TEST_F(Notification, FourLeavesInOneCall) {
    lda_notify_t notify = record();
    notify.vid = 5;
    notify.policy = 1;
    notify.src_port = 1;
    log_everything();
    EXPECT_EQ(lda_send_info_ntf(&notify), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"nc_lib_notification_send "
                     "[/qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
                     "notify-entry[name='swp7']/notify-type 20 1] "
                     "[/qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
                     "notify-entry[name='swp7']/vid 20 5] "
                     "[/qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
                     "notify-entry[name='swp7']/policy 20 1] "
                     "[/qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
                     "notify-entry[name='swp7']/src-port 8 1]",
                     info("lda_send_info_ntf",
                          "send loop-detect state, name[swp7] notify_type[1] "
                          "vid[5] policy[1] src-port[1]")}));
}

TEST_F(Notification, FailureIsReportedAndNotRetried) {
    fake::fail("nc_lib_notification_send", 3);
    lda_notify_t notify = record();
    EXPECT_EQ(lda_send_info_ntf(&notify), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 0),
                     error("lda_send_info_ntf", "send loop-detect state ERR")}));
}

TEST_F(Notification, WithoutMemoryForAPathNothingIsSent) {
    lda_notify_t notify = record();
    for (int leaf = 1; leaf <= 4; leaf++) {
        SCOPED_TRACE(leaf);
        fake::fail_strdup(leaf);
        EXPECT_EQ(lda_send_info_ntf(&notify), 0);
        EXPECT_EQ(fake::take_calls(),
                  Lines{error("lda_send_info_ntf", "send loop-detect state ERR")});
    }
    EXPECT_EQ(lda_send_info_ntf(&notify), 0);
    EXPECT_EQ(fake::take_calls(), Lines{notification("swp7", 1, 0, 0)});
}

TEST_F(Notification, LoopIsPublishedWithoutMemoryForItsNotification) {
    add(7, 1);
    lda_loop_detect_ptype_set(1);
    fake::fail_strdup(1);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{error("lda_send_info_ntf", "send loop-detect state ERR"),
                                         entry_set("swp7", 0, 1), detected("swp7")}));
}

TEST_F(Notification, LoopOnATrunkPortSendsNoPolicyAndNoSource) {
    add(7, 2);
    lda_loop_detect_ptype_set(4);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 0), entry_set("swp7", 0, 0), detected("swp7")}));
}

TEST_F(Notification, EndOfALoopCarriesThePolicyOfTheTime) {
    looped(7, 1, 1);
    lda_loop_result_set(0, 0, 7);
    lda_loop_detect_ptype_set(2);
    fake::clear_calls();
    fake::fire(lda_intf_loop_clear);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 2, 1, 1), entry_del("swp7"), recovered("swp7")}));
}

TEST_F(Notification, LongestNameFitsThePath) {
    lda_notify_t notify = record();
    const std::string longest(63, 'n');
    longest.copy(notify.name, longest.size());
    lda_send_info_ntf(&notify);
    EXPECT_EQ(fake::take_calls(), Lines{notification(longest, 1, 0, 0)});
}

TEST_F(Notification, LoopEntryIsPublishedDespiteAFailure) {
    fake::fail("nc_lib_notification_send", 107);
    add(7, 1);
    lda_loop_detect_ptype_set(1);
    lda_loop_result_set(0, 1, 7);
    EXPECT_EQ(fake::take_calls(), (Lines{notification("swp7", 1, 0, 1),
                                         error("lda_send_info_ntf", "send loop-detect state ERR"),
                                         entry_set("swp7", 0, 1), detected("swp7")}));
}

TEST_F(Notification, InterfaceIndexIsNotSent) {
    lda_notify_t notify = record();
    notify.ifx = 4711;
    lda_send_info_ntf(&notify);
    EXPECT_EQ(fake::take_calls(), Lines{notification("swp7", 1, 0, 0)});
}

}  // namespace
