// Command trees of the agent: static parse nodes with their argument blocks.
//
// Constant data, walked by the CLI framework on the main thread. Each row is a node T... over its
// block S...: first the node to take when it matches, then the one to try when it does not. A row
// only names rows above it, so a tree begins with its leaves and ends with its root.
#include "app_cli_nodes.h"
#include "lda_cli.h"
#include "lda_cli_show.h"

// ---- Global configuration: "loop-detect ..." ----

// "shutdown-recover-time SECONDS"
constexpr auto Scfg_loop_detect_recover_eol = app_end(cfg_lda_cli_recover_command);
constexpr auto Tcfg_loop_detect_recover_eol = app_node(Scfg_loop_detect_recover_eol);
constexpr auto Scfg_loop_detect_recover_num =
    app_number("shutdown recover time, default: 300s", 90, 1000000);
constexpr auto Tcfg_loop_detect_recover_num =
    app_node(Scfg_loop_detect_recover_num, Tcfg_loop_detect_recover_eol);
constexpr auto Tcfg_loop_detect_recover_no =
    app_no_prefix(Tcfg_loop_detect_recover_eol, Tcfg_loop_detect_recover_num);
constexpr auto Scfg_loop_detect_recover_c2p = app_print(cfg_lda_cli_recover_command);
constexpr auto Tcfg_loop_detect_recover_c2p =
    app_node(Scfg_loop_detect_recover_c2p, Tcfg_loop_detect_recover_no);
constexpr auto Scfg_loop_detect_recover_kw =
    app_keyword("shutdown-recover-time", "shutdown recover");
constexpr auto Tcfg_loop_detect_recover_kw =
    app_node(Scfg_loop_detect_recover_kw, Tcfg_loop_detect_recover_c2p);

// "enable [shutdown POLICY]". After "no" any of the forms disables detection.
constexpr auto Scfg_loop_detect_enable_eol = app_end(cfg_lda_cli_warning_command);
constexpr auto Tcfg_loop_detect_enable_eol = app_node(Scfg_loop_detect_enable_eol);
constexpr auto Scfg_loop_detect_enable_c2p = app_print(cfg_lda_cli_warning_command);
constexpr auto Tcfg_loop_detect_enable_c2p =
    app_node(Scfg_loop_detect_enable_c2p, Tcfg_loop_detect_enable_eol);
constexpr auto Tcfg_loop_detect_enable_no =
    app_no_prefix(Tcfg_loop_detect_enable_eol, Tcfg_loop_detect_enable_c2p);
constexpr auto Scfg_loop_detect_enable_access_hybrid_eol =
    app_end(cfg_lda_cli_shutdown_access_hybrid_command);
constexpr auto Tcfg_loop_detect_enable_access_hybrid_eol =
    app_node(Scfg_loop_detect_enable_access_hybrid_eol);
constexpr auto Scfg_loop_detect_enable_access_hybrid =
    app_keyword("access-hybrid-mode", "add shutdown policy to access and hybrid port");
constexpr auto Tcfg_loop_detect_enable_access_hybrid =
    app_node(Scfg_loop_detect_enable_access_hybrid, Tcfg_loop_detect_enable_access_hybrid_eol);
constexpr auto Scfg_loop_detect_enable_hybrid_eol = app_end(cfg_lda_cli_shutdown_hybrid_command);
constexpr auto Tcfg_loop_detect_enable_hybrid_eol = app_node(Scfg_loop_detect_enable_hybrid_eol);
constexpr auto Scfg_loop_detect_enable_hybrid_kw =
    app_keyword("hybrid-mode", "add shutdown policy to hybrid port");
constexpr auto Tcfg_loop_detect_enable_hybrid_kw =
    app_node(Scfg_loop_detect_enable_hybrid_kw, Tcfg_loop_detect_enable_hybrid_eol,
             Tcfg_loop_detect_enable_access_hybrid);
constexpr auto Scfg_loop_detect_enable_access_eol = app_end(cfg_lda_cli_shutdown_access_command);
constexpr auto Tcfg_loop_detect_enable_access_eol = app_node(Scfg_loop_detect_enable_access_eol);
constexpr auto Scfg_loop_detect_enable_access_kw =
    app_keyword("access-mode", "add shutdown policy to access port");
constexpr auto Tcfg_loop_detect_enable_access_kw =
    app_node(Scfg_loop_detect_enable_access_kw, Tcfg_loop_detect_enable_access_eol,
             Tcfg_loop_detect_enable_hybrid_kw);
constexpr auto Scfg_loop_detect_shutdown_kw = app_keyword("shutdown", "shutdown");
constexpr auto Tcfg_loop_detect_shutdown_kw = app_node(
    Scfg_loop_detect_shutdown_kw, Tcfg_loop_detect_enable_access_kw, Tcfg_loop_detect_enable_no);
