// The parse trees of "storm-loop-detect" and "storm-loop-rate", leaves first, and their
// registration. All nodes are constants; the framework walks them on the main thread.
#include "app_cli_nodes.h"
#include "storm_cli.h"

static constexpr cli_keyword_arg keyword(const char* word, const char* help) {
    return app_keyword(word, help, APP_KEYWORD_INTERFACE);
}

// ---- "storm-loop-detect enable" ----

static const cli_eol_arg Scfg_port_storm_enable_eol = {1, cfg_port_enable_storm};
const cli_node Tcfg_port_storm_enable_eol = {eol_action, &Scfg_port_storm_enable_eol, nullptr,
                                             &Tno_alt, nullptr};

static const cli_eol_arg Scfg_port_enable_def_eol = {1, cfg_port_enable_storm};
const cli_node Tcfg_port_enable_def_eol = {eol_action, &Scfg_port_enable_def_eol, nullptr, &Tno_alt,
                                           nullptr};

static const cli_eol_arg Scfg_port_enable_no_eol = {1, cfg_port_enable_storm};
const cli_node Tcfg_port_enable_no_eol = {eol_action, &Scfg_port_enable_no_eol, nullptr, &Tno_alt,
                                          nullptr};

const cli_node Tcfg_port_enable_def = {defaultprefix_action, nullptr, &Tcfg_port_enable_def_eol,
                                       &Tcfg_port_storm_enable_eol, nullptr};

const cli_node Tcfg_port_enable_no = {noprefix_action, nullptr, &Tcfg_port_enable_no_eol,
                                      &Tcfg_port_enable_def, nullptr};

static const cli_c2p_arg Scfg_port_enable_storm_c2p = {cfg_port_enable_storm};
const cli_node Tcfg_port_enable_storm_c2p = {c2p_action, &Scfg_port_enable_storm_c2p,
                                             &Tcfg_port_enable_no, &Tno_alt, nullptr};

static const cli_keyword_arg Scfg_port_std_storm = keyword("enable", "Set loop detect");
const cli_node Tcfg_port_std_storm = {common_keyword_action, &Scfg_port_std_storm,
                                      &Tcfg_port_enable_storm_c2p, &Tno_alt, nullptr};

static const cli_keyword_arg Scfg_port_std = keyword("storm-loop-detect", "Set storm");
const cli_node Tcfg_port_std = {common_keyword_action, &Scfg_port_std, &Tcfg_port_std_storm,
                                &Tno_alt, nullptr};

static const cli_test_arg testexp_cfg_storm = {&Tcfg_port_std, &Tno_alt, testfunc_cfg_storm};
const cli_node Tcfg_storm = {test_expression_action, &testexp_cfg_storm, &Tcfg_port_std, &Tno_alt,
                             nullptr};

const cli_node Tcfg_port_std_cmd = {append_point_action, nullptr, &Tcfg_storm, &Tno_alt, nullptr};

// ---- "storm-loop-rate ratelimit RATE [burst BURST]" ----

static const cli_eol_arg Scfg_port_storm_limit_burst_eol = {1, cfg_port_set_storm_burst_limit};
const cli_node Tcfg_port_storm_limit_burst_eol = {eol_action, &Scfg_port_storm_limit_burst_eol,
                                                  nullptr, &Tno_alt, nullptr};

static const cli_number_arg Scfg_port_storm_burst_value =
    app_number("burst limit size, default: 1024", 32, 10000, 1);
const cli_node Tcfg_port_storm_burst_value = {common_number_action, &Scfg_port_storm_burst_value,
                                              &Tcfg_port_storm_limit_burst_eol, &Tno_alt, nullptr};

static const cli_eol_arg Scfg_port_ratelimit_eol = {1, cfg_port_set_storm_burst_limit};
const cli_node Tcfg_port_ratelimit_eol = {eol_action, &Scfg_port_ratelimit_eol, nullptr, &Tno_alt,
                                          nullptr};

static const cli_keyword_arg Scfg_port_storm_limit_burst = keyword("burst", "Set burst ratelimit");
const cli_node Tcfg_port_storm_limit_burst = {common_keyword_action, &Scfg_port_storm_limit_burst,
                                              &Tcfg_port_storm_burst_value,
                                              &Tcfg_port_ratelimit_eol, nullptr};

