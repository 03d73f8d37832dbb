// Registration of the commands, their handlers, and the agent's part of the running configuration.
//
// Main thread only, inside the CLI framework's dispatch. The policy handlers and the apply handler
// hold the loop lock throughout. A handler is called for execution and for generation and tells
// them apart by the context's flags. The trees are in lda_cli_tree.cpp.
#include "lda_cli.h"

#include <cstring>

#include <qv/lsm.h>
#include <qv/syslog.h>
#include "app_cli_nodes.h"
#include "app_debug.h"
#include "lda_cli_policy.h"
#include "lda_cli_post.h"
#include "lda_debug.h"
#include "lda_main.h"
#include "lda_state.h"

// Interface types of a range for which the interface commands are offered.
static constexpr uint32_t IFRANGE_TYPE_MASK = 0x18050187;

// Result of a handler that has nothing to write.
static constexpr int NOTHING_TO_WRITE = 18;

// ---- Registration ----

int lda_cli_init(void) {
    if (cli_client_init("LDA", g_lda_master) != 0) {
        return -1;
    }
    cli_add_param_reload_start_hook(lda_cli_reload_start_handle);
    cli_add_param_reload_end_hook(lda_cli_reload_end_handle);
    cli_interface_show_run_hook(libproxy_cli_interface_walk);
    lda_cmd_init();
    lda_debug_cmd_init();
    return 0;
}

void lda_cmd_init(void) {
    cli_add_command(CLI_CHAIN_INTERFACE, &Tcfg_loop_detect_apply_cmd,
                    "show loop detect apply shutdown");
    cli_add_command(CLI_CHAIN_CONFIG, &Tcfg_loop_detect_cmd, "cfg loop detect");
    cli_add_command(CLI_CHAIN_SHOW, &Tshow_loop_detect_cmd, "show loop detect");
}

// ---- Policy ----

// Writes the line of the current policy, whichever policy's handler calls it.
static void write_policy_line(cli_pcdb* pcdb) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO_AS("lda_policy_set", "su=%d", policy);
    switch (policy) {
        case LDA_POLICY_WARNING:
            c2p_printf(pcdb, 1, "loop-detect enable");
            break;
        case LDA_POLICY_SHUT_ACCESS:
            c2p_printf(pcdb, 1, "loop-detect enable shutdown access-mode");
            break;
        case LDA_POLICY_SHUT_HYBRID:
            c2p_printf(pcdb, 1, "loop-detect enable shutdown hybrid-mode");
            break;
        case LDA_POLICY_SHUT_ACCESS_HYBRID:
            c2p_printf(pcdb, 1, "loop-detect enable shutdown access-hybrid-mode");
            break;
        default:
            APP_INFO_AS("lda_policy_set", "show nothing");
            break;
    }
}

void lda_policy_set(cli_pcdb* pcdb, uint32_t policy) {
    const uint32_t value = app_cli_has_no(pcdb) ? LDA_POLICY_DISABLED : policy;
    APP_INFO("enter type=%d, pcdb=%lu", value, pcdb->flags);
    if (app_cli_is_generating(pcdb)) {
        write_policy_line(pcdb);
    } else {
        lda_cli_policy_set(value);
    }
}

int cfg_lda_cli_warning_command(cli_pcdb* pcdb) {
    APP_INFO("enter");
    const lda_loop_guard guard;
    lda_policy_set(pcdb, LDA_POLICY_WARNING);
    return 0;
}

int cfg_lda_cli_shutdown_access_command(cli_pcdb* pcdb) {
    APP_INFO("enter");
    const lda_loop_guard guard;
    lda_policy_set(pcdb, LDA_POLICY_SHUT_ACCESS);
    return 0;
}

int cfg_lda_cli_shutdown_hybrid_command(cli_pcdb* pcdb) {
    APP_INFO("enter");
    const lda_loop_guard guard;
    lda_policy_set(pcdb, LDA_POLICY_SHUT_HYBRID);
    return 0;
}

int cfg_lda_cli_shutdown_access_hybrid_command(cli_pcdb* pcdb) {
    APP_INFO("enter");
    const lda_loop_guard guard;
    lda_policy_set(pcdb, LDA_POLICY_SHUT_ACCESS_HYBRID);
    return 0;
}

int cfg_lda_loop_detect_enable_command(cli_pcdb* pcdb) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO("enter type=%d, pcdb=%lu", policy, pcdb->flags);
    if (!app_cli_is_generating(pcdb)) {
        lda_loop_detect_disable();
        return 0;
    }
    if (policy == LDA_POLICY_DISABLED) {
        return NOTHING_TO_WRITE;
    }
    c2p_printf(pcdb, 1, "loop-detect enable");
    return 0;
}

