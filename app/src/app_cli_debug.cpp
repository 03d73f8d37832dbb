// Commands "debug lda logfile|syslog|show-logfile ..." and their tree, whose last branch is the
// dump of the storm detector.
//
// Handlers run on the main thread; every thread that logs reads the levels and the budget they set.
// The help of the log-file level contradicts the names of the levels (4 is "info", and 5 cannot be
// entered). Kept on purpose: operators know both.
#include "app_cli_debug.h"

#include "app_cli_nodes.h"
#include "app_debug.h"
#include "app_shared.h"
#include "storm_detect.h"

int app_cli_logfile_level(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    const int32_t level =
        app_cli_has_no(pcdb) ? APP_ZLOG_LEVEL_DEFAULT : static_cast<int32_t>(pcdb->number[0]);
    app_shared_set(g_app_zlog_level, level);
    APP_INFO("set logfile level to %d", level);
    return 0;
}

int app_cli_slog_level(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    const int32_t level =
        app_cli_has_no(pcdb) ? APP_SLOG_LEVEL_DEFAULT : static_cast<int32_t>(pcdb->number[0]);
    app_shared_set(g_dbg_slog_level, level);
    APP_INFO("set syslog level to %d", level);
    return 0;
}

int app_cli_slog_max_log_num(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    app_shared_set(g_dbg_slog_max, app_cli_has_no(pcdb) ? APP_SLOG_MAX_DEFAULT
                                                        : static_cast<uint32_t>(pcdb->number[0]));
    return 0;
}

// Handler of "log-max-number default". A keyword fills no number slot, so this puts the default
// there. "nolimit" needs no handler: its value is the 0 of the empty slot.
static int slog_max_default(cli_pcdb* pcdb) {
    pcdb->number[0] = APP_SLOG_MAX_DEFAULT;
    return app_cli_slog_max_log_num(pcdb);
}

int app_cli_show_logfile(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb) || app_cli_has_no(pcdb)) {
        return 0;
    }
    cli_printf("debug logfile level: %s\n",
               app_logfile_level_name(app_shared_get(g_app_zlog_level)));
    return 0;
}

// ---- The tree of "debug lda ..." ----

constexpr auto Sapp_dbg_show_logfile_eol = app_end(app_cli_show_logfile);
constexpr auto Tapp_dbg_show_logfile_eol = app_node(Sapp_dbg_show_logfile_eol);
constexpr auto Sapp_dbg_show_logfile_kw = app_keyword("show-logfile", "show logfile");
constexpr auto Tapp_dbg_show_logfile_kw =
    app_node(Sapp_dbg_show_logfile_kw, Tapp_dbg_show_logfile_eol, Tapp_dbg_storm_detect_kw);

// "syslog log-max-number": a number, "nolimit" or "default".
constexpr auto Sapp_dbg_default_eol = app_end(slog_max_default);
constexpr auto Tapp_dbg_default_eol = app_node(Sapp_dbg_default_eol);
constexpr auto Sapp_dbg_default_kw = app_keyword("default", "set app syslog max to default");
constexpr auto Tapp_dbg_default_kw = app_node(Sapp_dbg_default_kw, Tapp_dbg_default_eol);
constexpr auto Sapp_dbg_log_max_number_eol = app_end(app_cli_slog_max_log_num);
constexpr auto Tapp_dbg_log_max_number_eol = app_node(Sapp_dbg_log_max_number_eol);
constexpr auto Sapp_dbg_nolimit_kw = app_keyword("nolimit", "set app syslog max to no limit");
constexpr auto Tapp_dbg_nolimit_kw =
    app_node(Sapp_dbg_nolimit_kw, Tapp_dbg_log_max_number_eol, Tapp_dbg_default_kw);
constexpr auto Sapp_dbg_log_max_number_num = app_number("set syslog max number", 1, 4294967295);
constexpr auto Tapp_dbg_log_max_number_num =
    app_node(Sapp_dbg_log_max_number_num, Tapp_dbg_log_max_number_eol, Tapp_dbg_nolimit_kw);
constexpr auto Sapp_dbg_log_max_number_no_eol = app_end(app_cli_slog_max_log_num);
constexpr auto Tapp_dbg_log_max_number_no_eol =
    app_node(Sapp_dbg_log_max_number_no_eol, Tapp_dbg_log_max_number_num);
