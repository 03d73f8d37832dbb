// "show loop-detect [detail]": detection state, policy, and the ports that are in a loop. Main
// thread.
#pragma once

#include <cstdint>

#include <qv/cli.h>
#include "lda_msg.h"

// Handlers. Return 0.
int lda_show_loop_detect_command(cli_pcdb* pcdb);
int lda_show_loop_detect_detail_command(cli_pcdb* pcdb);

// Takes a snapshot of the looped ports and prints it.
void lda_get_loop_entry(uint8_t detail);
void lda_print_loop_info(int count, const lda_loop_result_t* entries, uint8_t detail);
