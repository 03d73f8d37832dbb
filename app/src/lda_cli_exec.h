// Executors of the delivery thread: port shutdown and recovery, and the configuration of the
// detection features, as command lines of the switch.
//
// An executor opens one session for each work item; it returns 0, or -1 when there is no session,
// and then the item is dropped. All calls belong to the delivery thread, except that
// lda_intf_loop_cmd_enable may run on the main thread too.
#pragma once

#include <cstddef>
#include <cstdint>

#include <qv/cli.h>

// ---- Shutdown and recovery ----

// Shuts a port down or brings it up. A recovery that the switch refuses marks the port as shut down
// again, under the loop lock.
int cli_exec_shutdown(uint32_t ifx, uint8_t is_shutdown);
// Executes "[no] loop-detect apply shutdown-port" on a port.
int cli_exec_loop_apply_shutdown(uint32_t ifx, uint8_t is_shutdown);

// ---- Detection features ----

int lda_loop_cmd_enable(uint32_t mid);
int lda_loop_cmd_disable(uint32_t mid);
int lda_intf_loop_cmd_enable(uint32_t mid, uint32_t ifx);
int lda_intf_default_cmd(uint32_t mid, uint32_t ifx);

// Interface indexes of all ports in table order, in a new array that the caller frees; their number
// in `*count`. Null with `*count` 0 when there are none or memory runs out. Takes the loop lock.
uint32_t* lda_all_intf_ifx_get(uint16_t* count);

// ---- One line ----

// Bytes kept of the output of one command line, terminator included.
inline constexpr size_t LDA_CLI_OUTPUT_BYTES = 513;
// Result of a command line that printed something: the switch refused it.
inline constexpr int32_t LDA_CLI_REFUSED = 2;

// Mode in which a line is executed: 0 global configuration, 1 the port's interface mode.
inline constexpr uint32_t LDA_CLI_MODE_CONFIG = 0;
inline constexpr uint32_t LDA_CLI_MODE_INTERFACE = 1;
void lda_cli_mode_set(uint32_t ifx, uint32_t mode, cli_mode* descriptor);

// Executes one command line on an open session. Negative: not executed. LDA_CLI_REFUSED: it printed
// something. Else the framework's own result.
int32_t lda_loop_cmd_execute(int session, const char* line, const cli_mode* mode);

// Copies the output of a line to the LDA_CLI_OUTPUT_BYTES at `user`, cut to fit; the buffer must be
// zero-filled.
void cmd_exec_out_cback(const char* text, size_t length, void* user);
