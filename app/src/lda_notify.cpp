// Publication of a loop and of its end. Nothing is retried, and nothing here changes a record.
#include "lda_notify.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qv/netconf.h>
#include "app_debug.h"
#include "app_string.h"
#include "lda_main.h"
#include "p_app.pb-c.h"

// ---- NETCONF notification ----

static constexpr char NOTIFY_LEAF_PATH[] =
    "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/notify-entry[name='%s']/%s";
static constexpr size_t NOTIFY_PATH_BYTES = 512;
static constexpr size_t NOTIFY_LEAVES = 4;

// Returns the full path of a leaf, which the caller frees; null when memory runs out.
static char* leaf_path(const char* interface, const char* leaf) {
    char path[NOTIFY_PATH_BYTES];
    snprintf(path, sizeof path, NOTIFY_LEAF_PATH, interface, leaf);
    return strdup(path);
}

// Sends the leaves unless one of them has no path. 0 when they were sent.
static int send_leaves(const nc_lib_leaf* leaves) {
    for (size_t i = 0; i < NOTIFY_LEAVES; i++) {
        if (leaves[i].path == nullptr) {
            return -1;
        }
    }
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
    if (send_leaves(leaves) != 0) {
        APP_ERROR("send loop-detect state ERR");
    } else {
        APP_INFO("send loop-detect state, name[%s] notify_type[%d] vid[%d] policy[%d] src-port[%d]",
                 record->name, record->notify_type, record->vid, record->policy, record->src_port);
    }
    for (const nc_lib_leaf& leaf : leaves) {
        free(const_cast<char*>(leaf.path));
    }
    return 0;
}

// ---- Loop entry ----

int lda_mom_set_loop_entry(lda_intf_t* record) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    index.name = record->name;
    entry.index = &index;
    entry.policy = lda_intf_policy_get(record);
    entry.src_port = lda_mode_is_shuttable(record->mode) ? 1 : 0;
    APP_INFO("set loop entry: name=%s, policy=%d,is_src=%d\n", record->name, entry.policy,
             entry.src_port);
    if (qv_mom_set(g_lda_global, QV_MOM_APP_DB, &entry.base, 0, 0) != 0) {
        APP_ERROR("qv_mom_set lda entry failed");
        return -1;
    }
    return 0;
}

int lda_mom_del_loop_entry(lda_intf_t* record) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    index.name = record->name;
    entry.index = &index;
    APP_INFO("delete loop entry: name=%s\n", record->name);
    if (qv_mom_del(g_lda_global, QV_MOM_APP_DB, &entry.base, 0, 0) != 0) {
        APP_ERROR("qv_mom_del lda entry failed");
        return -1;
    }
    return 0;
}

int lda_mom_del_all_loop_entry(void) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    entry.index = &index;  // its name is empty: every record of the type
    APP_INFO("delete all loop entry\n");
    const int rv = qv_mom_pdel(g_lda_global, QV_MOM_APP_DB, &entry.base, 0, 0, 0);
    if (rv != 0) {
        APP_ERROR("qv_mom_pdel lda entry failed, rv=%d", rv);
        return -1;
    }
    return 0;
}

// ---- Both ----

void lda_loop_result_send_ntf(uint32_t kind, lda_intf_t* record) {
    lda_notify_t notify = {};
    notify.notify_type = kind;
    app_text_copy(notify.name, sizeof notify.name, record->name);
    notify.ifx = record->ifx;
    notify.policy = lda_intf_policy_get(record);
    notify.src_port = lda_mode_is_shuttable(record->mode) ? 1 : 0;
    if (kind == LDA_NOTIFY_LOOP) {
        lda_send_info_ntf(&notify);
        lda_mom_set_loop_entry(record);
    } else if (kind == LDA_NOTIFY_CLEAR) {
        lda_send_info_ntf(&notify);
        lda_mom_del_loop_entry(record);
    }
}
