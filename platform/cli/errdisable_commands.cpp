// "show errdisable ..." and "clear errdisable ...": ports that loop detection holds shut, and the
// time of their recovery.
//
// The agent counts the time in steps: a tick every ten seconds adds one to each port it holds, and
// the tick that reaches the recovery time brings the port back. When a port is shut the next tick
// is up to ten seconds away, which is not known here: the times shown are the latest ones. When a
// rule of the port refuses that recovery, the next one follows after another recovery time.
#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/local_time.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/port_sections.h"
#include "platform/cli/recovery_rules.h"
#include "platform/cli/running_config.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::seconds;

constexpr int kVersion = 1;  // of the JSON answers

// ---- The configuration of the agent ----

bool detection_enabled() {
    for (const ConfigLine& line : generate_global().lines) {
        if (line.text.starts_with("loop-detect enable")) {
            return true;
        }
    }
    return false;
}

// ---- Held ports ----

// Ports that carry the agent's mark. Those that somebody has opened are left out with `only_down`.
std::vector<Port> marked_ports(bool only_down) {
    std::vector<Port> marked;
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (!(only_down && port.admin_up) && is_marked(port)) {
            marked.push_back(port);
        }
    }
    return marked;
}

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

Json seconds_until(std::optional<Time> due) {
    if (!due) {
        return {};
    }
    const Duration left = *due - platform().clock().now();
    return std::max<int64_t>(0, std::chrono::ceil<seconds>(left).count());
}

// Null also with a clock that does not move by itself.
Json local_time_of(std::optional<Time> due) {
    const Duration left = due ? platform().clock().real_time_until(*due) : Duration::max();
    if (left == Duration::max()) {
        return {};
    }
    return local_time(std::chrono::system_clock::now() +
                      std::chrono::duration_cast<std::chrono::system_clock::duration>(left));
}

// ---- show errdisable ----

std::vector<Json> row_of(const Port& port, seconds recovery) {
    const LoopedPort* const known = held_ports().find(port.name);
    const LoopFacts facts = known != nullptr ? known->facts : LoopFacts{};
    const bool since = known != nullptr && known->shut_since;
    const auto yesterday = std::chrono::system_clock::now() - std::chrono::hours(24);
    return {port.name,
            "loop",
            source_names(facts),
            facts.other_port.empty() ? Json() : Json(facts.other_port),
            facts.vlan == 0 ? Json() : Json(facts.vlan),
            since ? Json(local_time(*known->shut_since)) : Json(),
            seconds_until(recovery_due(port, recovery)),
            held_ports().times_shut(port.name, yesterday),
            held_ports().probe_sees_loop(port.ifx) ? Json("still looped") : Json()};
}

int show_held(cli_pcdb*) {
    Table table({{"port", "Port", 16},
                 {"cause", "Cause", 5},
                 {"sources", "Source", 10},
                 {"other_port", "Other port", 16},
                 {"vlan", "VLAN", 5},
                 {"since", "Since", 19},
                 {"recovers_in_s", "Recovery/s", 10},
                 {"shut_last_day", "Last day", 8},
                 {"probe", "Probe", 0}});
    const seconds recovery = agent_recovery_time();
    for (const Port& port : marked_ports(true)) {
        table.add(row_of(port, recovery));
    }
    if (json_wanted()) {
        print_json({{"version", kVersion}, {"ports", table.json()}});
    } else {
        table.print();
    }
    return 0;
}

int show_recovery(cli_pcdb*) {
    Table table({{"port", "Port", 16},
                 {"recovers_in_s", "Recovery/s", 10},
                 {"recovers_at", "At the latest", 19},
                 {"rule", "Rule", 16},
                 {"refused", "Refused", 0}});
    const seconds recovery = agent_recovery_time();
    for (const Port& port : marked_ports(true)) {
        const std::optional<Time> due = recovery_due(port, recovery);
        const std::string refusal = held_ports().last_refusal(port.name);
        const std::string rule = rule_text(recovery_rule(port.ifx));
        table.add({port.name, seconds_until(due), local_time_of(due),
                   rule.empty() ? Json() : Json(rule), refusal.empty() ? Json() : Json(refusal)});
    }
    if (json_wanted()) {
        print_json({{"version", kVersion},
                    {"recovery_time_s", recovery.count()},
                    {"ports", table.json()}});
    } else {
        cli_printf("Recovery time: %lld s\n\n", static_cast<long long>(recovery.count()));
        table.print();
    }
    return 0;
}

// ---- clear errdisable ----

// REASON of "% REASON.", the first line of what a refused line has printed.
std::string first_reason(std::string_view output) {
    std::string_view line = output.substr(0, output.find_first_of("\r\n"));
    line.remove_prefix(line.starts_with("% ") ? 2 : 0);
    line.remove_suffix(line.ends_with('.') ? 1 : 0);
    return std::string(line);
}

// Removes the agent's mark by the agent's own line, with the rights of the session at hand. Returns
// an empty text on success, else the reason. The agent brings the port up afterwards.
std::string remove_mark(uint32_t ifx) {
    SessionState session = *current_session();
    session.mode = kModeInterface;
    session.ifx = ifx;
    const Result result = execute(session, std::string("no ").append(kHeldLine));
    if (!result.output.empty()) {
        return first_reason(result.output);
    }
    // The agent refuses without a word to the session.
    const Port* const port = platform().ports().find(ifx);
    if (port == nullptr || !is_marked(*port)) {
        return "";
    }
    return detection_enabled() ? "the agent keeps it shut; see 'show logging'"
                               : "not possible while loop-detect is disabled";
}

int clear_one(cli_pcdb* pcdb) {
    const std::string name = pcdb->word[0];
    const Port* const port = platform().ports().find(std::string_view(name));
    if (port == nullptr) {
        return refuse("Unknown interface: '" + name + "'.");
    }
    if (!is_marked(*port)) {
        return refuse("Interface " + name + " is not held shut by loop-detect.");
    }
    const std::string reason = remove_mark(port->ifx);
    return reason.empty() ? 0 : refuse("Interface " + name + ": " + reason + ".");
}

int clear_all(cli_pcdb*) {
    int result = 0;
    for (const Port& port : marked_ports(false)) {
        const std::string reason = remove_mark(port.ifx);
        if (!reason.empty()) {
            result = refuse("Interface " + port.name + ": " + reason + ".");
        }
    }
    return result;
}

}  // namespace

void register_errdisable_commands() {
    constexpr const char* kHelp = "Interfaces that loop detection holds shut";
    attach(CLI_CHAIN_SHOW,
           keyword("errdisable", kHelp,
                   keyword("recovery", "When they come back", end_of_line(show_recovery),
                           end_of_line(show_held))),
           "show errdisable");
    attach(kChainExec,
           keyword("clear", "Reset",
                   keyword("errdisable", kHelp,
                           keyword("interface", "Bring one back",
                                   custom(port_name_action, end_of_line(clear_one)),
                                   keyword("all", "Bring all back", end_of_line(clear_all))))),
           "clear errdisable");
}

}  // namespace qv::cli
