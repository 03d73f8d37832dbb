// The parse trees of "storm-loop-detect" and "storm-loop-rate", leaves first, and their
// registration. All nodes are constants; the framework walks them on the main thread.
#include "app_cli_nodes.h"
#include "storm_cli.h"

static constexpr cli_keyword_arg keyword(const char* word, const char* help) {
    return app_keyword(word, help, APP_KEYWORD_INTERFACE);
}

// ---- "storm-loop-detect enable" ----

constexpr auto Scfg_port_storm_enable_eol = app_end(cfg_port_enable_storm);
constexpr auto Tcfg_port_storm_enable_eol = app_node(Scfg_port_storm_enable_eol);
constexpr auto Scfg_port_enable_def_eol = app_end(cfg_port_enable_storm);
constexpr auto Tcfg_port_enable_def_eol = app_node(Scfg_port_enable_def_eol);
constexpr auto Tcfg_port_enable_def =
    app_default_prefix(Tcfg_port_enable_def_eol, Tcfg_port_storm_enable_eol);
constexpr auto Scfg_port_enable_no_eol = app_end(cfg_port_enable_storm);
constexpr auto Tcfg_port_enable_no_eol = app_node(Scfg_port_enable_no_eol);
constexpr auto Tcfg_port_enable_no = app_no_prefix(Tcfg_port_enable_no_eol, Tcfg_port_enable_def);
constexpr auto Scfg_port_enable_storm_c2p = app_print(cfg_port_enable_storm);
constexpr auto Tcfg_port_enable_storm_c2p =
    app_node(Scfg_port_enable_storm_c2p, Tcfg_port_enable_no);
constexpr auto Scfg_port_std_storm = keyword("enable", "Set loop detect");
constexpr auto Tcfg_port_std_storm = app_node(Scfg_port_std_storm, Tcfg_port_enable_storm_c2p);
constexpr auto Scfg_port_std = keyword("storm-loop-detect", "Set storm");
constexpr auto Tcfg_port_std = app_node(Scfg_port_std, Tcfg_port_std_storm);
constexpr auto testexp_cfg_storm = app_test(Tcfg_port_std, testfunc_cfg_storm);
constexpr auto Tcfg_storm = app_node(testexp_cfg_storm);
constexpr auto Tcfg_port_std_cmd = app_root(Tcfg_storm);

// ---- "storm-loop-rate ratelimit RATE [burst BURST]" ----

constexpr auto Scfg_port_ratelimit_eol = app_end(cfg_port_set_storm_burst_limit);
constexpr auto Tcfg_port_ratelimit_eol = app_node(Scfg_port_ratelimit_eol);
constexpr auto Scfg_port_storm_limit_burst_eol = app_end(cfg_port_set_storm_burst_limit);
constexpr auto Tcfg_port_storm_limit_burst_eol = app_node(Scfg_port_storm_limit_burst_eol);
constexpr auto Scfg_port_storm_burst_value =
    app_number("burst limit size, default: 1024", 32, 10000, 1);
constexpr auto Tcfg_port_storm_burst_value =
    app_node(Scfg_port_storm_burst_value, Tcfg_port_storm_limit_burst_eol);
constexpr auto Scfg_port_storm_limit_burst = keyword("burst", "Set burst ratelimit");
constexpr auto Tcfg_port_storm_limit_burst =
    app_node(Scfg_port_storm_limit_burst, Tcfg_port_storm_burst_value, Tcfg_port_ratelimit_eol);
constexpr auto Scfg_port_storm_limit_value =
    app_number("rate limit size, default: 8000", 1, 1000000, 0);
constexpr auto Tcfg_port_storm_limit_value =
    app_node(Scfg_port_storm_limit_value, Tcfg_port_storm_limit_burst);
constexpr auto Scfg_port_ratelimit_def_eol = app_end(cfg_port_set_storm_burst_limit);
constexpr auto Tcfg_port_ratelimit_def_eol = app_node(Scfg_port_ratelimit_def_eol);
constexpr auto Tcfg_port_ratelimit_def =
    app_default_prefix(Tcfg_port_ratelimit_def_eol, Tcfg_port_storm_limit_value);
constexpr auto Scfg_port_ratelimit_no_eol = app_end(cfg_port_set_storm_burst_limit);
constexpr auto Tcfg_port_ratelimit_no_eol = app_node(Scfg_port_ratelimit_no_eol);
constexpr auto Tcfg_port_ratelimit_no =
    app_no_prefix(Tcfg_port_ratelimit_no_eol, Tcfg_port_ratelimit_def);
constexpr auto Scfg_port_ratelimit_c2p = app_print(cfg_port_set_storm_burst_limit);
constexpr auto Tcfg_port_ratelimit_c2p = app_node(Scfg_port_ratelimit_c2p, Tcfg_port_ratelimit_no);
constexpr auto Scfg_port_rate_storm = keyword("ratelimit", "Set storm ratelimit");
constexpr auto Tcfg_port_rate_storm = app_node(Scfg_port_rate_storm, Tcfg_port_ratelimit_c2p);
constexpr auto Scfg_port_rate = keyword("storm-loop-rate", "Set storm");
constexpr auto Tcfg_port_rate = app_node(Scfg_port_rate, Tcfg_port_rate_storm);
constexpr auto testexp_cfg_rate = app_test(Tcfg_port_rate, testfunc_cfg_rate);
constexpr auto Tcfg_rate = app_node(testexp_cfg_rate);
constexpr auto Tcfg_port_rate_cmd = app_root(Tcfg_rate);

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
    // Kept on purpose: the number printed is always 0, whatever the framework returned.
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
