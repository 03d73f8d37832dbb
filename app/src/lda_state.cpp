// State of the ports. Only this source changes it.
//
// Four facts about a port make its state: a source reports a loop (tarn_result, storm_result), the
// port is in the loop table (total_result), the agent holds it shut down (is_shutdown), and its
// clear timer is pending (clear_timer). docs/architecture.md has the table of the states.
//
//   A report      sets the result of its source. A loop runs the policy and enters the port in the
//                 loop table; the last source to fall quiet starts the clear timer.
//   The policy    may shut the port down. A loop that is reported again by the same source sets the
//                 flag and posts "shutdown" in any case; everything else proposes a change, and
//                 lda_intf_ret_proc posts only when the flag changes.
//   The tick      runs every ten seconds, recovers the ports that were held long enough, and lets
//                 the clear timer start. The delivery thread sets the flag again when the switch
//                 refuses "no shutdown".
//   The clear timer  takes the port out of the table and reports the end of the loop.
//
// Main thread, without the loop lock, except for lda_intf_recovery_refused. Another thread may look
// records up meanwhile, so the shut-down flag goes through atomics.
//
// A record may be deleted while its clear timer is pending. The timer is not cancelled then, kept
// on purpose: the record waits in a list of deleted records, the timer takes its port out of the
// loop table and frees it. If the port has been added again meanwhile and loops, the timer reports
// no end: notification, entry and message know the port by its name, and under that name it loops.
#include "lda_state.h"

#include <cstdlib>
#include <cstring>

#include <qv/cli.h>
#include <qv/syslog.h>
#include "app_debug.h"
#include "lda_cli_post.h"
#include "lda_main.h"
#include "lda_notify.h"
#include "storm_detect.h"

static constexpr uint32_t RECOVERY_TICK_S = 10;

// ---- Deleted records ----

// Deleted records whose clear timer is still pending, linked through their own links.
static lda_list_t deleted_records = {&deleted_records, &deleted_records};

void lda_intf_release(lda_intf_t* record) {
    if (record->clear_timer != nullptr) {
        lda_list_add_tail(&deleted_records, &record->link);
    } else {
        free(record);
    }
}

static bool is_deleted(const lda_intf_t* record) {
    for (const lda_intf_t& deleted : lda_records<lda_intf_t>(&deleted_records)) {
        if (&deleted == record) {
            return true;
        }
    }
    return false;
}

// Whether a port with this name is in the loop table.
static bool name_loops(const char* name) {
    for (const lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        if (record.total_result && strcmp(record.name, name) == 0) {
            return true;
        }
    }
    return false;
}

// ---- A report ----

// The result byte of a source, or null for an unknown source.
static uint8_t* source_result(lda_intf_t* record, uint32_t source) {
    if (source == LDA_SOURCE_TARN) {
        return &record->tarn_result;
    }
    return source == LDA_SOURCE_STORM ? &record->storm_result : nullptr;
}

void lda_loop_result_set(uint32_t source, uint8_t result, uint32_t ifx) {
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        return;
    }
    uint8_t* stored = source_result(record, source);
    if (stored == nullptr) {
        return;
    }
    if (*stored == result) {
        if (result == 0) {
            return;
        }
        APP_INFO("IN LOOP STATE, LOOP AGAIN, SEND THE SHUTDOWN FORCE, DON'T Notify!!");
        lda_loop_exec_policy(record, true);
        return;
    }
    *stored = result;
    if (result != 0) {
        lda_loop_exec_policy(record, false);
        lda_loop_result_add(record);
    } else if (record->total_result) {
        lda_clear_loop_timer(record);
    }
}

int lda_loop_result_set_for_storm(const storm_loop_msg* report) {
    lda_loop_result_set(LDA_SOURCE_STORM, report->is_loop, report->ifx);
    return 0;
}

// ---- The policy ----

void lda_loop_exec_policy(lda_intf_t* record, bool again) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO("ifx=%d, type=%d, mode=%d", record->ifx, policy, record->mode);
    if (!lda_policy_shuts_mode(policy, record->mode)) {
        return;
    }
    if (again) {
        lda_intf_set_shutdown(record, 1);
        lda_send_shutcmd(record->ifx, 1, record);
    } else {
        // Sets the flag too, where the change is applied.
        lda_cli_intf_shutdown_by_lda_cmd(record->ifx, 1);
    }
}

