// "show loop-detect history": what happened to ports because of loops.
#include <nlohmann/json.hpp>
#include <string>

#include "platform/cli/command_trees.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/local_time.h"
#include "platform/cli/loop_history_text.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kHistoryVersion = 1;  // of the JSON answer

// Null in place of an empty text or 0.
template <typename T>
Json known_or_null(const T& value) {
    return value == T() ? Json() : Json(value);
}

int show_history_of_loops(cli_pcdb*) {
    Table table({{"time", "Time", 19},
                 {"port", "Port", 16},
                 {"action", "Action", 12},
                 {"sources", "Source", 10},
                 {"other_port", "Other port", 16},
                 {"vlan", "VLAN", 5},
                 {"duration_s", "Duration/s", 10},
                 {"times", "Times", 5},
                 {"reason", "Reason", 0}});
    for (const LoopEvent& event : held_ports().events()) {
        table.add({local_time(event.time), event.port, action_name(event.action),
                   source_names(event.facts), known_or_null(event.facts.other_port),
                   known_or_null(event.facts.vlan),
                   event.duration ? Json(event.duration->count()) : Json(),
                   event.times ? Json(*event.times) : Json(), known_or_null(event.reason)});
    }
    if (json_wanted()) {
        print_json({{"version", kHistoryVersion}, {"events", table.json()}});
    } else {
        table.print();
    }
    return 0;
}

}  // namespace

// The agent has "show loop-detect" itself; the help of its word is repeated here.
void register_loop_history_command() {
    attach(CLI_CHAIN_SHOW,
           keyword("loop-detect", "loop detect interface",
                   keyword("history", "Loops, shutdowns and recoveries so far",
                           end_of_line(show_history_of_loops))),
           "show loop-detect history");
}

}  // namespace qv::cli
