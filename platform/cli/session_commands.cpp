// Commands that move the session between levels and modes.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_lock.h"
#include "platform/cli/config_log.h"
#include "platform/cli/engine.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/timed_return.h"
#include "platform/cli/walk.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

int enable(cli_pcdb*) {
    current_session()->privileged = true;
    return 0;
}

int disable(cli_pcdb*) {
    current_session()->privileged = false;
    return 0;
}

int leave(cli_pcdb*) {
    current_session()->leaving = true;
    return 0;
}

// Enters mode config unless `obstacle` says why not.
int enter_config_unless(const std::string& obstacle) {
    if (!obstacle.empty()) {
        return refuse(obstacle);
    }
    current_session()->mode = kModeConfig;
    return 0;
}

int enter_config(cli_pcdb*) {
    return enter_config_unless(config_lock_refusal(*current_session()));
}

int enter_exclusively(cli_pcdb*) {
    return enter_config_unless(take_config_lock(*current_session()));
}

int enter_on_trial(cli_pcdb* pcdb) {
    const int64_t minutes = pcdb->number[0];
    std::string obstacle = config_lock_refusal(*current_session());
    obstacle = obstacle.empty() ? begin_timed_return(minutes) : obstacle;
    if (obstacle.empty()) {
        log_entered(*current_session(), "configure terminal revert " + std::to_string(minutes), "");
    }
    return enter_config_unless(obstacle);
}

int clear_lock(cli_pcdb*) {
    if (clear_config_lock(*current_session())) {
        return 0;
    }
    const std::string holder = config_lock_holder();
    return refuse(holder.empty() ? "Nobody has locked the configuration."
                                 : "The configuration is locked by " + holder +
                                       ": only <kill-session> ends that.");
}

// The lock ends when the session leaves the configuration modes.
int leave_config() {
    release_config_lock(*current_session());
    current_session()->mode = kModeExec;
    return 0;
}

int exit_mode(cli_pcdb* pcdb) {
    if (std::string_view(pcdb->mode) == kModeConfig) {
        return leave_config();
    }
    current_session()->mode = kModeConfig;
    return 0;
}

int end_modes(cli_pcdb*) {
    return leave_config();
}

int enter_interface(cli_pcdb* pcdb) {
    const Port* port = platform().ports().find(std::string_view(pcdb->word[0]));
    if (!port) {
        return refuse("Unknown interface: '" + std::string(pcdb->word[0]) + "'.");
    }
    current_session()->mode = kModeInterface;
    current_session()->ifx = port->ifx;
    return 0;
}

// A port name, split into the text before its last digits and their value.
struct Numbered {
    std::string_view stem;
    unsigned number;
};

std::optional<Numbered> split_number(std::string_view name) {
    size_t digits = name.size();
    while (digits > 0 && std::isdigit(static_cast<unsigned char>(name[digits - 1]))) {
        --digits;
    }
    unsigned number = 0;
    const char* end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data() + digits, end, number);
    if (stop != end || error != std::errc{}) {
        return {};
    }
    return Numbered{name.substr(0, digits), number};
}

// Appends the port of this name. False with `problem` set when there is none.
bool add_port(const std::string& name, std::vector<uint64_t>& range, std::string& problem) {
    const Port* port = platform().ports().find(name);
    if (!port) {
        problem = "Unknown interface: '" + name + "'.";
        return false;
    }
    if (std::find(range.begin(), range.end(), port->ifx) == range.end()) {
        range.push_back(port->ifx);
    }
    return true;
}

// One piece of a range: "swp3", "swp1-4" or "swp1-swp4".
bool add_piece(std::string_view piece, std::vector<uint64_t>& range, std::string& problem) {
    const size_t dash = piece.rfind('-');
    // A port may have a dash in its name.
    if (dash == std::string_view::npos || platform().ports().find(piece)) {
        return add_port(std::string(piece), range, problem);
    }
    const auto first = split_number(piece.substr(0, dash));
    const auto last = split_number(piece.substr(dash + 1));
    const bool fits = first && last && (last->stem.empty() || last->stem == first->stem) &&
                      first->number <= last->number &&
                      last->number - first->number <= platform().ports().ports().size();
    if (!fits) {
        problem = "Invalid range: '" + std::string(piece) + "'.";
        return false;
    }
    for (unsigned number = first->number; number <= last->number; ++number) {
        if (!add_port(std::string(first->stem) + std::to_string(number), range, problem)) {
            return false;
        }
    }
    return true;
}

int enter_range(cli_pcdb* pcdb) {
    std::string list = pcdb->word[0];
    std::erase_if(list, [](unsigned char c) { return std::isspace(c) != 0; });
    std::vector<uint64_t> range;
    std::string problem;
    for (std::string_view rest = list; !rest.empty();) {
        const size_t comma = std::min(rest.find(','), rest.size());
        if (!add_piece(rest.substr(0, comma), range, problem)) {
            return refuse(problem);
        }
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
    if (range.empty()) {
        return refuse("The range has no interface.");
    }
    current_session()->mode = kModeRange;
    current_session()->range = std::move(range);
    current_session()->range_as_typed = std::move(list);
    return 0;
}

}  // namespace

void port_name_action(cli_walk* walk, const cli_node* node) {
    static constexpr cli_word_arg kName = {
        .name = "INTERFACE", .help = "Name of an interface", .slot = 0, .rest = false};
    if (walk->generating()) {
        walk->visit(node->accept);
        walk->visit(node->alternative);
        return;
    }
    walk->offer_word(kName, node);
    if (walk->hinting()) {
        for (const auto& [ifx, port] : platform().ports().ports()) {
            walk->hint(port.name, "");
        }
    }
    walk->visit(node->alternative);
}

void register_session_commands() {
    attach(kChainView, keyword("enable", "All commands", end_of_line(enable)), "enable");
    attach(kChainView, keyword("disable", "View commands only", end_of_line(disable)), "disable");
    attach(kChainView, keyword("exit", "Leave the session", end_of_line(leave)), "exit");
    const cli_node* minutes = number("Minutes until the configuration before is back", 1,
                                     kMaxReturnMinutes, end_of_line(enter_on_trial));
    const cli_node* terminal =
        keyword("revert", "Go back unless it is confirmed", minutes, end_of_line(enter_config));
    attach(kChainExec,
           keyword("configure", "Change the configuration",
                   keyword("terminal", "By commands", terminal,
                           keyword("exclusive", "By commands of this session alone",
                                   end_of_line(enter_exclusively)))),
           "configure terminal");
    attach(kChainExec,
           keyword("clear", "Reset",
                   keyword("configure", "Changing the configuration",
                           keyword("lock", "Of the session that configures exclusively",
                                   end_of_line(clear_lock)))),
           "clear configure lock");

    attach(kChainSession, keyword("exit", "Back to the mode before", end_of_line(exit_mode)),
           "exit");
    attach(kChainSession, keyword("end", "Back to the first mode", end_of_line(end_modes)), "end");
    const cli_node* range =
        keyword("range", "Several interfaces",
                rest_of_line("LIST", "Such as swp1-4,swp7", end_of_line(enter_range)),
                custom(port_name_action, end_of_line(enter_interface)));
    attach(kChainSession, keyword("interface", "Configure an interface", range), "interface");
}

}  // namespace qv::cli
