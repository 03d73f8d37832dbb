// Posters of the command queue: each call appends one message, which the delivery thread executes
// later (lda_cli_exec.h). Main thread, except where a call says otherwise.
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

// Requests that a port be shut down (1) or brought up (0) and that the running configuration show
// it. With a record, a recovery also arms its clear timer.
void lda_send_shutcmd(uint32_t ifx, uint8_t shutdown, lda_intf_t* record);

// ---- Detection features ----

// After a reload: re-judges the looped ports and switches the features on, if a policy is set.
void lda_loop_config_delivery(uint32_t mid);
// Configures one port under the current policy. Nothing calls it.
void lda_send_intfcfg(uint32_t ifx);
// Removes the features' lines from a port that was reset to its defaults.
void lda_intf_default_config_delivery(uint32_t mid, uint32_t ifx);
// Post a message of type 0, which causes no work, unless the CLI is not ready yet.
void lda_loop_detect_enable(void);
void lda_loop_detect_disable(void);
// Enables (non-zero) or disables through the two calls above, and requests the running
// configuration.
void lda_async_enable_loop(uint32_t flag);
