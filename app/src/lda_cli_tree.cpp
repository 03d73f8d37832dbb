// Command trees of the agent: static parse nodes with their argument blocks.
//
// Constant data, walked by the CLI framework on the main thread. A node names its action, its
// block, the node taken when the action matches and the one tried when it does not.
#include "app_cli_nodes.h"
#include "lda_cli.h"
#include "lda_cli_show.h"

// ---- Global configuration: "loop-detect ..." ----

const cli_node Tcfg_loop_detect_cmd = {append_point_action, nullptr, &Tcfg_loop_detect_kw, &Tno_alt,
                                       nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_kw =
    app_keyword("loop-detect", "loop detect config");
const cli_node Tcfg_loop_detect_kw = {common_keyword_action, &Scfg_loop_detect_kw,
                                      &Tcfg_loop_detect_enable_kw, &Tno_alt, nullptr};

// "enable [shutdown POLICY]". After "no" any of the forms disables detection.
static constexpr cli_keyword_arg Scfg_loop_detect_enable_kw =
    app_keyword("enable", "open loop detect");
const cli_node Tcfg_loop_detect_enable_kw = {common_keyword_action, &Scfg_loop_detect_enable_kw,
                                             &Tcfg_loop_detect_shutdown_kw,
                                             &Tcfg_loop_detect_recover_kw, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_shutdown_kw = app_keyword("shutdown", "shutdown");
const cli_node Tcfg_loop_detect_shutdown_kw = {common_keyword_action, &Scfg_loop_detect_shutdown_kw,
                                               &Tcfg_loop_detect_enable_access_kw,
                                               &Tcfg_loop_detect_enable_no, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_enable_access_kw =
    app_keyword("access-mode", "add shutdown policy to access port");
const cli_node Tcfg_loop_detect_enable_access_kw = {
    common_keyword_action, &Scfg_loop_detect_enable_access_kw, &Tcfg_loop_detect_enable_access_eol,
    &Tcfg_loop_detect_enable_hybrid_kw, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_enable_access_eol = {
    1, cfg_lda_cli_shutdown_access_command};
const cli_node Tcfg_loop_detect_enable_access_eol = {
    eol_action, &Scfg_loop_detect_enable_access_eol, nullptr, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_enable_hybrid_kw =
    app_keyword("hybrid-mode", "add shutdown policy to hybrid port");
const cli_node Tcfg_loop_detect_enable_hybrid_kw = {
    common_keyword_action, &Scfg_loop_detect_enable_hybrid_kw, &Tcfg_loop_detect_enable_hybrid_eol,
    &Tcfg_loop_detect_enable_access_hybrid, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_enable_hybrid_eol = {
    1, cfg_lda_cli_shutdown_hybrid_command};
const cli_node Tcfg_loop_detect_enable_hybrid_eol = {
    eol_action, &Scfg_loop_detect_enable_hybrid_eol, nullptr, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_enable_access_hybrid =
    app_keyword("access-hybrid-mode", "add shutdown policy to access and hybrid port");
const cli_node Tcfg_loop_detect_enable_access_hybrid = {
    common_keyword_action, &Scfg_loop_detect_enable_access_hybrid,
    &Tcfg_loop_detect_enable_access_hybrid_eol, &Tno_alt, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_enable_access_hybrid_eol = {
    1, cfg_lda_cli_shutdown_access_hybrid_command};
const cli_node Tcfg_loop_detect_enable_access_hybrid_eol = {
    eol_action, &Scfg_loop_detect_enable_access_hybrid_eol, nullptr, &Tno_alt, nullptr};
const cli_node Tcfg_loop_detect_enable_no = {noprefix_action, nullptr, &Tcfg_loop_detect_enable_eol,
                                             &Tcfg_loop_detect_enable_c2p, nullptr};
static constexpr cli_c2p_arg Scfg_loop_detect_enable_c2p = {cfg_lda_cli_warning_command};
const cli_node Tcfg_loop_detect_enable_c2p = {c2p_action, &Scfg_loop_detect_enable_c2p,
                                              &Tcfg_loop_detect_enable_eol, &Tno_alt, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_enable_eol = {1, cfg_lda_cli_warning_command};
const cli_node Tcfg_loop_detect_enable_eol = {eol_action, &Scfg_loop_detect_enable_eol, nullptr,
                                              &Tno_alt, nullptr};

// "shutdown-recover-time SECONDS"
static constexpr cli_keyword_arg Scfg_loop_detect_recover_kw =
    app_keyword("shutdown-recover-time", "shutdown recover");
const cli_node Tcfg_loop_detect_recover_kw = {common_keyword_action, &Scfg_loop_detect_recover_kw,
                                              &Tcfg_loop_detect_recover_c2p, &Tno_alt, nullptr};
static constexpr cli_c2p_arg Scfg_loop_detect_recover_c2p = {cfg_lda_cli_recover_command};
const cli_node Tcfg_loop_detect_recover_c2p = {c2p_action, &Scfg_loop_detect_recover_c2p,
                                               &Tcfg_loop_detect_recover_no, &Tno_alt, nullptr};
const cli_node Tcfg_loop_detect_recover_no = {noprefix_action, nullptr,
                                              &Tcfg_loop_detect_recover_eol,
                                              &Tcfg_loop_detect_recover_num, nullptr};
static constexpr cli_number_arg Scfg_loop_detect_recover_num =
    app_number("shutdown recover time, default: 300s", 90, 1000000);
const cli_node Tcfg_loop_detect_recover_num = {common_number_action, &Scfg_loop_detect_recover_num,
                                               &Tcfg_loop_detect_recover_eol, &Tno_alt, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_recover_eol = {1, cfg_lda_cli_recover_command};
const cli_node Tcfg_loop_detect_recover_eol = {eol_action, &Scfg_loop_detect_recover_eol, nullptr,
                                               &Tno_alt, nullptr};

// ---- Interface configuration: "loop-detect apply shutdown-port" ----

const cli_node Tcfg_loop_detect_apply_cmd = {
    append_point_action, nullptr, &Tcfg_loop_detect_apply_shutdown_kw, &Tno_alt, nullptr};
static constexpr cli_test_arg Scfg_loop_detect_apply_shutdown_kw = {
    &Tcfg_loop_detect_loop_kw, &Tno_alt, testfunc_cfg_loop_detect_apply_shutdown_kw};
const cli_node Tcfg_loop_detect_apply_shutdown_kw = {test_expression_action,
                                                     &Scfg_loop_detect_apply_shutdown_kw,
                                                     &Tcfg_loop_detect_loop_kw, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_loop_kw =
    app_keyword("loop-detect", "loop detect config", APP_KEYWORD_INTERFACE);
const cli_node Tcfg_loop_detect_loop_kw = {common_keyword_action, &Scfg_loop_detect_loop_kw,
                                           &Tcfg_loop_detect_apply_kw, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_apply_kw =
    app_keyword("apply", "apply policy", APP_KEYWORD_INTERFACE);
const cli_node Tcfg_loop_detect_apply_kw = {common_keyword_action, &Scfg_loop_detect_apply_kw,
                                            &Tcfg_loop_detect_shutdown_port_kw, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_shutdown_port_kw =
    app_keyword("shutdown-port", "exec shutdown policy", APP_KEYWORD_INTERFACE);
const cli_node Tcfg_loop_detect_shutdown_port_kw = {
    common_keyword_action, &Scfg_loop_detect_shutdown_port_kw, &Tcfg_loop_detect_shutdown_c2p,
    &Tno_alt, nullptr};
static constexpr cli_c2p_arg Scfg_loop_detect_shutdown_c2p = {cfg_lda_cli_apply_shutdown_command};
const cli_node Tcfg_loop_detect_shutdown_c2p = {c2p_action, &Scfg_loop_detect_shutdown_c2p,
                                                &Tcfg_loop_detect_shutdown_no, &Tno_alt, nullptr};
const cli_node Tcfg_loop_detect_shutdown_no = {noprefix_action, nullptr,
                                               &Tcfg_loop_detect_shutdown_no_eol,
                                               &Tcfg_loop_detect_shutdown_def, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_shutdown_no_eol = {
    1, cfg_lda_cli_apply_shutdown_command};
const cli_node Tcfg_loop_detect_shutdown_no_eol = {eol_action, &Scfg_loop_detect_shutdown_no_eol,
                                                   nullptr, &Tno_alt, nullptr};
const cli_node Tcfg_loop_detect_shutdown_def = {defaultprefix_action, nullptr,
                                                &Tcfg_loop_detect_shutdown_def_eol,
                                                &Tcfg_loop_detect_shutdown_eol, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_shutdown_def_eol = {
    1, cfg_lda_cli_apply_shutdown_command};
const cli_node Tcfg_loop_detect_shutdown_def_eol = {eol_action, &Scfg_loop_detect_shutdown_def_eol,
                                                    nullptr, &Tno_alt, nullptr};
static constexpr cli_eol_arg Scfg_loop_detect_shutdown_eol = {1,
                                                              cfg_lda_cli_apply_shutdown_command};
const cli_node Tcfg_loop_detect_shutdown_eol = {eol_action, &Scfg_loop_detect_shutdown_eol, nullptr,
                                                &Tno_alt, nullptr};

// ---- "show loop-detect [detail]" ----

const cli_node Tshow_loop_detect_cmd = {append_point_action, nullptr,
                                        &Tshow_loop_detect_detail_interface_kw, &Tno_alt, nullptr};
static constexpr cli_keyword_arg Sshow_loop_detect_detail_interface_kw =
    app_keyword("loop-detect", "loop detect interface");
const cli_node Tshow_loop_detect_detail_interface_kw = {
    common_keyword_action, &Sshow_loop_detect_detail_interface_kw, &Tcfg_loop_detect_detail_kw,
    &Tno_alt, nullptr};
static constexpr cli_keyword_arg Scfg_loop_detect_detail_kw =
    app_keyword("detail", "detail info", APP_KEYWORD_DETAIL);
const cli_node Tcfg_loop_detect_detail_kw = {common_keyword_action, &Scfg_loop_detect_detail_kw,
                                             &Tshow_loop_detect_detail_eol, &Tshow_loop_detect_eol,
                                             nullptr};
static constexpr cli_eol_arg Sshow_loop_detect_detail_eol = {1,
                                                             lda_show_loop_detect_detail_command};
const cli_node Tshow_loop_detect_detail_eol = {eol_action, &Sshow_loop_detect_detail_eol, nullptr,
                                               &Tno_alt, nullptr};
static constexpr cli_eol_arg Sshow_loop_detect_eol = {1, lda_show_loop_detect_command};
const cli_node Tshow_loop_detect_eol = {eol_action, &Sshow_loop_detect_eol, nullptr, &Tno_alt,
                                        nullptr};