int lda_cli_intf_shutdown_by_lda_cmd(uint32_t ifx, uint8_t shutdown) {
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        if (shutdown == 1) {
            lda_back_node_add(ifx);
        } else {
            lda_back_node_del(ifx);
        }
        return -1;
    }
    lda_intf_t proposed = lda_intf_copy(record);
    proposed.is_shutdown = shutdown;
    lda_intf_ret_proc(record, &proposed);
    return 0;
}

// ---- Every proposed change ----

// Whether to notify the new loop state or mode when the shut-down flag does not change.
static bool notifies_without_shut_change(const lda_intf_t* current, const lda_intf_t* proposed) {
    if (current->total_result != proposed->total_result) {
        return true;
    }
    return proposed->total_result != 0 &&
           lda_mode_is_shuttable(current->mode) != lda_mode_is_shuttable(proposed->mode);
}

int lda_intf_ret_proc(lda_intf_t* current, lda_intf_t* proposed) {
    if (lda_loop_detect_ptype_get() == LDA_POLICY_DISABLED && proposed->is_shutdown) {
        APP_INFO("global is disable, but shutdown, change to noshut\n");
        proposed->is_shutdown = 0;
    }
    const uint8_t shut = proposed->is_shutdown;
    const bool act_shut = lda_intf_is_shutdown(current) != shut;
    const bool act_notify = act_shut || notifies_without_shut_change(current, proposed);

    current->total_result = proposed->total_result;
    lda_intf_set_shutdown(current, shut);
    current->mode = proposed->mode;
    APP_INFO("ifx=%d act_shut=%d/%d,act_notify=%d,\n", current->ifx, act_shut, shut, act_notify);
    if (act_shut) {
        cli_client_c2p_reform();
        cli_syn_config_notify();
        lda_send_shutcmd(current->ifx, shut, current);
        current->recover_ticks = 0;
        // Kept on purpose: the handle is dropped, its timer is not cancelled.
        current->shutdown_timer = nullptr;
    }
    if (act_notify) {
        lda_loop_result_send_ntf(proposed->total_result ? LDA_NOTIFY_LOOP : LDA_NOTIFY_CLEAR,
                                 current);
    }
    return 1;
}

// ---- The loop table ----

static void cancel_timer(qv_thread** timer) {
    if (*timer == nullptr) {
        return;
    }
    qv_thread_cancel(*timer);
    *timer = nullptr;
}

void lda_loop_result_add(lda_intf_t* record) {
    cancel_timer(&record->clear_timer);  // a new loop cancels a pending clear
    if (record->total_result) {
        return;
    }
    if (g_lda_loop_set->loop_num >= LDA_LOOP_MAX) {
        printk_syslog_ext(SYSLOG_SEVERITY_WARNING, "LDA", "LOOP_LIMIT",
                          "The number of loop_detect_result is out of limit.");
        return;
    }
    record->total_result = 1;
    g_lda_loop_set->loop_num++;
    APP_INFO("+++lda add loop interface ifx=%d , loop_num=%d", record->ifx,
             g_lda_loop_set->loop_num);
    lda_loop_result_send_ntf(LDA_NOTIFY_LOOP, record);
    printk_syslog_ext(SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "ERROR",
                      "Detected loop error on interface %s.\r\n", record->name);
}

void lda_clear_loop_timer(lda_intf_t* record) {
    if (record->tarn_result || record->storm_result || lda_intf_is_shutdown(record) ||
        record->clear_timer != nullptr) {
        return;
    }
    record->clear_timer =
        qv_thread_add_timer(g_lda_master, lda_intf_loop_clear, record, g_lda_clear_interval);
    if (record->clear_timer == nullptr) {
        APP_ERROR("LDA add qv_thread timer failed.");
    }
}

