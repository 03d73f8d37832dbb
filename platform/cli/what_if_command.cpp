// "show loop-detect what-if ...": what a policy would do to the ports as they are now.
//
// The answer follows the agent. When the policy changes, the agent judges every port again: it
// holds those that are in its loop table and whose VLAN mode the new policy shuts, and recovers all
// others. A policy that is set a second time changes nothing: then ports stay as they are.
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "platform/cli/agent_table.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"
#include "platform/client/loop_policy.h"
#include "platform/client/platform.h"
#include "qv/bridge.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kWhatIfVersion = 1;  // of the JSON answer

// The line that sets the policy.
const char* policy_line(uint32_t policy) {
    switch (policy) {
        case kPolicyWarning:
            return "loop-detect enable";
        case kPolicyAccess:
            return "loop-detect enable shutdown access-mode";
        case kPolicyHybrid:
            return "loop-detect enable shutdown hybrid-mode";
        case kPolicyBoth:
            return "loop-detect enable shutdown access-hybrid-mode";
        default:
            return "no loop-detect enable";
    }
}

// Why the policy never shuts ports of a VLAN mode; empty when it does.
std::string obstacle(uint32_t policy, uint32_t mode) {
    if (policy_shuts(policy, mode)) {
        return "";
    }
    if (policy == kPolicyWarning) {
        return "the policy only warns";
    }
    return policy_shuts(kPolicyBoth, mode) ? "the policy does not name this VLAN mode"
                                           : "no policy shuts this VLAN mode";
}

struct Answer {
    Table shut{{{"port", "Port", 16},
                {"mode", "VLAN mode", 9},
                {"sources", "Source", 10},
                {"other_port", "Other port", 16},
                {"vlan", "VLAN", 5},
                {"now", "Now", 0}}};
    Table reported{{{"port", "Port", 16},
                    {"mode", "VLAN mode", 9},
                    {"sources", "Source", 10},
                    {"other_port", "Other port", 16},
                    {"vlan", "VLAN", 5},
                    {"now", "Now", 6},
                    {"reason", "Reason", 0}}};
    Table never{{{"port", "Port", 16}, {"mode", "VLAN mode", 9}, {"reason", "Reason", 0}}};
};

// Port, mode, sources, other port, VLAN and present state of a looped port.
std::vector<Json> looped_row(const AgentPort& port) {
    const LoopedPort* const known = held_ports().find(port.name);
    LoopFacts facts = known != nullptr ? known->facts : LoopFacts{};
    facts.tarn = port.tarn;
    facts.storm = port.storm;
    return {port.name,
            swport_vlan_mode_name(port.vlan_mode),
            source_names(facts),
            facts.other_port.empty() ? Json() : Json(facts.other_port),
            facts.vlan == 0 ? Json() : Json(facts.vlan),
            port.held ? "shut" : "open"};
}

// Why a looped port is not shut.
std::string why_reported(const AgentPort& port, uint32_t policy, uint32_t present) {
    if (std::string reason = obstacle(policy, port.vlan_mode); !reason.empty()) {
        return reason;
    }
    return policy == present
               ? "the policy is in force already; the next report of the loop shuts it"
               : "the loop table is full; the next report of the loop shuts it";
}

void judge(const AgentPort& port, uint32_t policy, uint32_t present, Answer& answer) {
    const bool looped = port.in_table || port.tarn || port.storm;
    const bool shuts =
        policy == present ? port.held : port.in_table && policy_shuts(policy, port.vlan_mode);
    if (looped && shuts) {
        answer.shut.add(looped_row(port));
    } else if (looped) {
        std::vector<Json> row = looped_row(port);
        row.emplace_back(why_reported(port, policy, present));
        answer.reported.add(std::move(row));
    } else if (const std::string reason = obstacle(policy, port.vlan_mode); !reason.empty()) {
        answer.never.add({port.name, swport_vlan_mode_name(port.vlan_mode), reason});
    }
}

// Ports of the switch that the agent has no record of: virtual-switch links and ports of other
// kinds.
void add_unwatched(const AgentTable& table, Answer& answer) {
    std::set<uint32_t> watched;
    for (const AgentPort& port : table.ports) {
        watched.insert(port.ifx);
    }
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (!watched.contains(ifx)) {
            answer.never.add({port.name, swport_vlan_mode_name(port.mode),
                              "loop detection does not watch this port"});
        }
    }
}

void print_group(const char* heading, const Table& table) {
    cli_printf("\n%s:%s\n", heading, table.empty() ? " none" : "");
    if (!table.empty()) {
        table.print();
    }
}

int what_if(uint32_t policy) {
    const std::optional<AgentTable> table = read_agent_table();
    if (!table) {
        return refuse("The agent does not answer.");
    }
    Answer answer;
    for (const AgentPort& port : table->ports) {
        judge(port, policy, table->policy, answer);
    }
    add_unwatched(*table, answer);
    if (json_wanted()) {
        print_json({{"version", kWhatIfVersion},
                    {"policy", policy_line(policy)},
                    {"policy_now", policy_line(table->policy)},
                    {"shut", answer.shut.json()},
                    {"reported", answer.reported.json()},
                    {"never", answer.never.json()}});
        return 0;
    }
    cli_printf("Policy: %s\nNow:    %s\n", policy_line(policy), policy_line(table->policy));
    if (table->policy == kPolicyDisabled) {
        cli_printf("Loop detection is disabled: no loop is known.\n");
    }
    print_group("Looped and shut", answer.shut);
    print_group("Looped and only reported", answer.reported);
    print_group("Never shut by this policy", answer.never);
    return 0;
}

int warning(cli_pcdb*) {
    return what_if(kPolicyWarning);
}
int shut_access(cli_pcdb*) {
    return what_if(kPolicyAccess);
}
int shut_hybrid(cli_pcdb*) {
    return what_if(kPolicyHybrid);
}
int shut_both(cli_pcdb*) {
    return what_if(kPolicyBoth);
}

}  // namespace

// The words are those of the agent's own "loop-detect enable ...", with their help.
void register_what_if_command() {
    const cli_node* modes = keyword(
        "access-mode", "add shutdown policy to access port", end_of_line(shut_access),
        keyword("hybrid-mode", "add shutdown policy to hybrid port", end_of_line(shut_hybrid),
                keyword("access-hybrid-mode", "add shutdown policy to access and hybrid port",
                        end_of_line(shut_both))));
    attach(CLI_CHAIN_SHOW,
           keyword("loop-detect", "loop detect interface",
                   keyword("what-if", "Ports that a policy would shut now",
                           keyword("enable", "open loop detect",
                                   keyword("shutdown", "shutdown", modes, end_of_line(warning))))),
           "show loop-detect what-if");
}

}  // namespace qv::cli
