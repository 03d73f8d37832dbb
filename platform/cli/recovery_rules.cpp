#include "platform/cli/recovery_rules.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <map>
#include <string_view>

#include "platform/base/guarded.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/running_config.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using std::chrono::seconds;

constexpr seconds kDefaultRecovery{300};  // has no line in the configuration
constexpr int64_t kShortestWait_s = 1;
constexpr int64_t kLongestWait_s = 1000000;
constexpr int64_t kLowestFactor = 2;
constexpr int64_t kHighestFactor = 100;
constexpr int64_t kLongestProbation_s = kLongestProbation_ms / 1000;

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

int store(uint32_t ifx, const RecoveryRule& rule) {
    if (rule == RecoveryRule{}) {
        forget_recovery_rule(ifx);
    } else {
        rules()[ifx] = rule;
    }
    return 0;
}

int store_interval(cli_pcdb* pcdb, int64_t interval_s) {
    RecoveryRule rule = recovery_rule(ifx_of(pcdb));
    rule.interval_s = interval_s;
    return store(ifx_of(pcdb), rule);
}

int set_interval(cli_pcdb* pcdb) {
    return store_interval(pcdb, pcdb->number[0]);
}

int set_never(cli_pcdb* pcdb) {
    return store_interval(pcdb, RecoveryRule::kNever);
}

int clear_interval(cli_pcdb* pcdb) {
    return store_interval(pcdb, 0);
}

int set_backoff(cli_pcdb* pcdb) {
    RecoveryRule rule = recovery_rule(ifx_of(pcdb));
    rule.backoff_factor = pcdb->number[0];
    rule.backoff_max_s = pcdb->number[1];
    return store(ifx_of(pcdb), rule);
}

int clear_backoff(cli_pcdb* pcdb) {
    RecoveryRule rule = recovery_rule(ifx_of(pcdb));
    rule.backoff_factor = 0;
    rule.backoff_max_s = 0;
    return store(ifx_of(pcdb), rule);
}

int store_probation(cli_pcdb* pcdb, int64_t probation_s) {
    const uint32_t ifx = ifx_of(pcdb);
    RecoveryRule rule = recovery_rule(ifx);
    rule.probation_s = probation_s;
    store(ifx, rule);
    announce_tarn_port(ifx);
    return 0;
}

int set_probation(cli_pcdb* pcdb) {
    return store_probation(pcdb, pcdb->number[0]);
}

int clear_probation(cli_pcdb* pcdb) {
    return store_probation(pcdb, 0);
}

std::string interval_text(const RecoveryRule& rule) {
    return "interval " +
           (rule.interval_s == RecoveryRule::kNever ? "never" : std::to_string(rule.interval_s));
}

std::string backoff_text(const RecoveryRule& rule) {
    return "backoff " + std::to_string(rule.backoff_factor) + " " +
           std::to_string(rule.backoff_max_s);
}

std::string probation_text(const RecoveryRule& rule) {
    return "probation " + std::to_string(rule.probation_s);
}

int print_interval(cli_pcdb* pcdb) {
    const RecoveryRule& rule = recovery_rule(ifx_of(pcdb));
    if (rule.interval_s != 0) {
        c2p_printf(pcdb, 1, "errdisable recovery %s", interval_text(rule).c_str());
    }
    return 0;
}

int print_backoff(cli_pcdb* pcdb) {
    const RecoveryRule& rule = recovery_rule(ifx_of(pcdb));
    if (rule.backoff_factor != 0) {
        c2p_printf(pcdb, 1, "errdisable recovery %s", backoff_text(rule).c_str());
    }
    return 0;
}

int print_probation(cli_pcdb* pcdb) {
    const RecoveryRule& rule = recovery_rule(ifx_of(pcdb));
    if (rule.probation_s != 0) {
        c2p_printf(pcdb, 1, "errdisable recovery %s", probation_text(rule).c_str());
    }
    return 0;
}

const cli_node* interval_tree(const cli_node* alternative) {
    const cli_node* arguments = number(
        "Seconds from the shutdown", kShortestWait_s, kLongestWait_s, end_of_line(set_interval),
        keyword("never", "Only an operator brings it back", end_of_line(set_never)));
    return keyword("interval", "When loop detection may bring it back at the earliest",
                   print_config(print_interval, with_no(end_of_line(clear_interval), arguments)),
                   alternative);
}

