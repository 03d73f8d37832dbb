// "show errdisable ..." and "clear errdisable ...": ports that loop detection holds shut, and the
// time of their recovery.
#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/held_list.h"
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

// ---- show errdisable ----

Json seconds_until(std::optional<Time> due) {
    if (!due) {
        return {};
    }
    const Duration left = *due - platform().clock().now();
    return std::max<int64_t>(0, std::chrono::ceil<seconds>(left).count());
}

Json or_null(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

std::vector<Json> row_of(const HeldPort& port) {
    return {port.name,
            "loop",
            source_names(port.facts),
            or_null(port.facts.other_port),
            port.facts.vlan == 0 ? Json() : Json(port.facts.vlan),
            port.since ? Json(local_time(*port.since)) : Json(),
            seconds_until(port.recovery_due),
            port.shut_last_day,
            port.still_looped ? Json("still looped") : Json()};
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
    for (const HeldPort& port : ports_held_shut()) {
        table.add(row_of(port));
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
    for (const HeldPort& port : ports_held_shut()) {
        const auto at = wall_time_of(port.recovery_due);
        table.add({port.name, seconds_until(port.recovery_due), at ? Json(local_time(*at)) : Json(),
                   or_null(port.rule), or_null(port.refused)});
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
    std::vector<Port> marked;  // also those that somebody has opened
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (is_marked(port)) {
            marked.push_back(port);
        }
    }
    for (const Port& port : marked) {
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
