// Debug commands of the logging facility: levels, budget, and their command tree. Main thread.
#pragma once

#include <qv/cli.h>

// Handlers; each returns 0, and at once when called for help or completion.
int app_cli_logfile_level(cli_pcdb* pcdb);     // "[no] debug lda logfile level"
int app_cli_slog_level(cli_pcdb* pcdb);        // "[no] debug lda syslog level"
int app_cli_slog_max_log_num(cli_pcdb* pcdb);  // "[no] debug lda syslog log-max-number"
int app_cli_show_logfile(cli_pcdb* pcdb);      // "debug lda show-logfile"

// The tree of "debug lda ...". Each level and the budget may be given or left out after "no".
extern const cli_node Tapp_dbg_cmd;
extern const cli_node Tapp_dbg_lda_kw;
extern const cli_node Tapp_dbg_logfile_kw;
extern const cli_node Tapp_dbg_logfile_level_kw;
extern const cli_node Tapp_dbg_logfile_level_no;
extern const cli_node Tapp_dbg_logfile_level_no_eol;
extern const cli_node Tapp_dbg_logfile_level_num;
extern const cli_node Tapp_dbg_logfile_level_eol;
extern const cli_node Tapp_dbg_syslog_kw;
extern const cli_node Tapp_dbg_syslog_level_kw;
extern const cli_node Tapp_dbg_syslog_level_no;
extern const cli_node Tapp_dbg_syslog_level_no_eol;
extern const cli_node Tapp_dbg_syslog_level_num;
extern const cli_node Tapp_dbg_syslog_level_eol;
extern const cli_node Tapp_dbg_log_max_number_kw;
extern const cli_node Tapp_dbg_log_max_number_no;
extern const cli_node Tapp_dbg_log_max_number_no_eol;
extern const cli_node Tapp_dbg_log_max_number_num;
extern const cli_node Tapp_dbg_log_max_number_eol;
extern const cli_node Tapp_dbg_nolimit_kw;
extern const cli_node Tapp_dbg_default_kw;
extern const cli_node Tapp_dbg_default_eol;
extern const cli_node Tapp_dbg_show_logfile_kw;
extern const cli_node Tapp_dbg_show_logfile_eol;
