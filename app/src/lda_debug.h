// Diagnostics of the agent: the result table, the clear interval, the debug switch "lda-debug",
// and the words that displays use for results. Main thread, no lock.
#pragma once

#include <cstdint>

#include <qv/cli.h>

// Words of a display. Static text.
const char* detect_intf_policy_name(uint32_t policy);  // 0 "warning", else "shutdown"
const char* detect_intf_status(uint8_t is_shutdown);   // "normal", "shutdown" or "warning"
const char* detect_state_to_dsp(uint8_t state);        // 0 "normal", else "loop"
const char* client_to_str(uint32_t source);            // "tarn", "storm", else "Error"

// Handlers; each returns 0, and at once when called for help or completion.
int exec_lda_clear_interval_debug(cli_pcdb* pcdb);  // "debug lda clear-interval N", N minutes
int exec_show_lda_result(cli_pcdb* pcdb);           // "show lda detect-result"

// Control callback of the debug switch: 1 on, 2 off, 3 prints its state.
void lda_debug_ctrl(int operation);

// Adds the debug and show trees and the debug switch.
void lda_debug_cmd_init(void);
