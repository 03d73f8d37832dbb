// Loop state: records and settings, recording of loop results, policy execution and timers, and the
// peer protocol's loop reports.
//
// Everything runs on the main thread except lda_loop_result_get, which the delivery thread also
// calls, under the loop lock. No function here takes the lock.
//
// Timers: a port's clear timer (argument: its record) and one recovery tick for all ports. A record
// may be deleted while its clear timer is pending. The timer is not cancelled then, kept on
// purpose: the record waits in a list of deleted records, the timer takes its port out of the loop
// table and frees it. If the port has been added again meanwhile and loops, the timer reports no
// end: notification, entry and message know the port by its name, and under that name it loops.
#include "lda_msg.h"

#include <cstdlib>
#include <cstring>

#include <qv/bridge.h>
#include <qv/syslog.h>
#include "app_debug.h"
#include "app_string.h"
#include "lda_cli_exec.h"
#include "lda_main.h"
#include "lda_netconf.h"
#include "p_bridge.pb-c.h"
#include "storm_detect.h"

static constexpr long RECOVERY_TICK_S = 10;

lda_loop_set_t* g_lda_loop_set;
lda_recover_time_t g_lda_recover_time;
int32_t g_lda_clear_interval = 60;

// Deleted records whose clear timer is still pending, linked through their own links.
static lda_list_t deleted_records = {&deleted_records, &deleted_records};

static lda_intf_t* record_of(lda_list_t* link) {
    return reinterpret_cast<lda_intf_t*>(link);
}

// ---- Records and settings ----

lda_intf_t lda_intf_copy(const lda_intf_t* record) {
    constexpr size_t shared = offsetof(lda_intf_t, is_shutdown);
    const auto* from = reinterpret_cast<const char*>(record);
    lda_intf_t copy;
    auto* to = reinterpret_cast<char*>(&copy);
    memcpy(to, from, shared);
    copy.is_shutdown = lda_intf_is_shutdown(record);
    memcpy(to + shared + 1, from + shared + 1, sizeof copy - shared - 1);
    return copy;
}

void lda_loop_detect_ptype_set(uint32_t policy) {
    g_lda_loop_set->policy = policy;
}

uint32_t lda_loop_detect_ptype_get(void) {
    return g_lda_loop_set->policy;
}

bool lda_policy_shuts_mode(uint32_t policy, uint32_t mode) {
    if (mode == SWPORT_MODE_ACCESS)
        return policy == LDA_POLICY_SHUT_ACCESS || policy == LDA_POLICY_SHUT_ACCESS_HYBRID;
    if (mode == SWPORT_MODE_HYBRID)
        return policy == LDA_POLICY_SHUT_HYBRID || policy == LDA_POLICY_SHUT_ACCESS_HYBRID;
    return false;
}

bool lda_mode_is_shuttable(uint32_t mode) {
    return mode == SWPORT_MODE_ACCESS || mode == SWPORT_MODE_HYBRID;
}

uint32_t lda_intf_policy_get(const lda_intf_t* record) {
    return lda_policy_shuts_mode(lda_loop_detect_ptype_get(), record->mode) ? 1 : 0;
}

void lda_cli_recover_time_set(uint32_t time, uint8_t enabled) {
    g_lda_recover_time.time = time;
    g_lda_recover_time.enabled = enabled;
}

uint32_t lda_cli_recover_time_get(void) {
    return g_lda_recover_time.enabled ? g_lda_recover_time.time : 0;
}

lda_intf_t* lda_loop_result_get(uint32_t ifx) {
    return g_lda_loop_set->index.find(ifx);
}

static void fill_snapshot(lda_loop_result_t* entry, const lda_intf_t* record) {
    memcpy(entry->name, record->name, sizeof entry->name);
    entry->tarn_result = record->tarn_result;
    entry->storm_result = record->storm_result;
    entry->is_shutdown = lda_intf_is_shutdown(record);
    entry->policy = lda_intf_policy_get(record);
}

int lda_all_loop_result_get(lda_loop_result_t* array) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    if (policy == LDA_POLICY_DISABLED || g_lda_loop_set->loop_num == 0) {
        APP_INFO("return 0:policy type=%d, loop_num=%d", static_cast<int>(policy),
                 g_lda_loop_set->loop_num);
        return 0;
    }
    int num = 0;
    lda_list_t* head = &g_lda_loop_set->list;
    for (lda_list_t* link = head->next; link != head && num < LDA_LOOP_MAX; link = link->next) {
        const lda_intf_t* record = record_of(link);
        if (!record->total_result)
            continue;
        fill_snapshot(&array[num], record);
        num++;
        APP_INFO("num=%d, is_shutdown=%d", num, array[num - 1].is_shutdown);
    }
    return num;
}

void lda_intf_release(lda_intf_t* record) {
    if (record->clear_timer)
        lda_list_add_tail(&deleted_records, &record->link);
    else
        free(record);
}

