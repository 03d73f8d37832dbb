#include "platform/cli/tarn_show.h"

#include <string_view>
#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/local_time.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"
#include "platform/client/platform.h"
#include "qv/bridge.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

std::function<const TarnPortStates*()>& source() {
    static auto& instance = *new std::function<const TarnPortStates*()>;
    return instance;
}

std::string name_of(uint32_t ifx) {
    const Port* const port = platform().ports().find(ifx);
    return port != nullptr ? port->name : "interface " + std::to_string(ifx);
}

const char* role_of(uint32_t vlan_mode) {
    if (vlan_mode == SWPORT_MODE_ACCESS) {
        return "access";
    }
    if (vlan_mode == SWPORT_MODE_TRUNK) {
        return "trunk";
    }
    return vlan_mode == SWPORT_MODE_HYBRID ? "hybrid" : "none";
}

void add_row(Table& table, uint32_t ifx, const TarnPortState& port) {
    std::vector<Json> cells{name_of(ifx), port.state, role_of(port.vlan_mode),
                            port.guard_ms != 0 ? Json(port.guard_ms) : Json()};
    if (port.loop) {
        const TarnLoop& loop = *port.loop;
        cells.insert(cells.end(), {local_time(loop.time), name_of(loop.src_ifx), name_of(loop.ifx),
                                   loop.vid, loop.path_us, loop.found_by});
    } else {
        cells.resize(10);
    }
    table.add(std::move(cells));
}

// Shows one port; 0 shows all.
int show(uint32_t only) {
    const TarnPortStates* const states = source() ? source()() : nullptr;
    if (states == nullptr) {
        return refuse("The loop-probe service tarnd is not running.");
    }
    Table table({{"port", "Port", 16},
                 {"state", "State", 9},
                 {"role", "Role", 7},
                 {"guard_ms", "Guard/ms", 8},
                 {"time", "Last loop", 19},
                 {"src_port", "From", 16},
                 {"to_port", "To", 16},
                 {"vid", "VLAN", 5},
                 {"path_us", "us", 7},
                 {"found_by", "Found by", 0}});
    for (const auto& [ifx, state] : *states) {
        if (only == 0 || ifx == only) {
            add_row(table, ifx, state);
        }
    }
    table.print();
    return 0;
}

int show_all(cli_pcdb*) {
    return show(0);
}

int show_one(cli_pcdb* pcdb) {
    const Port* const port = platform().ports().find(std::string_view(pcdb->word[0]));
    return port != nullptr ? show(port->ifx)
                           : refuse("Unknown interface: '" + std::string(pcdb->word[0]) + "'.");
}

}  // namespace

void set_tarn_states(std::function<const TarnPortStates*()> states) {
    source() = std::move(states);
}

void register_show_tarn() {
    attach(CLI_CHAIN_SHOW,
           keyword("tarn", "Loop probes of the interfaces",
                   keyword("interface", "Of one interface",
                           custom(port_name_action, end_of_line(show_one)), end_of_line(show_all))),
           "show tarn");
}

}  // namespace qv::cli
