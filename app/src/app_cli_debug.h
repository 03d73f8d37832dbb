// Debug commands of the logging facility: levels, budget, and their command tree. Main thread.
#pragma once

#include <qv/cli.h>

// Handlers; each returns 0, and at once when called for help or completion.
int app_cli_logfile_level(cli_pcdb* pcdb);     // "[no] debug lda logfile level"
int app_cli_slog_level(cli_pcdb* pcdb);        // "[no] debug lda syslog level"
int app_cli_slog_max_log_num(cli_pcdb* pcdb);  // "[no] debug lda syslog log-max-number"
int app_cli_show_logfile(cli_pcdb* pcdb);      // "debug lda show-logfile"

// Root of the tree of "debug lda ...". Each level and the budget may be given or left out after
// "no".
extern const cli_node Tapp_dbg_cmd;