constexpr auto Scfg_loop_detect_enable_kw = app_keyword("enable", "open loop detect");
constexpr auto Tcfg_loop_detect_enable_kw =
    app_node(Scfg_loop_detect_enable_kw, Tcfg_loop_detect_shutdown_kw, Tcfg_loop_detect_recover_kw);

constexpr auto Scfg_loop_detect_kw = app_keyword("loop-detect", "loop detect config");
constexpr auto Tcfg_loop_detect_kw = app_node(Scfg_loop_detect_kw, Tcfg_loop_detect_enable_kw);
const cli_node Tcfg_loop_detect_cmd = app_root(Tcfg_loop_detect_kw);

// ---- Interface configuration: "loop-detect apply shutdown-port" ----

constexpr auto Scfg_loop_detect_shutdown_eol = app_end(cfg_lda_cli_apply_shutdown_command);
constexpr auto Tcfg_loop_detect_shutdown_eol = app_node(Scfg_loop_detect_shutdown_eol);
constexpr auto Scfg_loop_detect_shutdown_def_eol = app_end(cfg_lda_cli_apply_shutdown_command);
constexpr auto Tcfg_loop_detect_shutdown_def_eol = app_node(Scfg_loop_detect_shutdown_def_eol);
constexpr auto Tcfg_loop_detect_shutdown_def =
    app_default_prefix(Tcfg_loop_detect_shutdown_def_eol, Tcfg_loop_detect_shutdown_eol);
constexpr auto Scfg_loop_detect_shutdown_no_eol = app_end(cfg_lda_cli_apply_shutdown_command);
constexpr auto Tcfg_loop_detect_shutdown_no_eol = app_node(Scfg_loop_detect_shutdown_no_eol);
constexpr auto Tcfg_loop_detect_shutdown_no =
    app_no_prefix(Tcfg_loop_detect_shutdown_no_eol, Tcfg_loop_detect_shutdown_def);
constexpr auto Scfg_loop_detect_shutdown_c2p = app_print(cfg_lda_cli_apply_shutdown_command);
constexpr auto Tcfg_loop_detect_shutdown_c2p =
    app_node(Scfg_loop_detect_shutdown_c2p, Tcfg_loop_detect_shutdown_no);
constexpr auto Scfg_loop_detect_shutdown_port_kw =
    app_keyword("shutdown-port", "exec shutdown policy", APP_KEYWORD_INTERFACE);
constexpr auto Tcfg_loop_detect_shutdown_port_kw =
    app_node(Scfg_loop_detect_shutdown_port_kw, Tcfg_loop_detect_shutdown_c2p);
constexpr auto Scfg_loop_detect_apply_kw =
    app_keyword("apply", "apply policy", APP_KEYWORD_INTERFACE);
constexpr auto Tcfg_loop_detect_apply_kw =
    app_node(Scfg_loop_detect_apply_kw, Tcfg_loop_detect_shutdown_port_kw);
constexpr auto Scfg_loop_detect_loop_kw =
    app_keyword("loop-detect", "loop detect config", APP_KEYWORD_INTERFACE);
constexpr auto Tcfg_loop_detect_loop_kw =
    app_node(Scfg_loop_detect_loop_kw, Tcfg_loop_detect_apply_kw);
constexpr auto Scfg_loop_detect_apply_shutdown_kw =
    app_test(Tcfg_loop_detect_loop_kw, testfunc_cfg_loop_detect_apply_shutdown_kw);
constexpr auto Tcfg_loop_detect_apply_shutdown_kw = app_node(Scfg_loop_detect_apply_shutdown_kw);
const cli_node Tcfg_loop_detect_apply_cmd = app_root(Tcfg_loop_detect_apply_shutdown_kw);

// ---- "show loop-detect [detail]" ----

constexpr auto Sshow_loop_detect_eol = app_end(lda_show_loop_detect_command);
constexpr auto Tshow_loop_detect_eol = app_node(Sshow_loop_detect_eol);
constexpr auto Sshow_loop_detect_detail_eol = app_end(lda_show_loop_detect_detail_command);
constexpr auto Tshow_loop_detect_detail_eol = app_node(Sshow_loop_detect_detail_eol);
constexpr auto Scfg_loop_detect_detail_kw =
    app_keyword("detail", "detail info", APP_KEYWORD_DETAIL);
constexpr auto Tcfg_loop_detect_detail_kw =
    app_node(Scfg_loop_detect_detail_kw, Tshow_loop_detect_detail_eol, Tshow_loop_detect_eol);
constexpr auto Sshow_loop_detect_detail_interface_kw =
    app_keyword("loop-detect", "loop detect interface");
constexpr auto Tshow_loop_detect_detail_interface_kw =
    app_node(Sshow_loop_detect_detail_interface_kw, Tcfg_loop_detect_detail_kw);
const cli_node Tshow_loop_detect_cmd = app_root(Tshow_loop_detect_detail_interface_kw);
