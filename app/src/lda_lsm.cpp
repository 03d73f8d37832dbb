// Port-state client: the interface records follow the switch's ports.
//
// Main thread only. Records are made and deleted only here, under the loop lock because the
// delivery thread looks them up. Deleting a record is minimal, kept on purpose: loop_num is not
// lowered for a looped port, its loop entry is not withdrawn and its timers are not cancelled;
// lda_intf_release keeps the memory until they have fired.
#include "lda_lsm.h"

#include <qv/bridge.h>
#include <qv/ddm.h>
#include <qv/lsm.h>
#include "app_debug.h"
#include "lda_bridge.h"
#include "lda_cli_exec.h"
#include "lda_cli_post.h"
#include "lda_main.h"
#include "lda_state.h"
#include "storm_cli.h"
#include "storm_detect.h"

// Words of the messages.
static constexpr size_t WORD_IFX = 0;
static constexpr size_t WORD_AP_CHANGE = 0;
static constexpr size_t WORD_AP_IFX = 1;
static constexpr size_t WORD_AP_MEMBER = 34;
static constexpr size_t WORD_LAYER_FLAGS = 56;

// Events of each class that the agent selects, one bit each.
static constexpr uint32_t PORT_EVENTS =
    1U << LSM_EVENT_ADD | 1U << LSM_EVENT_DELETE | 1U << LSM_EVENT_DEFAULT;
static constexpr uint32_t BRIDGE_EVENTS = 0x7;  // the first three; only LSM_EVENT_BRIDGE_LEAVE acts
static constexpr uint32_t AGGREGATE_EVENTS = 1U << LSM_EVENT_AGGREGATE_MEMBER;
static constexpr uint32_t LAYER_EVENTS = 1U << LSM_EVENT_VSL_CREATE | 1U << LSM_EVENT_VSL_REMOVE;

// Mode of the client in which existing ports are announced.
static constexpr int ANNOUNCE_EXISTING_PORTS = 2;

static constexpr uint32_t AP_JOINED = 0;
static constexpr uint32_t AP_LEFT = 1;

static constexpr uint32_t VSL_CREATED = 1;
static constexpr uint32_t VSL_REMOVED = 0;

// ---- Registration ----

int lda_lsm_init(void) {
    lsm_agent_set_connect_callback(lda_lsm_connect_handle);
    return lsm_agent_init("LDA", g_lda_master) != 0 ? -1 : 0;
}

static void select_type(uint8_t* bitmap, uint32_t type) {
    bitmap[type / 8] = static_cast<uint8_t>(bitmap[type / 8] | 1U << (type % 8));
}

void lda_lsm_connect_handle(void) {
    lsm_client_set_mode(ANNOUNCE_EXISTING_PORTS);
    uint8_t types[LSM_TYPE_BITMAP_BYTES] = {};
    for (uint32_t type = LSM_TYPE_ETHERNET; type <= LSM_TYPE_AGGREGATE; type++) {
        select_type(types, type);
    }
    lsm_client_reg_event_ex(LSM_CLASS_PORT, types, PORT_EVENTS);
    lsm_reg_msg_handler_ex(LSM_CLASS_PORT, lda_lsm_event_handle);
    select_type(types, 5);  // kept on purpose, although the loop has set it
    lsm_client_reg_event_ex(LSM_CLASS_BRIDGE, types, BRIDGE_EVENTS);
    lsm_reg_msg_handler_ex(LSM_CLASS_BRIDGE, lda_lsm_bridge_event_handle);
    lsm_client_reg_event_ex(LSM_CLASS_AGGREGATE, types, AGGREGATE_EVENTS);
    lsm_reg_msg_handler_ex(LSM_CLASS_AGGREGATE, lda_lsm_event_handle);
    lsm_client_reg_event_ex(LSM_CLASS_LAYER, types, LAYER_EVENTS);
    lsm_reg_msg_handler_ex(LSM_CLASS_LAYER, lda_lsm_layer_inline_handle);
    lsm_client_reg_event_over();
}

// ---- Records ----

// Makes the record of a new port and links it. Null when memory runs out.
static lda_intf_t* create_intf(uint32_t ifx) {
    lda_intf_t* record = lda_index<lda_intf_t>::make(ifx);
    if (record == nullptr) {
        APP_ERROR_AS("lda_add_intf", "LDA malloc node error.\n");
        return nullptr;
    }
    const lda_loop_guard guard;
    record->ifx = ifx;
    vl_clnt_get_portmode_by_index(ifx, &record->mode);
    APP_INFO_AS("lda_add_intf", "ifx=%d, type=%d\n", ifx, record->mode);
    lsm_if_get_sname(ifx, record->name, sizeof record->name);
    lda_intf_link(record);
    APP_INFO_AS("lda_add_intf", "+++LDA add intf:ifx=%d, name=%s, intf_num=%d\n", ifx, record->name,
                g_lda_loop_set->intf_num);
    return record;
}