static bool is_deleted(const lda_intf_t* record) {
    for (lda_list_t* link = deleted_records.next; link != &deleted_records; link = link->next)
        if (record_of(link) == record)
            return true;
    return false;
}

// Whether a port with this name is in the loop table.
static bool name_loops(const char* name) {
    lda_list_t* head = &g_lda_loop_set->list;
    for (lda_list_t* link = head->next; link != head; link = link->next)
        if (record_of(link)->total_result && strcmp(record_of(link)->name, name) == 0)
            return true;
    return false;
}

// ---- Recording of results ----

// The result byte of a source, or null for a number that is none.
static uint8_t* source_result(lda_intf_t* record, uint32_t source) {
    if (source == LDA_SOURCE_TARN)
        return &record->tarn_result;
    return source == LDA_SOURCE_STORM ? &record->storm_result : nullptr;
}

void lda_loop_result_set(uint32_t source, uint8_t result, uint32_t ifx) {
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (!record)
        return;
    uint8_t* stored = source_result(record, source);
    if (!stored)
        return;
    if (*stored == result) {
        if (result == 0)
            return;
        APP_INFO("IN LOOP STATE, LOOP AGAIN, SEND THE SHUTDOWN FORCE, DON'T Notify!!");
        lda_loop_exec_policy(record, 1);
        return;
    }
    *stored = result;
    if (result != 0) {
        lda_loop_exec_policy(record, 0);
        lda_loop_result_add(record);
    } else if (record->total_result) {
        lda_clear_loop_timer(record);
    }
}

int lda_loop_result_set_for_storm(const storm_loop_msg* report) {
    lda_loop_result_set(LDA_SOURCE_STORM, report->is_loop, report->ifx);
    return 0;
}

static void cancel_timer(qv_thread** timer) {
    if (!*timer)
        return;
    qv_thread_cancel(*timer);
    *timer = nullptr;
}

void lda_loop_result_add(lda_intf_t* record) {
    cancel_timer(&record->clear_timer);  // a fresh loop revokes a pending clear
    if (record->total_result)
        return;
    if (g_lda_loop_set->loop_num >= LDA_LOOP_MAX) {
        printk_syslog_ext(SYSLOG_SEVERITY_WARNING, "LDA", "LOOP_LIMIT",
                          "The number of loop_detect_result is out of limit.");
        return;
    }
    record->total_result = 1;
    g_lda_loop_set->loop_num++;
    APP_INFO("+++lda add loop interface ifx=%d , loop_num=%d", static_cast<int>(record->ifx),
             g_lda_loop_set->loop_num);
    lda_loop_result_send_ntf(LDA_NOTIFY_LOOP, record);
    printk_syslog_ext(SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "ERROR",
                      "Detected loop error on interface %s.\r\n", record->name);
}

int lda_intf_loop_clear(qv_thread* timer) {
    if (!timer || !timer->arg) {
        APP_ERROR("Parameter error.");
        return -1;
    }
    auto* record = static_cast<lda_intf_t*>(timer->arg);
    if (record->total_result) {
        g_lda_loop_set->loop_num--;
        APP_INFO("node->total_result ifx %s", record->name);
    }
    record->clear_timer = nullptr;
    record->total_result = 0;
    APP_INFO("---lda delete loop interface , loop_num=%d, ifx=%s", g_lda_loop_set->loop_num,
             record->name);
    const bool deleted = is_deleted(record);
    // Kept on purpose: the end is reported also for a port that had left the table already.
    if (!deleted || !name_loops(record->name)) {
        lda_loop_result_send_ntf(LDA_NOTIFY_CLEAR, record);
        printk_syslog_ext(SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "RECOVER",
                          "Interface %s recovered from loop error.\r\n", record->name);
    }
    if (deleted) {
        lda_list_unlink(&record->link);
        free(record);
    }
    return 0;
}

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

static void clear_record(lda_intf_t* record) {
    if (record->total_result) {
        lda_mom_del_loop_entry(record);
        record->total_result = 0;
    }
    record->tarn_result = 0;
    record->storm_result = 0;
    record->spare_word = 0;
    lda_intf_set_shutdown(record, 0);
    cancel_timer(&record->clear_timer);
    cancel_timer(&record->shutdown_timer);
}

void lda_all_loop_result_clear(void) {
    lda_list_t* head = &g_lda_loop_set->list;
    for (lda_list_t* link = head->next; link != head; link = link->next)
        clear_record(record_of(link));
    // The count goes to 0 for deleted records too: their timers must not subtract from it again.
    for (lda_list_t* link = deleted_records.next; link != &deleted_records; link = link->next)
        record_of(link)->total_result = 0;
    g_lda_loop_set->loop_num = 0;
    g_lda_loop_set->policy = LDA_POLICY_DISABLED;
}

// ---- Policy execution and timers ----