int lda_intf_loop_clear(qv_thread* timer) {
    if (timer == nullptr || timer->arg == nullptr) {
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

// ---- Recovery ----

void lda_loop_policy_timer(void) {
    // Kept on purpose: nothing retries. After a failure here no port is recovered any more.
    if (qv_thread_add_timer(g_lda_master, lda_intf_shutdown_timer_call, nullptr, RECOVERY_TICK_S) ==
        nullptr) {
        APP_ERROR("LDA add qv_thread timer failed.");
    }
}

// Counts one tick for a port that is held shut down, or recovers it when its time is up.
static void tick_record(lda_intf_t* record, uint32_t recover_time) {
    if ((record->recover_ticks + 1) * RECOVERY_TICK_S < recover_time) {
        record->recover_ticks++;
        return;
    }
    record->recover_ticks = 0;
    lda_intf_set_shutdown(record, 0);
    lda_send_shutcmd(record->ifx, 0, record);
    APP_INFO_AS("lda_intf_shutdown_timer_call", "ifx=%d no shutdown force", record->ifx);
}

int lda_intf_shutdown_timer_call(qv_thread* timer) {
    if (timer == nullptr) {
        APP_ERROR("Parameter error.");
        return -1;
    }
    const uint32_t recover_time = lda_cli_recover_time_get();
    APP_DEBUG("enter time=%d", recover_time);
    for (lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        if (lda_intf_is_shutdown(&record) == 1) {
            tick_record(&record, recover_time);
        }
    }
    lda_loop_policy_timer();
    return 0;
}

void lda_intf_recovery_refused(uint32_t ifx) {
    const lda_loop_guard guard;
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        return;
    }
    lda_intf_set_shutdown(record, 1);
    APP_INFO_AS("cli_exec_shutdown", "revert no shtudown, force notify");
    cli_client_c2p_reform();
    cli_syn_config_notify();
}

// ---- Changes without a report ----

void lda_intf_forget_results(lda_intf_t* record) {
    record->tarn_result = 0;
    record->storm_result = 0;
}

static void clear_record(lda_intf_t* record) {
    if (record->total_result) {
        lda_mom_del_loop_entry(record);
        record->total_result = 0;
    }
    lda_intf_forget_results(record);
    record->spare_word = 0;
    lda_intf_set_shutdown(record, 0);
    cancel_timer(&record->clear_timer);
    cancel_timer(&record->shutdown_timer);
}

void lda_all_loop_result_clear(void) {
    for (lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        clear_record(&record);
    }
    // The count goes to 0 for deleted records too: their timers must not subtract from it again.
    for (lda_intf_t& record : lda_records<lda_intf_t>(&deleted_records)) {
        record.total_result = 0;
    }
    g_lda_loop_set->loop_num = 0;
    g_lda_loop_set->policy = LDA_POLICY_DISABLED;
}

void lda_intf_policy_chg_proc(const lda_cli_msg_t* message) {
    lda_loop_result_walk(lda_intf_policy_chg_cbk, reinterpret_cast<const uint32_t*>(message));
}

uint32_t lda_intf_policy_chg_cbk(lda_intf_t* record, const uint32_t* message) {
    const auto* change = reinterpret_cast<const lda_cli_msg_t*>(message);
    if (record->ifx != change->ifx) {
        return 0;
    }
    const uint8_t old_flag = lda_intf_is_shutdown(record);
    APP_INFO("ifx=%d,old_shutdown=%d, new_shutdown=%d", record->ifx, old_flag, change->shutdown);
    if (record->total_result && old_flag != change->shutdown) {
        lda_intf_t announced = lda_intf_copy(record);
        announced.is_shutdown = change->shutdown;
        lda_loop_result_send_ntf(LDA_NOTIFY_LOOP, &announced);
    }
    lda_intf_set_shutdown(record, change->shutdown);
    APP_INFO("ifx=%d,old_shutdown=%d, new_shutdown=%d", record->ifx, lda_intf_is_shutdown(record),
             change->shutdown);
    return 1;
}

void lda_intf_loop_del(lda_intf_t* record) {
    APP_INFO("---lda delete loop interface , loop_num=%d\n", g_lda_loop_set->loop_num);
    lda_loop_result_send_ntf(LDA_NOTIFY_CLEAR, record);
    printk_syslog_ext(SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "RECOVER",
                      "Interface %s recovered from loop error.\r\n", record->name);
}

int lda_intf_shutdownable(uint32_t flag) {
    return lda_loop_detect_ptype_get() != LDA_POLICY_DISABLED || flag == 0 ? 1 : 0;
}
