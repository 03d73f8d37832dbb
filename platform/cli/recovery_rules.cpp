#include "platform/cli/recovery_rules.h"

#include <chrono>
#include <map>

#include "platform/base/guarded.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/held_ports.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

constexpr int64_t kShortestInterval_s = 1;
constexpr int64_t kLongestInterval_s = 1000000;

std::map<uint32_t, RecoveryRule>& rules() {
    static auto& instance = *new std::map<uint32_t, RecoveryRule>;  // without default rules
    return instance;
}

uint32_t ifx_of(const cli_pcdb* pcdb) {
    return static_cast<uint32_t>(pcdb->ifx);
}

// ---- Commands ----

// The switch keeps no error state beside the admin state, so there is nothing to clear. The
// command is accepted so that "no shutdown" can follow it as on any switch.
int recover_errdisable(cli_pcdb*) {
    return 0;
}

int set_interval(cli_pcdb* pcdb) {
    rules()[ifx_of(pcdb)].interval_s = pcdb->number[0];
    return 0;
}

int set_never(cli_pcdb* pcdb) {
    rules()[ifx_of(pcdb)].interval_s = RecoveryRule::kNever;
    return 0;
}

int clear_interval(cli_pcdb* pcdb) {
    forget_recovery_rule(ifx_of(pcdb));
    return 0;
}

int print_interval(cli_pcdb* pcdb) {
    const std::string rule = rule_text(recovery_rule(ifx_of(pcdb)));
    if (!rule.empty()) {
        c2p_printf(pcdb, 1, "errdisable recovery %s", rule.c_str());
    }
    return 0;
}

}  // namespace

const RecoveryRule& recovery_rule(uint32_t ifx) {
    static const RecoveryRule defaults;
    const auto found = rules().find(ifx);
    return found != rules().end() ? found->second : defaults;
}

std::string rule_text(const RecoveryRule& rule) {
    if (rule == RecoveryRule{}) {
        return "";
    }
    return "interval " +
           (rule.interval_s == RecoveryRule::kNever ? "never" : std::to_string(rule.interval_s));
}

void forget_recovery_rule(uint32_t ifx) {
    rules().erase(ifx);
}

std::optional<RecoveryWait> recovery_wait(const Port& port) {
    const RecoveryRule& rule = recovery_rule(port.ifx);
    const LoopedPort* const known = held_ports().find(port.name);
    if (rule == RecoveryRule{} || port.vsl || known == nullptr || !known->waits_from ||
        known->released || known->shut_under != policy_for(port)) {
        return {};
    }
    const std::string line = "errdisable recovery " + rule_text(rule) + ": ";
    if (rule.interval_s == RecoveryRule::kNever) {
        return RecoveryWait{{}, line + "an operator must bring it back"};
    }
    const std::chrono::seconds interval(rule.interval_s);
    return RecoveryWait{
        *known->waits_from + interval,
        line + "not before " + std::to_string(rule.interval_s) + " s after the shutdown"};
}

std::string refuse_recovery(const Port& port) {
    const std::optional<RecoveryWait> wait = recovery_wait(port);
    if (!wait || (wait->until && *wait->until <= platform().clock().now())) {
        return "";
    }
    guarded([&] { held_ports().postponed(port.name, wait->reason); });
    return wait->reason;
}

void register_recovery_rules() {
    const cli_node* interval = end_of_line(set_interval);
    const cli_node* seconds =
        number("Seconds from the shutdown", kShortestInterval_s, kLongestInterval_s, interval,
               keyword("never", "Only an operator brings it back", end_of_line(set_never)));
    attach(
        CLI_CHAIN_INTERFACE,
        keyword("errdisable", "Error state of the interface",
                keyword("recovery", "Clear it",
                        keyword("interval", "When loop detection may bring it back at the earliest",
                                print_config(print_interval,
                                             with_no(end_of_line(clear_interval), seconds)),
                                end_of_line(recover_errdisable)))),
        "errdisable recovery");
}

}  // namespace qv::cli
