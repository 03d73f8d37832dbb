// Start-up and main loop of the agent.
//
// `main` runs on the main thread and drives the thread master; everything else here is a callback
// of it. The redundancy service calls hot_standby_callback once, which builds everything else: the
// loop set (g_lda_loop_set, its recursive lock also guards backup_node_list), the command queue
// with its delivery thread, the CLI commands, the port and bridge clients, the database sessions
// and the storm detector. Start-up is all or nothing: a failure ends the process and leaves
// recovery to the supervision. There is no orderly shutdown, and a change of role stops nothing.
//
// The agent reports "ready" to the CLI framework as soon as five flags are set. It does not
// remember that it has done so and reports it again after a reconnect. Kept on purpose: the
// framework accepts that.
#include "lda_main.h"

#include <csignal>
#include <cstdlib>
#include <ctime>

#include <qv/cli.h>
#include <qv/rdnd.h>
#include "app_debug.h"
#include "app_string.h"
#include "lda_bridge.h"
#include "lda_cli.h"
#include "lda_cli_delivery.h"
#include "lda_cli_post.h"
#include "lda_lsm.h"
#include "lda_state.h"
#include "lda_tarn.h"
#include "storm_detect.h"

const char* module_name = "lda";
qv_thread_master* g_lda_master;
qv_mom_client* g_lda_global;
uint32_t g_flag;
uint32_t db_array[3] = {QV_MOM_APP_DB, QV_MOM_CFG_DB, QV_MOM_LOCAL_DB};
uint32_t db_num = 3;

qv_thread g_thread;
uint8_t cli_ready;
uint8_t mom_cfg_ready;
uint8_t mom_local_ready;
uint8_t mom_app_ready;
uint8_t lsm_port_ready;
uint8_t mom_storm_ready;

// ---- Process ----

static void register_role() {
    const rdnd_reg registration = {.master = g_lda_master,
                                   .module = module_name,
                                   .mom = g_lda_global,
                                   .master_cb = hot_standby_callback,
                                   .switch_cb = hot_standby_callback,
                                   .reserved = {0, 0},
                                   .flags = g_flag,
                                   .dbs = db_array,
                                   .db_num = db_num};
    rdnd_lib_mom_reg(&registration);
}

// The main loop ends only when it has nothing left to wait for. That is a failure, as is a failed
// start.
static int finish() {
    qv_thread_master_finish(g_lda_master);
    return -1;
}

int main() {
    const int rv = app_debug_init(module_name, "LDA");
    if (rv != 0) {
        return rv;
    }
    app_public_instance instance = {};
    app_text_copy(instance.name, sizeof instance.name, module_name);
    if (app_public_instance_init(&instance) != 0) {
        exit(1);
    }
    signal(SIGPIPE, SIG_IGN);

    APP_INFO("LDA:qv_thread_master_create start.\n");
    g_lda_master = qv_thread_master_create();
    if (g_lda_master == nullptr) {
        APP_ERROR("LDA: Failed to create thread master.\n");
        return finish();
    }
    APP_INFO("LDA:qv_thread_master_create end.\n");
    APP_INFO("qv_mom_client_init\n");
    g_lda_global = qv_mom_client_init("LDA", g_lda_master, g_lda_global);
    if (g_lda_global == nullptr) {
        APP_ERROR("qv_mom_client_init fail!\n");
        return finish();
    }
    APP_INFO("qv_mom_client_init end\n");

    if (!(g_flag & LDA_FLAG_NO_ROLE)) {
        register_role();
    }
    app_public_init_dead_detection(g_lda_master);
    APP_INFO("LDA:qv_thread_fetch start.\n");
    while (qv_thread_fetch(g_lda_master, &g_thread) != nullptr) {
        qv_thread_call(&g_thread);
    }
    return finish();
}

// ---- Role ----

static lda_loop_set_t* create_loop_set() {
    auto* set = static_cast<lda_loop_set_t*>(calloc(1, sizeof(lda_loop_set_t)));
    if (set == nullptr) {
        return nullptr;
    }
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&set->lock, &attribute);
    pthread_mutexattr_destroy(&attribute);
    lda_list_init(&set->list);
    return set;
}

int lda_init(void) {
    g_lda_recover_time = {.time = LDA_RECOVER_TIME_DEFAULT_S, .enabled = 1, .spare = {0, 0, 0}};
    g_lda_loop_set = create_loop_set();
    if (g_lda_loop_set == nullptr) {
        return -1;
    }
    lda_list_init(&backup_node_list);
    g_lda_cli_msg_set = static_cast<lda_cli_msg_set_t*>(calloc(1, sizeof(lda_cli_msg_set_t)));
    if (g_lda_cli_msg_set == nullptr) {
        // Kept on purpose: g_lda_loop_set stays dangling, the process ends next.
        pthread_mutex_destroy(&g_lda_loop_set->lock);
        free(g_lda_loop_set);
        return -1;
    }
    lda_pthread_cond_init(&g_lda_cli_msg_set->cond);
    pthread_mutex_init(&g_lda_cli_msg_set->lock, nullptr);
    lda_list_init(&g_lda_cli_msg_set->list);
    return 0;
}