static const cli_number_arg Scfg_port_storm_limit_value =
    app_number("rate limit size, default: 8000", 1, 1000000, 0);
const cli_node Tcfg_port_storm_limit_value = {common_number_action, &Scfg_port_storm_limit_value,
                                              &Tcfg_port_storm_limit_burst, &Tno_alt, nullptr};

static const cli_eol_arg Scfg_port_ratelimit_def_eol = {1, cfg_port_set_storm_burst_limit};
const cli_node Tcfg_port_ratelimit_def_eol = {eol_action, &Scfg_port_ratelimit_def_eol, nullptr,
                                              &Tno_alt, nullptr};

static const cli_eol_arg Scfg_port_ratelimit_no_eol = {1, cfg_port_set_storm_burst_limit};
const cli_node Tcfg_port_ratelimit_no_eol = {eol_action, &Scfg_port_ratelimit_no_eol, nullptr,
                                             &Tno_alt, nullptr};

const cli_node Tcfg_port_ratelimit_def = {defaultprefix_action, nullptr,
                                          &Tcfg_port_ratelimit_def_eol,
                                          &Tcfg_port_storm_limit_value, nullptr};

const cli_node Tcfg_port_ratelimit_no = {noprefix_action, nullptr, &Tcfg_port_ratelimit_no_eol,
                                         &Tcfg_port_ratelimit_def, nullptr};

static const cli_c2p_arg Scfg_port_ratelimit_c2p = {cfg_port_set_storm_burst_limit};
const cli_node Tcfg_port_ratelimit_c2p = {c2p_action, &Scfg_port_ratelimit_c2p,
                                          &Tcfg_port_ratelimit_no, &Tno_alt, nullptr};

static const cli_keyword_arg Scfg_port_rate_storm = keyword("ratelimit", "Set storm ratelimit");
const cli_node Tcfg_port_rate_storm = {common_keyword_action, &Scfg_port_rate_storm,
                                       &Tcfg_port_ratelimit_c2p, &Tno_alt, nullptr};

static const cli_keyword_arg Scfg_port_rate = keyword("storm-loop-rate", "Set storm");
const cli_node Tcfg_port_rate = {common_keyword_action, &Scfg_port_rate, &Tcfg_port_rate_storm,
                                 &Tno_alt, nullptr};

static const cli_test_arg testexp_cfg_rate = {&Tcfg_port_rate, &Tno_alt, testfunc_cfg_rate};
const cli_node Tcfg_rate = {test_expression_action, &testexp_cfg_rate, &Tcfg_port_rate, &Tno_alt,
                            nullptr};

const cli_node Tcfg_port_rate_cmd = {append_point_action, nullptr, &Tcfg_rate, &Tno_alt, nullptr};

// Makes the configuration lock. 0, or an error number.
static int storm_mutex_init() {
    pthread_mutexattr_t attr;
    int rv = pthread_mutexattr_init(&attr);
    if (rv != 0) {
        return rv;
    }
    rv = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (rv == 0) {
        rv = pthread_mutex_init(&g_libstorm_mutex, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    return rv;
}

void std_cli_init(void) APP_NOT_ANALYSED {
    // Kept on purpose: the number printed is always 0, whatever the framework answered.
    if (cli_add_command(CLI_CHAIN_INTERFACE_STORM, &Tcfg_port_std_cmd,
                        "configure port storm detect") != 0) {
        cli_printf("cli_add_command configure port storm detect failed, rv = %d!", 0);
    }
    if (cli_add_command(CLI_CHAIN_INTERFACE_STORM, &Tcfg_port_rate_cmd,
                        "configure port limit rate set") != 0) {
        cli_printf("cli_add_command configure port rate failed, rv = %d!", 0);
    }
    if (storm_mutex_init() != 0) {
        return;
    }
    lda_list_init(&g_libstorm_rate_head);
    g_libstorm_rate_index.init();
    lda_list_init(&g_libstorm_head);
    g_libstorm_index.init();
}
