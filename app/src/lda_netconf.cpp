// NETCONF side of the agent.
//
// Main thread only, no lock and no state. A policy request arrives as a record of the local
// database and is answered by another record there; a loop notification goes out through the
// NETCONF library. Nothing is retried.
#include "lda_netconf.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <qv/cli.h>
#include <qv/netconf.h>
#include "app_debug.h"
#include "lda_cli_policy.h"
#include "lda_main.h"
#include "p_app.pb-c.h"

static constexpr char NOTIFY_LEAF_PATH[] =
    "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/notify-entry[name='%s']/%s";
static constexpr size_t NOTIFY_PATH_BYTES = 512;
static constexpr size_t NOTIFY_LEAVES = 4;

// ---- Loop-state notifications ----

// The full path of a leaf in a string of its own, to be freed; null when memory runs out.
static char* leaf_path(const char* interface, const char* leaf) {
    char path[NOTIFY_PATH_BYTES];
    snprintf(path, sizeof path, NOTIFY_LEAF_PATH, interface, leaf);
    return strdup(path);
}

// Sends the leaves unless one of them has no path. 0 when they went out.
static int send_leaves(const nc_lib_leaf* leaves) {
    for (size_t i = 0; i < NOTIFY_LEAVES; i++)
        if (!leaves[i].path)
            return -1;
    return nc_lib_notification_send(g_lda_global, leaves, NOTIFY_LEAVES, 0);
}

int lda_send_info_ntf(const lda_notify_t* record) {
    // Kept on purpose: "src-port" carries a flag, no port number.
    const nc_lib_leaf leaves[NOTIFY_LEAVES] = {
        {leaf_path(record->name, "notify-type"), NC_LIB_TYPE_UINT32, record->notify_type},
        {leaf_path(record->name, "vid"), NC_LIB_TYPE_UINT32, record->vid},
        {leaf_path(record->name, "policy"), NC_LIB_TYPE_UINT32, record->policy},
        {leaf_path(record->name, "src-port"), NC_LIB_TYPE_INT32, record->src_port},
    };
    if (send_leaves(leaves) != 0)
        APP_ERROR("send loop-detect state ERR");
    else
        APP_INFO("send loop-detect state, name[%s] notify_type[%d] vid[%d] policy[%d] src-port[%d]",
                 record->name, static_cast<int>(record->notify_type), static_cast<int>(record->vid),
                 static_cast<int>(record->policy), static_cast<int>(record->src_port));
    for (const nc_lib_leaf& leaf : leaves)
        free(const_cast<char*>(leaf.path));
    return 0;
}

// ---- Policy requests ----

int lda_nc_mom_reg_subscribe(void) {
    const PApp__LdaNcPolicy key = P_APP__LDA_NC_POLICY__INIT;
    qv_mom_subscribe(g_lda_global, QV_MOM_LOCAL_DB, &key.base, 0, lda_nc_msg_policy, nullptr);
    return 0;
}

void send_mom_publish_result(const PMng__UiOperate* request, int32_t result) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    if (request->index) {
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
    if (qv_mom_publish(g_lda_global, QV_MOM_LOCAL_DB, &answer.base, 0, 0) != 0)
        APP_ERROR("mom publish err");
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

// Executes a request by its operation type. 0 done, 1 refused. Kept on purpose: done is also a
// request whose policy the setter refuses.
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
    if (!client || !message) {
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
    if (!request) {
        APP_ERROR("value is null err!");
        return -1;
    }
    APP_INFO("loop_policy_cli[%d]", static_cast<int>(request->loop_policy_cli));
    // A request that leaves out who asks, or the operation's index, is one of type 0 from nobody.
    const PMng__UiOperate nobody = P_MNG__UI_OPERATE__INIT;
    const PMng__UiOperate* requester = request->rst ? request->rst : &nobody;
    const int32_t type = requester->index ? requester->index->type : 0;
    send_mom_publish_result(requester, execute_request(type, request->loop_policy_cli));
    return 0;
}
