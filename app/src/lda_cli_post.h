// Posters of the command queue: each call puts one message into it, which the delivery thread
// executes later (lda_cli_exec.h). Main thread, except where a call says otherwise.
#pragma once

#include <cstdint>

#include "lda_cli_delivery.h"
#include "lda_msg.h"

// ---- The queue ----

// Post a copy of `message` (its links are ignored). Returns the result of signalling the thread;
// on failure the message is lost and the result is that of releasing the log lock. Any thread.
int lda_cli_cmd_send(const lda_cli_msg_t* message);
// Posts a message of type 0 with these three fields, with the same result. Any thread.
int lda_loop_cmd_send(uint8_t enable, uint32_t mid, uint32_t ifx);

// ---- Shutdown and recovery ----

// Asks for a port to be shut down (1) or brought back (0), and for the running configuration to
// follow. With a record, a recovery also asks for its clear timer.
void lda_send_shutcmd(uint32_t ifx, uint8_t shutdown, lda_intf_t* record);

// ---- Detection features ----

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