// Makes the delivery thread configure the detection features on a new port.
static void deliver_new_intf(uint32_t ifx) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    if (!cli_ready || policy == LDA_POLICY_DISABLED) {
        return;
    }
    lda_cli_msg_t message = {};
    message.mid = LDA_MID_BOTH;
    message.ifx = ifx;
    message.type = LDA_CLI_MSG_INTF_ENABLE;
    message.new_type = policy;
    message.old_type = policy;
    lda_cli_cmd_send(&message);
    APP_INFO_AS("lda_add_intf", "cli cmd send done: ifx %d, mid %d, msg_type %d.", ifx, message.mid,
                message.type);
}

lda_intf_t* lda_add_intf(uint32_t ifx) {
    if (lda_intf_t* existing = lda_loop_result_get(ifx)) {
        return existing;
    }
    lda_intf_t* record = create_intf(ifx);
    if (record == nullptr) {
        return nullptr;
    }
    deliver_new_intf(ifx);
    if (lda_back_node_lookup(ifx)) {
        APP_INFO("---LDA find backup_node_list :ifx=%d\n", ifx);
        lda_cli_intf_shutdown_by_lda_cmd(ifx, 1);
        lda_back_node_del(ifx);
    }
    return record;
}

void lda_del_intf(uint32_t ifx) {
    const lda_loop_guard guard;
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        return;
    }
    lda_intf_unlink(record);
    lda_intf_release(record);
    APP_INFO("---LDA delete intf:ifx=%d, intf_num=%d\n", ifx, g_lda_loop_set->intf_num);
}

uint32_t lda_get_intf_policy_with_intf(uint32_t ifx) {
    const lda_intf_t* record = lda_loop_result_get(ifx);
    return record != nullptr ? lda_intf_is_shutdown(record) : LDA_NO_INTF;
}

uint32_t lda_get_src_with_intf(uint32_t ifx) {
    const lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        return LDA_NO_INTF;
    }
    return lda_mode_is_shuttable(record->mode) ? 1 : 0;
}

// ---- Ports and aggregate membership ----

static void lda_lsm_ap_mem_chg_proc(const uint32_t* words) {
    const uint32_t change = words[WORD_AP_CHANGE];
    const uint32_t ap_ifx = words[WORD_AP_IFX];
    const uint32_t ifx = words[WORD_AP_MEMBER];
    uint32_t mode = 0;
    swport_get_port_mode(ap_ifx, &mode);
    APP_INFO("type=%d apifx=%d ifx=%d %d %s\n", change, ap_ifx, ifx, mode,
             swport_vlan_mode_name(mode));
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        APP_ERROR("get loop failed, ifx=%d\n", ifx);
        return;
    }
    lda_intf_t proposed = lda_intf_copy(record);
    if (change == AP_JOINED) {
        // Executed here, on the main thread, where lines run inline and wait for nothing. Kept on
        // purpose: the copy was made before these lines changed the record.
        if (lda_loop_detect_ptype_get() != LDA_POLICY_DISABLED) {
            lda_intf_loop_cmd_enable(LDA_MID_TARN, ifx);
        }
        record->mode_arg = static_cast<int32_t>(ap_ifx);
        proposed.mode = mode;
        lda_intf_ret_proc(record, &proposed);
    } else if (change == AP_LEFT) {
        uint32_t own_mode = 0;
        swport_get_port_mode(ifx, &own_mode);
        record->mode = own_mode;
        record->mode_arg = 0;
    }
}

static void default_intf(uint32_t ifx) {
    lda_cli_intf_shutdown_by_lda_cmd(ifx, 0);
    lda_intf_default_config_delivery(LDA_MID_STORM, ifx);
}

void lda_lsm_event_handle(uint32_t event, void* message) {
    if (event == LSM_EVENT_PORT_READY) {
        APP_INFO("lsm port ready");
        lsm_port_ready = 1;
        lda_try_notify_cli_ready();
        return;
    }
    if (message == nullptr) {
        APP_ERROR("LDA:receive lsm event=%d, msgp=NULL\n", event);
        return;
    }
    const auto* words = static_cast<const uint32_t*>(message);
    const uint32_t ifx = words[WORD_IFX];
    if (event == LSM_EVENT_DELETE) {
        APP_INFO("LDA receive lsm delete event %d, intf ifx=%d\n", event, ifx);
        lda_del_intf(ifx);
    } else if (event == LSM_EVENT_ADD) {
        APP_INFO("LDA receive lsm event %d, intf ifx=%d\n", event, ifx);
        lda_add_intf(ifx);
    } else if (event == LSM_EVENT_DEFAULT) {
        APP_INFO("LDA receive lsm default event %d, intf ifx=%d\n", event, ifx);
        default_intf(ifx);
    } else if (event == LSM_EVENT_AGGREGATE_MEMBER) {
        lda_lsm_ap_mem_chg_proc(words);
    }
}

