// Debug switches and the version.
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/base/guarded.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/walk.h"

namespace qv::cli {
namespace {

// Operations of a switch's control function.
constexpr int kOn = 1;
constexpr int kOff = 2;
constexpr int kPrint = 3;

using Control = void (*)(int operation);

std::map<std::string, Control>& switches() {
    static auto& instance = *new std::map<std::string, Control>;
    return instance;
}

// Accepts the name of a debug switch as if each had a keyword.
void switch_name_action(cli_walk* walk, const cli_node* node) {
    if (walk->generating()) {
        return;
    }
    for (const auto& [name, control] : switches()) {
        walk->offer_keyword(name, "Debug switch", node,
                            {.slot = Capture::Slot::kWord, .index = 0, .number = 0, .word = name});
    }
}

int set_switch(cli_pcdb* pcdb) {
    switches().at(pcdb->word[0])((pcdb->prefix & CLI_PREFIX_NO) ? kOff : kOn);
    return 0;
}

int show_switches(cli_pcdb*) {
    for (const auto& [name, control] : switches()) {
        control(kPrint);
    }
    return 0;
}

int show_version(cli_pcdb*) {
    if (json_wanted()) {
        print_json({{"program", "lda"}, {"version", LDA_VERSION}});
        return 0;
    }
    cli_printf("lda %s\n", LDA_VERSION);
    return 0;
}

}  // namespace

void register_debug_commands() {
    const cli_node* name = custom(switch_name_action, end_of_line(set_switch));
    attach(CLI_CHAIN_DEBUG, with_no(name, name), "debug switches");
    attach(CLI_CHAIN_SHOW,
           keyword("debugging", "Debug switches that are on", end_of_line(show_switches)),
           "show debugging");
    attach(CLI_CHAIN_SHOW, keyword("version", "Version of the program", end_of_line(show_version)),
           "show version");
}

}  // namespace qv::cli

extern "C" int sys_add_debug(const char* name, void (*control)(int operation)) {
    if (!name || !control || *name == '\0' || std::strlen(name) >= CLI_WORD_BYTES) {
        return -1;
    }
    return qv::guarded(-1,
                       [&] { return qv::cli::switches().emplace(name, control).second ? 0 : -1; });
}
