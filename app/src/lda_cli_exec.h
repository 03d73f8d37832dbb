// Executors of the delivery thread: port shutdown and recovery, and the configuration of the
// detection features, as command lines of the switch; and the calls that post them.
//
// Executors open one session for each work item; they return 0, or -1 when there is no session, and
// then the item is dropped. Posting calls belong to the main thread.
#pragma once

#include <cstdint>

#include "lda_msg.h"

// ---- Shutdown and recovery: posting ----

// Asks for a port to be shut down (1) or brought back (0), and for the running configuration to
// follow. With a record, a recovery also asks for its clear timer.
void lda_send_shutcmd(uint32_t ifx, uint8_t shutdown, lda_intf_t* record);

// Marks a port as shut down by the agent (1) or not (0) and requests what follows from the change.
// Returns 0, or -1 for a port without a record, which is put on or taken off the pending-interface
// list. The caller holds the loop lock where needed.
int lda_cli_intf_shutdown_by_lda_cmd(uint32_t ifx, uint8_t shutdown);

// ---- Shutdown and recovery: delivery thread ----

// Shuts a port down or brings it back. A recovery that the switch refuses marks the port as shut
// down again; takes the loop lock for that.
int cli_exec_shutdown(uint32_t ifx, uint8_t is_shutdown);
// Executes "[no] loop-detect apply shutdown-port" on a port.
int cli_exec_loop_apply_shutdown(uint32_t ifx, uint8_t is_shutdown);

// ---- Detection features: posting ----

// After a reload: re-judges the looped ports and switches the features on, if a policy is set.
void lda_loop_config_delivery(uint32_t mid);
// Configures one port under the current policy. Nothing calls it.
void lda_send_intfcfg(uint32_t ifx);
// Cleans one port whose configuration was reset to its defaults.
void lda_intf_default_config_delivery(uint32_t mid, uint32_t ifx);
// Post a message of type 0, which causes no work, unless the CLI is not ready yet.
void lda_loop_detect_enable(void);
void lda_loop_detect_disable(void);
// Enables (non-zero) or disables through the two calls above, and has the configuration follow.
void lda_async_enable_loop(uint32_t flag);

// ---- Detection features: delivery thread ----

int lda_loop_cmd_enable(uint32_t mid);
int lda_loop_cmd_disable(uint32_t mid);
int lda_intf_loop_cmd_enable(uint32_t mid, uint32_t ifx);
int lda_intf_default_cmd(uint32_t mid, uint32_t ifx);

// Interface indexes of all ports in table order, in a new array that the caller frees; their number
// in `*count`. Null with `*count` 0 when there are none or memory runs out. Takes the loop lock.
uint32_t* lda_all_intf_ifx_get(uint16_t* count);