void lda_loop_exec_policy(lda_intf_t* record, uint32_t again) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO("ifx=%d, type=%d, mode=%d", static_cast<int>(record->ifx), static_cast<int>(policy),
             static_cast<int>(record->mode));
    if (!lda_policy_shuts_mode(policy, record->mode))
        return;
    if (again == 1) {
        lda_intf_set_shutdown(record, 1);
        lda_send_shutcmd(record->ifx, 1, record);
    } else {
        // Marks the port on the way, where the change of the flag is applied.
        lda_cli_intf_shutdown_by_lda_cmd(record->ifx, 1);
    }
}

void lda_clear_loop_timer(lda_intf_t* record) {
    if (record->tarn_result || record->storm_result || lda_intf_is_shutdown(record) ||
        record->clear_timer)
        return;
    record->clear_timer =
        qv_thread_add_timer(g_lda_master, lda_intf_loop_clear, record, g_lda_clear_interval);
    if (!record->clear_timer)
        APP_ERROR("LDA add qv_thread timer failed.");
}

void lda_loop_policy_timer(void) {
    // Kept on purpose: nothing tries again, so the tick before this one was the last.
    if (!qv_thread_add_timer(g_lda_master, lda_intf_shutdown_timer_call, nullptr, RECOVERY_TICK_S))
        APP_ERROR("LDA add qv_thread timer failed.");
}

// Counts one tick of a port that is held shut down, and recovers it when its time is up.
static void tick_record(lda_intf_t* record, uint32_t recover_time) {
    if (record->recover_ticks * 10 + 10 < recover_time) {
        record->recover_ticks++;
        return;
    }
    record->recover_ticks = 0;
    lda_intf_set_shutdown(record, 0);
    lda_send_shutcmd(record->ifx, 0, record);
    APP_INFO_AS("lda_intf_shutdown_timer_call", "ifx=%d no shutdown force",
                static_cast<int>(record->ifx));
}

int lda_intf_shutdown_timer_call(qv_thread* timer) {
    if (!timer) {
        APP_ERROR("Parameter error.");
        return -1;
    }
    const uint32_t recover_time = lda_cli_recover_time_get();
    APP_DEBUG("enter time=%d", static_cast<int>(recover_time));
    lda_list_t* head = &g_lda_loop_set->list;
    for (lda_list_t* link = head->next; link != head; link = link->next)
        if (lda_intf_is_shutdown(record_of(link)) == 1)
            tick_record(record_of(link), recover_time);
    lda_loop_policy_timer();
    return 0;
}

// ---- Peer loop reports ----

// A record of the type with an empty key, for the calls that are about all records.
struct tarn_template {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo info = P_BRIDGE__TARN_LOOP_INFO__INIT;
    tarn_template() { info.index = &index; }
};

int lda_tarn_mom_reg_subscribe(void) {
    const tarn_template key;
    qv_mom_subscribe(g_lda_global, QV_MOM_APP_DB, &key.info.base, 0,
                     lda_tarn_mom_subscribe_callback, nullptr);
    return 0;
}

// Records that existed before the subscription arrive as ordinary messages.
static void scan_existing_reports() {
    const tarn_template key;
    qv_mom_scan(g_lda_global, QV_MOM_APP_DB, &key.info.base, 0, lda_tarn_mom_subscribe_callback,
                nullptr);
}

int lda_tarn_mom_subscribe_callback(qv_mom_client* client, const qv_mom_msg* message) {
    if (!client || !message) {
        APP_ERROR("global[%p] mom_msg[%p]", static_cast<const void*>(client),
                  static_cast<const void*>(message));
        return -1;
    }
    APP_INFO("recv mom msg, cmd[%d]", message->cmd);
    if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
        APP_INFO("mom subscribe success");
        scan_existing_reports();
        return 0;
    }
    if (message->oper == QV_MOM_OPER_DELETE)
        return 0;
    const auto* report = reinterpret_cast<const PBridge__TarnLoopInfo*>(message->value);
    if (!report || !report->index) {
        APP_ERROR("value is null err!");
        return -1;
    }
    APP_INFO("recv tarn msg, ifx[%d] vid[%d] is_loop[%d] src_ifx[%d]",
             static_cast<int>(report->index->ifx), static_cast<int>(report->vid),
             static_cast<int>(report->is_loop), static_cast<int>(report->src_ifx));
    if (lda_loop_detect_ptype_get() == LDA_POLICY_DISABLED) {
        APP_INFO("current lda is disable, thus does not process the relevant business logic.");
        return 0;
    }
    const uint8_t result = report->is_loop != 0 ? 1 : 0;
    lda_loop_result_set(LDA_SOURCE_TARN, result, report->index->ifx);
    if (report->src_ifx == report->index->ifx)
        return 0;
    lda_loop_result_set(LDA_SOURCE_TARN, result, report->src_ifx);
    APP_INFO("lda_loop_result_set src loop");
    return 0;
}
