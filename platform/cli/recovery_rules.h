// "errdisable recovery interval ...", "... backoff ..." and "... probation ...": how long the
// switch keeps a port shut that the agent has shut, beyond the agent's own recovery time, and how
// long it is probed then (probation.h). Loop thread only.
//
// The agent types "no shutdown" whenever it lets go of a port, and never says why. Only its
// recovery timer has to wait, so the switch rules out everything else: the wait ends when the
// policy or the VLAN mode is no longer the one under which the port was shut, when an operator
// removes the agent's mark, and when anybody brings the port up. A line that is refused is
// repeated by the agent after another recovery time.
//
// A backoff is decided at each shutdown: the first wait is the interval, or else the agent's
// recovery time. A port that is shut again after it has been up for no longer than its last wait
// waits FACTOR times longer, at most MAX, but never shorter than the interval. The decision is an
// event of the history, which is how the next process knows it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/client/port_model.h"

namespace qv::cli {

struct RecoveryRule {
    static constexpr int64_t kNever = -1;

    int64_t interval_s = 0;      // from the shutdown on; 0: none
    int64_t backoff_factor = 0;  // 0: no backoff
    int64_t backoff_max_s = 0;
    int64_t probation_s = 0;  // before the port forwards again; 0: none

    bool operator==(const RecoveryRule&) const = default;
};

// The rule of a port; the default when it has no line.
const RecoveryRule& recovery_rule(uint32_t ifx);
// Such as "interval 600, backoff 2 3600"; empty without a rule.
std::string rule_text(const RecoveryRule& rule);
// The agent's own recovery time, from the running configuration. The agent counts it in steps.
inline constexpr std::chrono::seconds kRecoveryStep{10};
std::chrono::seconds agent_recovery_time();

// Call when a port is gone or back at its defaults.
void forget_recovery_rule(uint32_t ifx);

// The agent has shut the port just now: decides how long it waits if it has a backoff.
void decide_wait(const Port& port);

struct RecoveryWait {
    std::optional<Time> until;  // by the loop's clock; empty: for ever
    std::string reason;         // for an operator
};
// The wait of a port that the agent has shut; it may be over. Empty when the port need not wait.
std::optional<RecoveryWait> recovery_wait(const Port& port);
// Why the recovery timer must not bring the port up now; empty when it may. A wait that is refused
// is an event of the history, the same reason once for each shutdown.
std::string refuse_recovery(const Port& port);

// "errdisable recovery ..." in the mode of a port.
void register_recovery_rules();

}  // namespace qv::cli
