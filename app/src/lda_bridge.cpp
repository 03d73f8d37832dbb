// Bridge-agent client, and lda_intf_ret_proc, through which every change of a record goes.
//
// Main thread only. lda_bridge_handle holds the loop lock over its walk; lda_intf_ret_proc takes
// none and relies on its callers. The event selection is placed again on each connection, so a
// restart of the bridge agent needs no help from here.
#include "lda_bridge.h"

#include <qv/cli.h>
#include <qv/syslog.h>
#include "app_debug.h"
#include "lda_cli_exec.h"
#include "lda_main.h"

int lda_bridge_init(void) {
    APP_INFO("enter\n");
    if (bridge_agent_init("LDA", g_lda_master) != 0) {
        APP_ERROR("failed to init lda bridge");
        return -1;
    }
    bridge_agent_set_connect_callback(lda_bridge_con_handle);
    return 0;
}

void lda_bridge_con_handle(void) {
    APP_INFO("enter\n");
    bridge_event_set events = {};
    events.word[BRIDGE_EVENT_MODE_CHANGE / 64] = uint64_t{1} << (BRIDGE_EVENT_MODE_CHANGE % 64);
    const int rv = bridge_client_reg_event(&events, lda_bridge_handle);
    APP_INFO("rv: %d\n", rv);
}

void lda_bridge_handle(uint32_t event, const void* payload) {
    const lda_loop_guard guard;
    APP_INFO("event=%d\n", static_cast<int>(event));
    if (event != BRIDGE_EVENT_MODE_CHANGE)
        return;
    const auto* change = static_cast<const bridge_mode_change*>(payload);
    APP_INFO("modify ifx=%d, mode=%d\n", static_cast<int>(change->ifx),
             static_cast<int>(change->mode));
    lda_intf_mod_change(change);
}

lda_intf_t* lda_intf_mod_change(const bridge_mode_change* payload) {
    return lda_loop_result_walk(lda_brid_intf_mod_chg_cbk,
                                reinterpret_cast<const uint32_t*>(payload));
}

uint32_t lda_brid_intf_mod_chg_cbk(lda_intf_t* record, const uint32_t* payload) {
    const auto* change = reinterpret_cast<const bridge_mode_change*>(payload);
    // The port itself ends the walk; of an aggregate port every member is treated.
    const uint32_t stop = change->ifx == record->ifx ? 1 : 0;
    if (!stop) {
        if (change->ifx != static_cast<uint32_t>(record->mode_arg))
            return 0;
        APP_INFO("ifx is ap_ifx, proc sub ifx=%d", static_cast<int>(record->ifx));
    }
    lda_intf_t proposed = lda_intf_copy(record);
    proposed.mode = change->mode;
    APP_INFO("ifx=%d, mode=%d\n", static_cast<int>(proposed.ifx), static_cast<int>(change->mode));
    const bool shuts = lda_policy_shuts_mode(lda_loop_detect_ptype_get(), change->mode);
    proposed.is_shutdown = record->total_result && shuts ? 1 : 0;
    lda_intf_ret_proc(record, &proposed);
    return stop;
}

// Whether the new loop state or mode is to be notified when the shut-down flag stays as it is.
static bool notifies_without_shut_change(const lda_intf_t* current, const lda_intf_t* proposed) {
    if (current->total_result != proposed->total_result)
        return true;
    return proposed->total_result &&
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
    APP_INFO("ifx=%d act_shut=%d/%d,act_notify=%d,\n", static_cast<int>(current->ifx), act_shut,
             shut, act_notify);
    if (act_shut) {
        cli_client_c2p_reform();
        cli_syn_config_notify();
        lda_send_shutcmd(current->ifx, shut, current);
        current->recover_ticks = 0;
        // Kept on purpose: the handle is dropped, its timer is not cancelled.
        current->shutdown_timer = nullptr;
    }
    if (act_notify)
        lda_loop_result_send_ntf(proposed->total_result ? LDA_NOTIFY_LOOP : LDA_NOTIFY_CLEAR,
                                 current);
    return 1;
}

void lda_intf_loop_del(lda_intf_t* record) {
    APP_INFO("---lda delete loop interface , loop_num=%d\n", g_lda_loop_set->loop_num);
    lda_loop_result_send_ntf(LDA_NOTIFY_CLEAR, record);
    printk_syslog_ext(SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "RECOVER",
                      "Interface %s recovered from loop error.\r\n", record->name);
}

int lda_intf_shutdownable(uint32_t flag) {
    return lda_loop_detect_ptype_get() != LDA_POLICY_DISABLED || flag == 0;
}