const cli_node* backoff_tree(const cli_node* alternative) {
    const cli_node* arguments =
        number("Factor for each further time", kLowestFactor, kHighestFactor,
               number_in_slot(1, "Longest wait in seconds", kShortestWait_s, kLongestWait_s,
                              end_of_line(set_backoff)));
    return keyword("backoff", "Wait longer each time it is shut again soon",
                   print_config(print_backoff, with_no(end_of_line(clear_backoff), arguments)),
                   alternative);
}

const cli_node* probation_tree(const cli_node* alternative) {
    const cli_node* arguments =
        number("Seconds", kShortestWait_s, kLongestProbation_s, end_of_line(set_probation));
    return keyword("probation", "Probe it for some time before it forwards again",
                   print_config(print_probation, with_no(end_of_line(clear_probation), arguments)),
                   alternative);
}

// ---- Waits ----

// The agent counts from its last step before the shutdown, so it may be up to a step too early.
RecoveryWait backoff_wait(const RecoveryRule& rule, const WaitInARow& wait, Time from) {
    return {from + std::max(wait.wait - kRecoveryStep, seconds(rule.interval_s)),
            "errdisable recovery " + backoff_text(rule) + ": not before " +
                std::to_string(wait.wait.count()) + " s after the shutdown, time " +
                std::to_string(wait.times) + " in a row"};
}

RecoveryWait interval_wait(const RecoveryRule& rule, Time from) {
    const std::string line = "errdisable recovery " + interval_text(rule) + ": ";
    if (rule.interval_s == RecoveryRule::kNever) {
        return {{}, line + "an operator must bring it back"};
    }
    return {from + seconds(rule.interval_s),
            line + "not before " + std::to_string(rule.interval_s) + " s after the shutdown"};
}

}  // namespace

const RecoveryRule& recovery_rule(uint32_t ifx) {
    static const RecoveryRule defaults;
    const auto found = rules().find(ifx);
    return found != rules().end() ? found->second : defaults;
}

std::string rule_text(const RecoveryRule& rule) {
    std::string text = rule.interval_s != 0 ? interval_text(rule) : "";
    if (rule.backoff_factor != 0) {
        text += (text.empty() ? "" : ", ") + backoff_text(rule);
    }
    if (rule.probation_s != 0) {
        text += (text.empty() ? "" : ", ") + probation_text(rule);
    }
    return text;
}

seconds agent_recovery_time() {
    constexpr std::string_view kLine = "loop-detect shutdown-recover-time ";
    int64_t time = kDefaultRecovery.count();
    for (const ConfigLine& line : generate_global().lines) {
        if (line.text.starts_with(kLine)) {
            const char* const end = line.text.data() + line.text.size();
            std::from_chars(line.text.data() + kLine.size(), end, time);
        }
    }
    return seconds(time);
}

void forget_recovery_rule(uint32_t ifx) {
    rules().erase(ifx);
}

void decide_wait(const Port& port) {
    const RecoveryRule& rule = recovery_rule(port.ifx);
    if (rule.backoff_factor == 0 || rule.interval_s == RecoveryRule::kNever) {
        return;
    }
    const int64_t first_s =
        rule.interval_s != 0 ? rule.interval_s : int64_t{agent_recovery_time().count()};
    WaitInARow wait{seconds(first_s), 1};
    if (const std::optional<WaitInARow> before = held_ports().wait_before(port.name)) {
        const int64_t longer_s =
            std::min(before->wait.count() * rule.backoff_factor, rule.backoff_max_s);
        wait = {seconds(std::max(first_s, longer_s)), before->times + 1};
    }
    held_ports().waits(port.name, wait);
}

std::optional<RecoveryWait> recovery_wait(const Port& port) {
    const RecoveryRule& rule = recovery_rule(port.ifx);
    const LoopedPort* const known = held_ports().find(port.name);
    if (rule == RecoveryRule{} || port.vsl || known == nullptr || !known->waits_from ||
        known->released || known->shut_under != policy_for(port)) {
        return {};
    }
    const bool backoff = rule.backoff_factor != 0 && known->wait && known->wait->times > 1 &&
                         rule.interval_s != RecoveryRule::kNever;
    if (!backoff && rule.interval_s == 0) {
        return {};
    }
    return backoff ? backoff_wait(rule, *known->wait, *known->waits_from)
                   : interval_wait(rule, *known->waits_from);
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
    attach(
        CLI_CHAIN_INTERFACE,
        keyword(
            "errdisable", "Error state of the interface",
            keyword("recovery", "Clear it",
                    interval_tree(backoff_tree(probation_tree(end_of_line(recover_errdisable)))))),
        "errdisable recovery");
}

}  // namespace qv::cli