// ---- Recovery time ----

int cfg_lda_cli_recover_command(cli_pcdb* pcdb) {
    if (app_cli_is_generating(pcdb)) {
        const lda_recover_time_t& recover = g_lda_recover_time;
        if (recover.time != LDA_RECOVER_TIME_DEFAULT_S && recover.enabled == 1) {
            c2p_printf(pcdb, 1, "loop-detect shutdown-recover-time %d\n", recover.time);
        }
        return 0;
    }
    const auto number = static_cast<uint32_t>(pcdb->number[0]);
    lda_cli_recover_time_set(app_cli_has_no(pcdb) ? LDA_RECOVER_TIME_DEFAULT_S : number, 1);
    APP_INFO("loop-detect shutdown-recover-time %d", number);
    return 0;
}

// ---- Ports shut down by loop detection ----

static void write_apply_line(cli_pcdb* pcdb, uint32_t ifx) {
    const lda_intf_t* record = lda_loop_result_get(ifx);
    const uint8_t is_shutdown = record != nullptr ? lda_intf_is_shutdown(record) : 0;
    APP_INFO_AS("cfg_lda_cli_apply_shutdown_command_int", "port is %d, shutdown =%d", ifx,
                is_shutdown);
    if (is_shutdown == 1) {
        c2p_printf(pcdb, 1, "loop-detect apply shutdown-port");
    }
}

static void cfg_lda_cli_apply_shutdown_command_int(cli_pcdb* pcdb) {
    const lda_loop_guard guard;
    APP_INFO("enter");
    const auto ifx = static_cast<uint32_t>(pcdb->ifx);
    if (app_cli_is_generating(pcdb)) {
        write_apply_line(pcdb, ifx);
        return;
    }
    if (lda_loop_detect_ptype_get() == LDA_POLICY_DISABLED) {
        printk_syslog_ext(
            SYSLOG_SEVERITY_ERROR, "LOOP_DETECT", "ERROR",
            "loop-detect shutdown-port policy can not be applied while loop-detect is "
            "disabled.\n\r\n");
        return;
    }
    const bool release = app_cli_has_no(pcdb);
    lda_cli_intf_shutdown_by_lda_cmd(ifx, release ? 0 : 1);
    APP_INFO("port %d is %s", ifx, release ? "no_shutdown" : "shutdown");
}

int cfg_lda_cli_apply_shutdown_command(cli_pcdb* pcdb) {
    APP_INFO("commnad cli_apply_shutdown=%lu", static_cast<unsigned long>(pcdb->ifx));
    cfg_lda_cli_apply_shutdown_command_int(pcdb);
    return 0;
}

int testfunc_cfg_loop_detect_apply_shutdown_kw(cli_pcdb* pcdb) {
    return lda_cfg_intf_mode_select(pcdb);
}

int lda_cfg_intf_mode_select(cli_pcdb* pcdb) {
    if (strcmp(pcdb->mode, "ifrange") == 0) {
        return (pcdb->ifrange_types & IFRANGE_TYPE_MASK) != 0 ? 1 : 0;
    }
    const auto ifx = static_cast<uint32_t>(pcdb->ifx);
    const lsm_intfcb* control = lsm_get_intfcb(ifx);
    if (control != nullptr && control->flags & LSM_INTFCB_FLAG_SWITCHPORT) {
        return 1;
    }
    const uint32_t type = lsm_if_get_type(ifx);
    return type >= LSM_TYPE_ETHERNET && type <= LSM_TYPE_AGGREGATE ? 1 : 0;
}

// ---- Interface sections of the running configuration ----

int libproxy_cli_interface_walk(cli_pcdb* pcdb) {
    return lsm_walk_through_ex(libproxy_lsm_walk_handler, pcdb);
}

int libproxy_lsm_walk_handler(uint32_t ifx, void* arg) {
    if (lsm_if_get_flags(ifx) & LSM_IF_FLAG_HIDDEN) {
        return 0;
    }
    auto* pcdb = static_cast<cli_pcdb*>(arg);
    char name[LDA_NAME_BYTES] = {};
    lsm_if_get_sname(ifx, name, sizeof name);
    c2p_printf(pcdb, 0, "interface %s", name);
    pcdb->ifx = ifx;
    cli_change_mode(pcdb, "interface");
    cli_walkthrought_node(cli_get_mode_root("interface"), pcdb);
    cli_change_mode(pcdb, "config");
    c2p_printf(pcdb, 0, "!");
    return 0;
}