// Logs the failure of a start-up step under the role callback's name and ends the process.
[[noreturn]] static void start_up_failed(const char* text) {
    APP_ERROR_AS("hot_standby_callback", "%s", text);
    exit(-1);
}

static void register_databases() {
    if (lda_mom_cfg_db_reg_callback() != 0) {
        start_up_failed("lda_mom_cfg_db_reg_callback fail!\n");
    }
    if (lda_mom_local_db_reg_callback() != 0) {
        start_up_failed("lda_mom_local_db_reg_callback fail!\n");
    }
    if (lda_mom_app_db_reg_callback() != 0) {
        start_up_failed("lda_mom_app_db_reg_callback fail!\n");
    }
}

int hot_standby_callback(void) {
    APP_INFO("It Works! This function will run on master or on switch.\n");
    APP_INFO("LDA:lda_init start.\n");
    if (lda_init() != 0) {
        start_up_failed("LDA: Failed to initialize list.\n");
    }
    APP_INFO("LDA:lda_init end.\n");

    APP_INFO("LDA:lda_cli_init start.\n");
    if (lda_cli_init() != 0) {
        exit(-1);
    }
    APP_INFO("LDA: register CLI success.\n");
    APP_INFO("LDA:lda_cli_init end.\n");
    pthread_t delivery;
    if (pthread_create(&delivery, nullptr, lda_cli_msg_thread_init, nullptr) != 0) {
        exit(-1);
    }
    lda_loop_policy_timer();

    APP_INFO("LDA:lda_lsm_init start.\n");
    if (lda_lsm_init() != 0) {
        start_up_failed("LDA: Failed to register LSM.\n");
    }
    APP_INFO("LDA: register LSM success.\n");
    APP_INFO("LDA:lda_lsm_init end.\n");
    if (lda_bridge_init() != 0) {
        start_up_failed("LDA: Failed to register lda bridge client.\n");
    }
    APP_INFO("LDA:lda_bridge_init end.\n");

    register_databases();
    storm_init(g_lda_master, g_lda_global, lda_loop_result_set_for_storm, lda_storm_ready);
    return 0;
}

// ---- Readiness ----

void lda_try_notify_cli_ready(void) {
    if (!mom_cfg_ready || !mom_local_ready || !mom_app_ready || !lsm_port_ready ||
        !mom_storm_ready) {
        return;
    }
    APP_INFO("cli ready");
    cli_client_ready();
}

void lda_storm_ready(void) {
    APP_INFO("storm init ready\n");
    mom_storm_ready = 1;
    lda_try_notify_cli_ready();
}

uint32_t lda_cli_reload_start_handle(uint32_t word) {
    return word;
}

void lda_cli_reload_end_handle(void) {
    cli_ready = 1;
    lda_loop_config_delivery(LDA_MID_BOTH);
    // Not earlier: a loop report is judged by the policy of the replayed configuration.
    lda_tarn_mom_reg_subscribe();
}

// ---- Loop table ----

int lda_loop_lock(void) APP_NOT_ANALYSED {
    return pthread_mutex_lock(&g_lda_loop_set->lock);
}

int lda_loop_unlock(void) APP_NOT_ANALYSED {
    return pthread_mutex_unlock(&g_lda_loop_set->lock);
}

lda_intf_t* lda_loop_result_walk(lda_loop_visitor visitor, const uint32_t* argument) {
    lda_list_t* head = &g_lda_loop_set->list;
    lda_list_t* next = nullptr;
    for (lda_list_t* link = head->next; link != head; link = next) {
        next = link->next;  // the visitor may free its record
        auto* record = lda_list_record<lda_intf_t>(link);
        if (visitor != nullptr && visitor(record, argument)) {
            return record;
        }
    }
    return nullptr;
}

// ---- Utilities ----

int lda_pthread_cond_init(pthread_cond_t* cond) {
    pthread_condattr_t attribute;
    if (pthread_condattr_init(&attribute) != 0) {
        APP_ERROR("pthread_condattr_init error\n");
        return -1;
    }
    if (pthread_condattr_setclock(&attribute, CLOCK_MONOTONIC) != 0) {
        APP_ERROR("pthread_condattr_setclock error\n");
        pthread_condattr_destroy(&attribute);
        return -1;
    }
    const int rv = pthread_cond_init(cond, &attribute);
    if (rv != 0) {
        APP_ERROR("pthread_cond_init error\n");
    }
    pthread_condattr_destroy(&attribute);
    return rv == 0 ? 0 : -1;
}

char* lda_make_path(const char* name) {
    static char path[64];
    const char* directory = getenv("TMPDIR");
    app_text_copy(path, sizeof path, directory != nullptr ? directory : "/tmp");
    app_text_append(path, sizeof path, name);
    return path;
}