constexpr auto Tapp_dbg_log_max_number_no =
    app_no_prefix(Tapp_dbg_log_max_number_no_eol, Tapp_dbg_log_max_number_num);
constexpr auto Sapp_dbg_log_max_number_kw = app_keyword("log-max-number", "set syslog max number");
constexpr auto Tapp_dbg_log_max_number_kw =
    app_node(Sapp_dbg_log_max_number_kw, Tapp_dbg_log_max_number_no);

// "syslog level". After "no" the line may end at once; a number is accepted and ignored.
constexpr auto Sapp_dbg_syslog_level_eol = app_end(app_cli_slog_level);
constexpr auto Tapp_dbg_syslog_level_eol = app_node(Sapp_dbg_syslog_level_eol);
constexpr auto Sapp_dbg_syslog_level_num = app_number("none: 0, error: 1, info: 2, debug: 3", 0, 3);
constexpr auto Tapp_dbg_syslog_level_num =
    app_node(Sapp_dbg_syslog_level_num, Tapp_dbg_syslog_level_eol);
constexpr auto Sapp_dbg_syslog_level_no_eol = app_end(app_cli_slog_level);
constexpr auto Tapp_dbg_syslog_level_no_eol =
    app_node(Sapp_dbg_syslog_level_no_eol, Tapp_dbg_syslog_level_num);
constexpr auto Tapp_dbg_syslog_level_no =
    app_no_prefix(Tapp_dbg_syslog_level_no_eol, Tapp_dbg_syslog_level_num);
constexpr auto Sapp_dbg_syslog_level_kw = app_keyword("level", "syslog level");
constexpr auto Tapp_dbg_syslog_level_kw =
    app_node(Sapp_dbg_syslog_level_kw, Tapp_dbg_syslog_level_no, Tapp_dbg_log_max_number_kw);
constexpr auto Sapp_dbg_syslog_kw = app_keyword("syslog", "syslog");
constexpr auto Tapp_dbg_syslog_kw =
    app_node(Sapp_dbg_syslog_kw, Tapp_dbg_syslog_level_kw, Tapp_dbg_show_logfile_kw);

// "logfile level", in the same way.
constexpr auto Sapp_dbg_logfile_level_eol = app_end(app_cli_logfile_level);
constexpr auto Tapp_dbg_logfile_level_eol = app_node(Sapp_dbg_logfile_level_eol);
constexpr auto Sapp_dbg_logfile_level_num =
    app_number("fatal: 0, error: 1, warn: 2, notice: 3, debug: 4", 0, 4);
constexpr auto Tapp_dbg_logfile_level_num =
    app_node(Sapp_dbg_logfile_level_num, Tapp_dbg_logfile_level_eol);
constexpr auto Sapp_dbg_logfile_level_no_eol = app_end(app_cli_logfile_level);
constexpr auto Tapp_dbg_logfile_level_no_eol =
    app_node(Sapp_dbg_logfile_level_no_eol, Tapp_dbg_logfile_level_num);
constexpr auto Tapp_dbg_logfile_level_no =
    app_no_prefix(Tapp_dbg_logfile_level_no_eol, Tapp_dbg_logfile_level_num);
constexpr auto Sapp_dbg_logfile_level_kw = app_keyword("level", "level");
constexpr auto Tapp_dbg_logfile_level_kw =
    app_node(Sapp_dbg_logfile_level_kw, Tapp_dbg_logfile_level_no);
constexpr auto Sapp_dbg_logfile_kw = app_keyword("logfile", "Log file");
constexpr auto Tapp_dbg_logfile_kw =
    app_node(Sapp_dbg_logfile_kw, Tapp_dbg_logfile_level_kw, Tapp_dbg_syslog_kw);

constexpr auto Sapp_dbg_lda_kw = app_keyword("lda", "LDA");
constexpr auto Tapp_dbg_lda_kw = app_node(Sapp_dbg_lda_kw, Tapp_dbg_logfile_kw);
const cli_node Tapp_dbg_cmd = app_root(Tapp_dbg_lda_kw);
