// Configuration and show commands of the agent: registration, command trees, handlers, and the
// agent's lines in the running configuration. Main thread.
#pragma once

#include <cstdint>

#include <qv/cli.h>

// Recovery time that is never written into the configuration.
inline constexpr uint32_t LDA_RECOVER_TIME_DEFAULT_S = 300;

// Connects to the CLI framework and registers hooks and commands. 0 or -1.
int lda_cli_init(void);
// Adds the three command trees.
void lda_cmd_init(void);

// Handlers of "[no] loop-detect enable ...", on execution and in generation. Return 0. They take
// the loop lock.
int cfg_lda_cli_warning_command(cli_pcdb* pcdb);
int cfg_lda_cli_shutdown_access_command(cli_pcdb* pcdb);
int cfg_lda_cli_shutdown_hybrid_command(cli_pcdb* pcdb);
int cfg_lda_cli_shutdown_access_hybrid_command(cli_pcdb* pcdb);
// Their common body: sets `policy`, or 0 with the "no" prefix; in generation writes the line of the
// current policy.
void lda_policy_set(cli_pcdb* pcdb, uint32_t policy);

// Handler of "[no] loop-detect shutdown-recover-time". Returns 0.
int cfg_lda_cli_recover_command(cli_pcdb* pcdb);

// Handler of "[no] loop-detect apply shutdown-port". Returns 0. Takes the loop lock.
int cfg_lda_cli_apply_shutdown_command(cli_pcdb* pcdb);

// Switches detection off, or writes "loop-detect enable". Returns 0, or 18 when it has nothing to
// write. No node calls it.
int cfg_lda_loop_detect_enable_command(cli_pcdb* pcdb);

// Whether the interface commands are offered for the port or range of the context.
int testfunc_cfg_loop_detect_apply_shutdown_kw(cli_pcdb* pcdb);
int lda_cfg_intf_mode_select(cli_pcdb* pcdb);

// Writes the interface sections of the running configuration. Returns the walk's result.
int libproxy_cli_interface_walk(cli_pcdb* pcdb);
int libproxy_lsm_walk_handler(uint32_t ifx, void* arg);  // one section; `arg` is the context

// Roots of the trees of global configuration, of interface configuration and of "show loop-detect".
extern const cli_node Tcfg_loop_detect_cmd;
extern const cli_node Tcfg_loop_detect_apply_cmd;
extern const cli_node Tshow_loop_detect_cmd;
