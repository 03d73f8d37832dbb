// Bridge-agent client.
//
// lda_bridge_handle holds the loop lock over its walk. Each connection selects the events again, so
// a restart of the bridge agent needs no further handling.
#include "lda_bridge.h"

#include "app_debug.h"
#include "lda_main.h"
#include "lda_state.h"

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
    APP_INFO("event=%d\n", event);
    if (event != BRIDGE_EVENT_MODE_CHANGE) {
        return;
    }
    const auto* change = static_cast<const bridge_mode_change*>(payload);
    APP_INFO("modify ifx=%d, mode=%d\n", change->ifx, change->mode);
    lda_intf_mod_change(change);
}

lda_intf_t* lda_intf_mod_change(const bridge_mode_change* payload) {
    return lda_loop_result_walk(lda_brid_intf_mod_chg_cbk,
                                reinterpret_cast<const uint32_t*>(payload));
}

uint32_t lda_brid_intf_mod_chg_cbk(lda_intf_t* record, const uint32_t* payload) {
    const auto* change = reinterpret_cast<const bridge_mode_change*>(payload);
    // The port itself ends the walk; a change of an aggregate port concerns each of its members.
    const bool itself = change->ifx == record->ifx;
    if (!itself) {
        if (change->ifx != static_cast<uint32_t>(record->mode_arg)) {
            return 0;
        }
        APP_INFO("ifx is ap_ifx, proc sub ifx=%d", record->ifx);
    }
    lda_intf_t proposed = lda_intf_copy(record);
    proposed.mode = change->mode;
    APP_INFO("ifx=%d, mode=%d\n", proposed.ifx, change->mode);
    const bool shuts = lda_policy_shuts_mode(lda_loop_detect_ptype_get(), change->mode);
    proposed.is_shutdown = record->total_result && shuts ? 1 : 0;
    lda_intf_ret_proc(record, &proposed);
    return itself ? 1 : 0;
}
