// Policy requests of NETCONF clients. A request arrives as a record of the local database and is
// answered by another record there. Main thread only, no lock and no state. Nothing is retried.
#include "lda_netconf.h"

#include <qv/cli.h>
#include "app_debug.h"
#include "lda_cli_policy.h"
#include "lda_main.h"
#include "p_app.pb-c.h"

int lda_nc_mom_reg_subscribe(void) {
    const PApp__LdaNcPolicy key = P_APP__LDA_NC_POLICY__INIT;
    qv_mom_subscribe(g_lda_global, QV_MOM_LOCAL_DB, &key.base, 0, lda_nc_msg_policy, nullptr);
    return 0;
}

void send_mom_publish_result(const PMng__UiOperate* request, int32_t result) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    if (request->index != nullptr) {
        index.publisher = request->index->publisher;
        index.type = request->index->type;
        index.oid = request->index->oid;
    }
    PMng__OperateResult outcome = P_MNG__OPERATE_RESULT__INIT;
    outcome.result = result;
    PMng__UiOperate answer = P_MNG__UI_OPERATE__INIT;
    answer.index = &index;
    answer.rst = &outcome;
    answer.src = request->src;
    if (qv_mom_publish(g_lda_global, QV_MOM_LOCAL_DB, &answer.base, 0, 0) != 0) {
        APP_ERROR("mom publish err");
    }
}

static void apply_policy(uint32_t policy) {
    lda_cli_policy_set(policy);
    cli_client_c2p_reform();
    cli_syn_config_notify();
}

static void lda_server_nc_set_loop_policy_cli(uint32_t policy) {
    APP_INFO("enter");
    apply_policy(policy);
}

// Kept on purpose: a delete applies the value that the request carries, like a set.
static void lda_server_nc_del_loop_policy_cli(uint32_t policy) {
    APP_INFO("enter");
    apply_policy(policy);
}

// Executes a request by its operation type. 0 done, 1 refused. Kept on purpose: a policy that the
// setter refuses counts as done.
static int32_t execute_request(int32_t type, uint32_t policy) {
    switch (type) {
        case 2:
        case 5:
        case 6:
            lda_server_nc_set_loop_policy_cli(policy);
            return 0;
        case 3:
        case 4:
            lda_server_nc_del_loop_policy_cli(policy);
            return 0;
        default:
            APP_ERROR_AS("lda_nc_msg_policy", "wrong rst index type %d", type);
            return 1;
    }
}

int lda_nc_msg_policy(qv_mom_client* client, const qv_mom_msg* message) {
    if (client == nullptr || message == nullptr) {
        APP_ERROR("global[%p] mom_msg[%p]", static_cast<const void*>(client),
                  static_cast<const void*>(message));
        return -1;
    }
    APP_INFO("recv mom msg, cmd[%d]", message->cmd);
    if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
        APP_INFO("subscribe success");
        return 0;
    }
    const auto* request = reinterpret_cast<const PApp__LdaNcPolicy*>(message->value);
    if (request == nullptr) {
        APP_ERROR("value is null err!");
        return -1;
    }
    APP_INFO("loop_policy_cli[%d]", request->loop_policy_cli);
    // A request without a requester or an index counts as type 0 from an empty requester.
    const PMng__UiOperate nobody = P_MNG__UI_OPERATE__INIT;
    const PMng__UiOperate* requester = request->rst != nullptr ? request->rst : &nobody;
    const int32_t type = requester->index != nullptr ? requester->index->type : 0;
    send_mom_publish_result(requester, execute_request(type, request->loop_policy_cli));
    return 0;
}