// ---- Bridge membership ----

static void lda_lsm_chg_intf_mode(uint32_t ifx, uint32_t mode) {
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        return;
    }
    record->mode = mode;
    APP_INFO("ifx=%d, mode=%d\n", ifx, mode);
}

void lda_lsm_bridge_event_handle(uint32_t event, void* message) {
    APP_INFO("event = %d\n", event);
    if (event == LSM_EVENT_PORT_READY) {
        return;
    }
    if (message == nullptr) {
        APP_ERROR("LDA:receive lsm event=%d, msgp=NULL\n", event);
        return;
    }
    if (event != LSM_EVENT_BRIDGE_LEAVE) {
        return;
    }
    const uint32_t ifx = static_cast<const uint32_t*>(message)[WORD_IFX];
    APP_INFO("LDA receive lsm bridge delete event %d, intf ifx=%d\n", event, ifx);
    lda_lsm_chg_intf_mode(ifx, SWPORT_MODE_NONE);
    const bridge_mode_change change = {.ifx = ifx, .mode = SWPORT_MODE_NONE};
    lda_intf_mod_change(&change);
}

// ---- Virtual-switch links ----

static void lda_vsl_convert_proc(uint32_t ifx, uint32_t state) {
    APP_WARN("VSL convert proc: ifx is %d , vsl stats is %d", ifx, state);
    if (state == VSL_REMOVED) {
        lda_intf_t* record = lda_add_intf(ifx);
        if (record == nullptr) {
            APP_ERROR("lda add intf ifx %d failed.", ifx);
            return;
        }
        record->vsl_member = 0;
        return;
    }
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (record == nullptr) {
        APP_INFO("get loop failed, READD ifx=%d\n", ifx);
        return;
    }
    lda_intf_t proposed = lda_intf_copy(record);
    lda_intf_forget_results(record);
    proposed.total_result = 0;
    proposed.is_shutdown = 0;
    proposed.mode = SWPORT_MODE_NONE;
    lda_intf_ret_proc(record, &proposed);
    record->vsl_member = 1;
}

// Removes a port that has become a virtual-switch-link port from detection.
static void remove_vsl_port(uint32_t ifx) {
    lda_del_intf(ifx);
    uint32_t phyid = 0;
    if (libddm_get_phyid_by_ifx(ifx, &phyid) != 0) {
        APP_ERROR_AS("lda_lsm_layer_inline_handle", "ifx (%d) convert is failed", ifx);
        return;
    }
    if (storm_del_storm_detect(phyid) != 0) {
        APP_ERROR_AS("lda_lsm_layer_inline_handle", "del storm detect failed. phyid = %u", phyid);
        return;
    }
    storm_del_list(ifx);
    APP_INFO_AS("lda_lsm_layer_inline_handle", "vsl port %d, del storm detect done.", ifx);
}

static void vsl_created(uint32_t ifx) {
    lda_vsl_convert_proc(ifx, VSL_CREATED);
    if (lda_loop_detect_ptype_get() != LDA_POLICY_DISABLED) {
        remove_vsl_port(ifx);
    } else {
        APP_INFO_AS("lda_lsm_layer_inline_handle", "loop-detect is not activated.");
    }
}

void lda_lsm_layer_inline_handle(uint32_t event, void* message) {
    if (message == nullptr) {
        return;
    }
    APP_WARN("GET vsl information: %s",
             event == LSM_EVENT_VSL_CREATE ? "create vsl" : "remove vsl");
    if (!cli_ready) {
        APP_WARN("cli is not ready.");
        return;
    }
    const auto* words = static_cast<const uint32_t*>(message);
    const lda_loop_guard guard;
    if (event == LSM_EVENT_VSL_CREATE && words[WORD_LAYER_FLAGS] & LSM_LAYER_FLAG_VSL) {
        vsl_created(words[WORD_IFX]);
    } else if (event == LSM_EVENT_VSL_REMOVE) {
        lda_vsl_convert_proc(words[WORD_IFX], VSL_REMOVED);
    }
}
