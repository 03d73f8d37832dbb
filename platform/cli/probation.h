// "errdisable recovery probation SECONDS": how long a port that loop detection has shut is probed
// before it forwards again. The loop-probe service does it, by its guard at link-up. Loop thread
// only.
//
// A port is on trial from its shutdown on, because its link may come up at once after "no
// shutdown": the service must know by then. The trial ends when the port has been up with a link
// for twice that time, or when a loop that is found meanwhile has ended after that.
#pragma once

#include <cstdint>

#include "platform/client/port_model.h"

namespace qv::cli {

// How long the port is closed at link-up, in milliseconds: the longer one of its guard and, on
// trial, its probation. 0: not at all.
int64_t link_up_guard_ms(uint32_t ifx);

// Whether the port would be probed before it forwards, were it to come up now: it is on trial, has
// a probation, and loop probes are enabled on it.
bool on_probation(uint32_t ifx);

// The agent has shut the port, maybe in an earlier process.
void begin_trial(uint32_t ifx);
// Call after each change of a port.
void follow_trial(const Port& port);
// The port is gone.
void end_trial(uint32_t ifx);

}  // namespace qv::cli
