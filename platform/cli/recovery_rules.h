// "errdisable recovery interval ...": how long the switch keeps a port shut that the agent has
// shut, whatever the agent's own recovery time is. Loop thread only.
//
// The agent types "no shutdown" whenever it lets go of a port, and never says why. Only its
// recovery timer has to wait, so the switch rules out everything else: the wait ends when the
// policy or the VLAN mode is no longer the one under which the port was shut, when an operator
// removes the agent's mark, and when anybody brings the port up. A line that is refused is
// repeated by the agent after another recovery time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/client/port_model.h"

namespace qv::cli {

struct RecoveryRule {
    static constexpr int64_t kNever = -1;

    int64_t interval_s = 0;  // from the shutdown on; 0: no rule

    bool operator==(const RecoveryRule&) const = default;
};

// The rule of a port; the default when it has no line.
const RecoveryRule& recovery_rule(uint32_t ifx);
// "interval 600" or "interval never"; empty without a rule.
std::string rule_text(const RecoveryRule& rule);

// Call when a port is gone or back at its defaults.
void forget_recovery_rule(uint32_t ifx);

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
