// Diagnostics commands. Everything runs on the main thread and only reads the loop set; the table
// is walked without the loop lock, because records are only added and removed on this thread.
#include "lda_debug.h"

#include <qv/bridge.h>
#include "app_cli_debug.h"
#include "app_cli_nodes.h"
#include "app_debug.h"
#include "app_shared.h"
#include "lda_msg.h"

static constexpr int32_t SECONDS_PER_MINUTE = 60;

// Operations of the debug switch.
static constexpr int DEBUG_ON = 1;
static constexpr int DEBUG_OFF = 2;
static constexpr int DEBUG_STATUS = 3;
static constexpr int32_t SLOG_LEVEL_DEBUG = 3;

const char* detect_intf_policy_name(uint32_t policy) {
    return policy == 0 ? "warning" : "shutdown";
}

const char* detect_intf_status(uint8_t is_shutdown) {
    if (lda_loop_detect_ptype_get() == LDA_POLICY_DISABLED) {
        return "normal";
    }
    return is_shutdown ? "shutdown" : "warning";
}

const char* detect_state_to_dsp(uint8_t state) {
    return state ? "loop" : "normal";
}

const char* client_to_str(uint32_t source) {
    if (source == LDA_SOURCE_TARN) {
        return "tarn";
    }
    return source == LDA_SOURCE_STORM ? "storm" : "Error";
}

int exec_lda_clear_interval_debug(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    g_lda_clear_interval = static_cast<int32_t>(pcdb->number[0]) * SECONDS_PER_MINUTE;
    return 0;
}

static void print_result_line(const lda_intf_t* record) {
    cli_printf("%-7d%-32s%-14s%-14s%-13s%-10s%s %d\n", record->ifx, record->name,
               detect_state_to_dsp(record->total_result), detect_state_to_dsp(record->tarn_result),
               detect_state_to_dsp(record->storm_result),
               detect_intf_status(lda_intf_is_shutdown(record)),
               swport_vlan_mode_name(record->mode), record->mode_arg);
}

int exec_show_lda_result(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    const uint32_t policy = lda_loop_detect_ptype_get();
    cli_printf("loop-detect state: %s\n", policy != LDA_POLICY_DISABLED ? "enable" : "disable");
    cli_printf("loop-detect policy: %d\n", policy);
    cli_printf("loop-detect clear interval: %d(s)\n\n", g_lda_clear_interval);
    cli_printf("loop-detect shutdown-recover-time: %d(s)\n\n", lda_cli_recover_time_get());
    cli_printf("loop-detect intf_num: %d, loop_num=%d\n\n", g_lda_loop_set->intf_num,
               g_lda_loop_set->loop_num);
    cli_printf(
        "ifx      interface  name\t     total-state   tarn-state   storm-state     status     "
        "mode\r\n");
    for (const lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        print_result_line(&record);
    }
    return 0;
}

static void print_debug_status() {
    const int32_t level = app_shared_get(g_dbg_slog_level);
    if (level < 1) {
        return;
    }
    cli_printf("lda debugging status:\n");
    cli_printf("    current syslog count is %d.\n", app_shared_get(g_dbg_slog_cnt));
    cli_printf("    the maximum of syslog is %d.\n", app_shared_get(g_dbg_slog_max));
    cli_printf("    debug slog level: %s\n", app_slog_level_name(level));
}

void lda_debug_ctrl(int operation) {
    if (operation == DEBUG_ON) {
        app_shared_set(g_dbg_slog_level, SLOG_LEVEL_DEBUG);
    } else if (operation == DEBUG_OFF) {
        app_shared_set(g_dbg_slog_level, 0);
    } else if (operation == DEBUG_STATUS) {
        print_debug_status();
    }
}

// "debug lda clear-interval N"
constexpr auto Slda_debug_clear_interval_eol = app_end(exec_lda_clear_interval_debug);
constexpr auto Tlda_debug_clear_interval_eol = app_node(Slda_debug_clear_interval_eol);
constexpr auto Slda_debug_clear_interval_num = app_number("clear interval number", 1, 5);
constexpr auto Tlda_debug_clear_interval_num =
    app_node(Slda_debug_clear_interval_num, Tlda_debug_clear_interval_eol);
constexpr auto Slda_debug_clear_interval_kw =
    app_keyword("clear-interval", "result clear interval");
constexpr auto Tlda_debug_clear_interval_kw =
    app_node(Slda_debug_clear_interval_kw, Tlda_debug_clear_interval_num);
constexpr auto Slda_debug_interval_lda_kw = app_keyword("lda", "Loop-detect administrator");
constexpr auto Tlda_debug_interval_lda_kw =
    app_node(Slda_debug_interval_lda_kw, Tlda_debug_clear_interval_kw);
constexpr auto Tlda_debug_interval_cmd = app_root(Tlda_debug_interval_lda_kw);

// "show lda detect-result"
constexpr auto Sshow_lda_detect_result_eol = app_end(exec_show_lda_result);
constexpr auto Tshow_lda_detect_result_eol = app_node(Sshow_lda_detect_result_eol);
constexpr auto Sshow_lda_detect_result_kw = app_keyword("detect-result", "loop-detect result");
constexpr auto Tshow_lda_detect_result_kw =
    app_node(Sshow_lda_detect_result_kw, Tshow_lda_detect_result_eol);
constexpr auto Sshow_lda_kw = app_keyword("lda", "Loop-detect administrator");
constexpr auto Tshow_lda_kw = app_node(Sshow_lda_kw, Tshow_lda_detect_result_kw);
constexpr auto Tshow_lda_cmd = app_root(Tshow_lda_kw);

void lda_debug_cmd_init(void) {
    cli_add_command(CLI_CHAIN_DEBUG, &Tlda_debug_interval_cmd, "debug lda result clear interval");
    cli_add_command(CLI_CHAIN_DEBUG, &Tapp_dbg_cmd, "debug lda logging status");
    cli_add_command(CLI_CHAIN_SHOW, &Tshow_lda_cmd, "show lda client");
    sys_add_debug("lda-debug", lda_debug_ctrl);
}
