// The agent's three sessions with the object database, the loop entries it publishes there, and the
// pending-interface list.
//
// Everything runs on the main thread. The session callbacks raise the readiness flags; a lost
// session lowers none of them. backup_node_list is owned here: its nodes are appended and removed
// under the loop lock, and looked up without it.
#include <cstdlib>

#include "app_debug.h"
#include "lda_main.h"
#include "lda_netconf.h"
#include "p_app.pb-c.h"

lda_list_t backup_node_list;

// ---- Sessions ----

// The registration of one session, with the words it uses. Kept on purpose: the local session
// announces itself under the application database's name, and some setters report their failure
// under another call's name.
struct session_rule {
    const char* routine;  // under whose name it logs
    const char* title;
    uint32_t db;
    qv_mom_session_cb connect;
    qv_mom_session_cb reconnect;
    qv_mom_session_cb disconnect;
    const char* reconnect_setter;   // name in the failure text
    const char* disconnect_setter;  // name in the failure text
};

static const session_rule CFG_SESSION = {
    "lda_mom_cfg_db_reg_callback", "QV_MOM_CFG_DB",          QV_MOM_CFG_DB,
    lda_mom_cfg_db_connect,        lda_mom_cfg_db_reconnect, lda_mom_cfg_db_disconnect,
    "qv_mom_client_connect",       "qv_mom_client_connect"};
static const session_rule LOCAL_SESSION = {"lda_mom_local_db_reg_callback",
                                           "QV_MOM_APP_DB",
                                           QV_MOM_LOCAL_DB,
                                           lda_mom_local_db_connect,
                                           lda_mom_local_db_reconnect,
                                           lda_mom_local_db_disconnect,
                                           "qv_mom_client_set_reconnect_cb",
                                           "qv_mom_client_set_reconnect_cb"};
static const session_rule APP_SESSION = {"lda_mom_app_db_reg_callback",
                                         "QV_MOM_APP_DB",
                                         QV_MOM_APP_DB,
                                         lda_mom_app_db_connect,
                                         lda_mom_app_db_reconnect,
                                         lda_mom_app_db_disconnect,
                                         "qv_mom_client_set_reconnect_cb",
                                         "qv_mom_client_set_disconnect_cb"};

static int register_session(const session_rule& rule) {
    APP_INFO_AS(rule.routine, "%s reg start\n", rule.title);
    int rv = qv_mom_client_connect(g_lda_global, rule.db, rule.connect, nullptr);
    if (rv != 0) {
        APP_ERROR_AS(rule.routine, "qv_mom_client_connect error[%d]\n", rv);
        return -1;
    }
    rv = qv_mom_client_set_reconnect_cb(g_lda_global, rule.db, rule.reconnect, nullptr);
    if (rv != 0) {
        APP_ERROR_AS(rule.routine, "%s error[%d]\n", rule.reconnect_setter, rv);
        return -1;
    }
    rv = qv_mom_client_set_disconnect_cb(g_lda_global, rule.db, rule.disconnect, nullptr);
    if (rv != 0) {
        APP_ERROR_AS(rule.routine, "%s error[%d]\n", rule.disconnect_setter, rv);
        return -1;
    }
    APP_INFO_AS(rule.routine, "%s reg end\n", rule.title);
    return 0;
}

int lda_mom_cfg_db_reg_callback(void) {
    return register_session(CFG_SESSION);
}
int lda_mom_local_db_reg_callback(void) {
    return register_session(LOCAL_SESSION);
}
int lda_mom_app_db_reg_callback(void) {
    return register_session(APP_SESSION);
}

static int cfg_session_up() {
    mom_cfg_ready = 1;
    lda_try_notify_cli_ready();
    return 0;
}

int lda_mom_cfg_db_connect(void*) {
    APP_INFO("lda_mom_cfg_db_connect\n");
    return cfg_session_up();
}

int lda_mom_cfg_db_reconnect(void*) {
    APP_INFO("lda_mom_cfg_db_reconnect\n");
    return cfg_session_up();
}

int lda_mom_cfg_db_disconnect(void*) {
    APP_INFO("lda_mom_cfg_db_disconnect\n");
    return 0;
}

static int local_session_up() {
    lda_nc_mom_reg_subscribe();
    mom_local_ready = 1;
    lda_try_notify_cli_ready();
    return 0;
}

int lda_mom_local_db_connect(void*) {
    APP_INFO("lda_mom_local_db_connect\n");
    return local_session_up();
}

int lda_mom_local_db_reconnect(void*) {
    APP_INFO("lda_mom_local_db_reconnect\n");
    return local_session_up();
}

int lda_mom_local_db_disconnect(void*) {
    APP_INFO("lda_mom_local_db_disconnect\n");
    return 0;
}

static int app_session_up() {
    lda_mom_del_all_loop_entry();  // what an earlier run left published
    mom_app_ready = 1;
    lda_try_notify_cli_ready();
    return 0;
}

int lda_mom_app_db_connect(void*) {
    APP_INFO("lda_mom_app_db_connect\n");
    return app_session_up();
}

int lda_mom_app_db_reconnect(void*) {
    APP_INFO("lda_mom_app_db_reconnect\n");
    if (cli_ready) {
        lda_tarn_mom_reg_subscribe();
        return 0;
    }
    // Connected before, and the replay is still to come: nothing was subscribed yet.
    if (mom_app_ready)
        return 0;
    return app_session_up();
}

int lda_mom_app_db_disconnect(void*) {
    APP_INFO("lda_mom_app_db_disconnect\n");
    return 0;
}

// ---- Loop entries ----

int lda_mom_set_loop_entry(lda_intf_t* record) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    index.name = record->name;
    entry.index = &index;
    entry.policy = lda_intf_policy_get(record);
    entry.src_port = lda_mode_is_shuttable(record->mode);
    APP_INFO("set loop entry: name=%s, policy=%d,is_src=%d\n", record->name,
             static_cast<int>(entry.policy), entry.src_port);
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

// ---- Pending-interface list ----

static lda_intf_t* find_pending(uint32_t ifx) {
    lda_list_t* head = &backup_node_list;
    for (lda_list_t* link = head->next; link != head; link = link->next) {
        auto* node = reinterpret_cast<lda_intf_t*>(link);
        if (node->ifx == ifx)
            return node;
    }
    return nullptr;
}

void lda_back_node_add(uint32_t ifx) {
    if (find_pending(ifx)) {
        APP_INFO("---backup_node_list have been added :ifx=%d\n", static_cast<int>(ifx));
        return;
    }
    auto* node = static_cast<lda_intf_t*>(calloc(1, sizeof(lda_intf_t)));
    if (!node)
        return;
    node->ifx = ifx;
    lda_intf_set_shutdown(node, 1);
    lda_loop_lock();
    lda_list_add_tail(&backup_node_list, &node->link);
    lda_loop_unlock();
    APP_INFO("--- add backup_node_list :ifx=%d\n", static_cast<int>(ifx));
}

int lda_back_node_lookup(uint32_t ifx) {
    return find_pending(ifx) ? 1 : 0;
}

void lda_back_node_del(uint32_t ifx) {
    const lda_loop_guard guard;
    lda_intf_t* node = find_pending(ifx);
    if (!node)
        return;
    lda_list_unlink(&node->link);
    free(node);
    APP_INFO("---LDA delete backup_node_list :ifx=%d\n", static_cast<int>(ifx));
}
