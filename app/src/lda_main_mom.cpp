// The agent's three sessions with the object database. The callbacks set the readiness flags; a
// lost session clears none of them. Main thread.
#include "app_debug.h"
#include "lda_main.h"
#include "lda_netconf.h"
#include "lda_notify.h"
#include "lda_tarn.h"

// The registration of one session, with its log texts. Kept on purpose: the local session logs the
// name of the application database, and some setters log their failure under another call's name.
struct session_rule {
    const char* routine;  // function name in its log lines
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
    lda_mom_del_all_loop_entry();  // those of an earlier run
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
    // The replay is still running, so nothing has been subscribed that would be lost.
    if (mom_app_ready) {
        return 0;
    }
    return app_session_up();
}

int lda_mom_app_db_disconnect(void*) {
    APP_INFO("lda_mom_app_db_disconnect\n");
    return 0;
}
