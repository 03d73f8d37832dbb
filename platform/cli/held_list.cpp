// The agent counts the time of a port that it holds in steps: a tick every ten seconds adds one,
// and the tick that reaches the recovery time brings the port back. When a port is shut the next
// tick is up to ten seconds away, which is not known here: the times are the latest ones. When a
// rule of the port refuses that recovery, the next one follows after another recovery time.
#include "platform/cli/held_list.h"

#include <chrono>

#include "platform/cli/recovery_rules.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using std::chrono::seconds;

// Empty when the agent has not begun to count for the port, and when a rule keeps it for ever.
std::optional<Time> recovery_due(const Port& port, seconds recovery) {
    const LoopedPort* const known = held_ports().find(port.name);
    if (known == nullptr || !known->counted_from) {
        return {};
    }
    const Duration period = (recovery + kRecoveryStep - seconds(1)) / kRecoveryStep * kRecoveryStep;
    Time due = *known->counted_from + period;
    if (const std::optional<RecoveryWait> wait = recovery_wait(port)) {
        if (!wait->until) {
            return {};
        }
        // The first recovery that cannot come too early, even if it comes a tick before `due`.
        const Duration missing = *wait->until - (due - kRecoveryStep);
        due += missing > Duration(0) ? (missing + period - Duration(1)) / period * period
                                     : Duration(0);
    }
    return due;
}

HeldPort held(const Port& port, seconds recovery) {
    const LoopedPort* const known = held_ports().find(port.name);
    const auto yesterday = std::chrono::system_clock::now() - std::chrono::hours(24);
    return {.name = port.name,
            .facts = known != nullptr ? known->facts : LoopFacts{},
            .since = known != nullptr ? known->shut_since : std::nullopt,
            .recovery_due = recovery_due(port, recovery),
            .shut_last_day = held_ports().times_shut(port.name, yesterday),
            .still_looped = held_ports().probe_sees_loop(port.ifx),
            .rule = rule_text(recovery_rule(port.ifx)),
            .refused = held_ports().last_refusal(port.name)};
}

}  // namespace

std::vector<HeldPort> ports_held_shut() {
    const seconds recovery = agent_recovery_time();
    std::vector<HeldPort> ports;
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (!port.admin_up && is_marked(port)) {
            ports.push_back(held(port, recovery));
        }
    }
    return ports;
}

std::optional<WallTime> wall_time_of(std::optional<Time> time) {
    const Duration left = time ? platform().clock().real_time_until(*time) : Duration::max();
    if (left == Duration::max()) {
        return {};
    }
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(left);
}

}  // namespace qv::cli
