// "show interfaces ...": states, modes and counters of the ports.
#include <array>
#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"
#include "platform/client/platform.h"
#include "qv/bridge.h"
#include "qv/lsm.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

const char* mode_name(uint32_t mode) {
    if (mode == SWPORT_MODE_ACCESS) {
        return "access";
    }
    if (mode == SWPORT_MODE_TRUNK) {
        return "trunk";
    }
    return mode == SWPORT_MODE_HYBRID ? "hybrid" : "none";
}

const char* type_name(uint32_t type) {
    if (type == LSM_TYPE_ETHERNET) {
        return "ethernet";
    }
    if (type == LSM_TYPE_AGGREGATE) {
        return "aggregate";
    }
    return type == LSM_TYPE_VLAN ? "vlan" : "other";
}

const char* up_or_down(bool up) {
    return up ? "up" : "down";
}

// The aggregate port that a port belongs to; null for none.
const Port* aggregate_of(const Port& port) {
    return port.aggregate != 0 ? platform().ports().find(port.aggregate) : nullptr;
}

// Why a port is down; empty when it is up, or when nobody of this switch has shut it.
std::string down_reason(const Port& port) {
    if (port.admin_up) {
        return "";
    }
    if (is_marked(port)) {
        return "loop-detect";
    }
    return config_keeper()->shut_by(port.ifx) == ShutBy::kOperator ? "admin" : "";
}

int show_status(cli_pcdb*) {
    Table table({{"port", "Port", 16},
                 {"index", "Index", 8},
                 {"admin", "Admin", 6},
                 {"link", "Link", 5},
                 {"mode", "Mode", 7},
                 {"aggregate", "Aggregate", 16},
                 {"reason", "Reason", 0}});
    for (const auto& [ifx, port] : platform().ports().ports()) {
        const Port* aggregate = aggregate_of(port);
        table.add({port.name, ifx, up_or_down(port.admin_up), up_or_down(port.oper_up),
                   mode_name(port.mode), aggregate ? Json(aggregate->name) : Json(),
                   down_reason(port)});
    }
    table.print();
    return 0;
}

// The counters that the switch knows, by name.
std::vector<std::pair<const char*, uint64_t>> known(const PortCounters::Direction& counters) {
    const std::array<std::pair<const char*, std::optional<uint64_t>>, 4> all{
        {{"packets", counters.packets},
         {"bytes", counters.bytes},
         {"drops", counters.drops},
         {"errors", counters.errors}}};
    std::vector<std::pair<const char*, uint64_t>> some;
    for (const auto& [name, value] : all) {
        if (value) {
            some.emplace_back(name, *value);
        }
    }
    return some;
}

Json json_of(const PortCounters::Direction& counters) {
    Json object = Json::object();
    for (const auto& [name, value] : known(counters)) {
        object[name] = value;
    }
    return object;
}

Json json_of(const Port& port, const PortCounters& counters) {
    const Port* aggregate = aggregate_of(port);
    return {{"port", port.name},
            {"index", port.ifx},
            {"type", type_name(port.type)},
            {"admin", up_or_down(port.admin_up)},
            {"link", up_or_down(port.oper_up)},
            {"mode", mode_name(port.mode)},
            {"aggregate", aggregate ? Json(aggregate->name) : Json()},
            {"received", json_of(counters.received)},
            {"sent", json_of(counters.sent)}};
}

void print_direction(const char* heading, const PortCounters::Direction& counters) {
    std::string line;
    for (const auto& [name, value] : known(counters)) {
        line += (line.empty() ? " " : ", ") + std::to_string(value) + " " + name;
    }
    if (!line.empty()) {
        cli_printf("  %s%s\n", heading, line.c_str());
    }
}

void print_text(const Port& port, const PortCounters& counters) {
    const Port* aggregate = aggregate_of(port);
    cli_printf("%s is %s, link %s\n", port.name.c_str(), up_or_down(port.admin_up),
               up_or_down(port.oper_up));
    cli_printf("  Index %u, type %s, VLAN mode %s%s%s\n", port.ifx, type_name(port.type),
               mode_name(port.mode), aggregate ? ", aggregate " : "",
               aggregate ? aggregate->name.c_str() : "");
    print_direction("Received", counters.received);
    print_direction("Sent", counters.sent);
}

// Shows the ports in order of their index, with counters read in one request.
void show(const std::vector<const Port*>& ports, const std::map<uint32_t, PortCounters>& counters) {
    Json array = Json::array();
    for (const Port* port : ports) {
        const auto found = counters.find(port->ifx);
        const PortCounters known = found != counters.end() ? found->second : PortCounters{};
        if (json_wanted()) {
            array.push_back(json_of(*port, known));
        } else {
            print_text(*port, known);
        }
    }
    if (json_wanted()) {
        print_json(array);
    }
}

int show_all(cli_pcdb*) {
    const PortModel& model = platform().ports();
    std::vector<const Port*> ports;
    for (const auto& [ifx, port] : model.ports()) {
        ports.push_back(&port);
    }
    show(ports, model.counters(0));
    return 0;
}

int show_one(cli_pcdb* pcdb) {
    const PortModel& model = platform().ports();
    const Port* port = model.find(std::string_view(pcdb->word[0]));
    if (!port) {
        return refuse("Unknown interface: '" + std::string(pcdb->word[0]) + "'.");
    }
    show({port}, model.counters(port->ifx));
    return 0;
}

}  // namespace

void register_interface_commands() {
    const cli_node* details =
        custom(port_name_action, end_of_line(show_one), end_of_line(show_all));
    attach(CLI_CHAIN_SHOW,
           keyword("interfaces", "Interfaces",
                   keyword("status", "States and modes", end_of_line(show_status), details)),
           "show interfaces");
}

}  // namespace qv::cli
