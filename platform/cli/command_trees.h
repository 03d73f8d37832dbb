// Command trees: modes, attachment points, and the tree under each. Loop thread only.
#pragma once

#include <string_view>

#include "qv/cli.h"

namespace qv::cli {

// The switch's own attachment points, in addition to those of qv/cli.h.
inline constexpr int kChainView = 1;  // mode exec, whatever the session's level
inline constexpr int kChainExec = 2;  // mode exec, privileged sessions
inline constexpr int kChainSession =
    3;  // modes config, interface and ifrange: exit, end, interface

inline constexpr const char* kModeExec = "exec";
inline constexpr const char* kModeConfig = "config";
inline constexpr const char* kModeInterface = "interface";
inline constexpr const char* kModeRange = "ifrange";

// The trees of a mode whose lines can be part of a configuration: all but those that move the
// session. Null for mode exec and an unknown mode.
const cli_node* config_commands_root(std::string_view mode);
// Only the tree of "show ...".
const cli_node* show_commands_root();

// Builders for the switch's own trees: the nodes are never destroyed, so texts must stay valid
// until the process ends.
const cli_node* end_of_line(cli_handler handler);
const cli_node* keyword(const char* word, const char* help, const cli_node* accept,
                        const cli_node* alternative = &Tno_alt);
const cli_node* number(const char* help, int64_t low, int64_t high, const cli_node* accept,
                       const cli_node* alternative = &Tno_alt);
// The same for number slot `slot` of the parse context; number() fills slot 0.
const cli_node* number_in_slot(uint32_t slot, const char* help, int64_t low, int64_t high,
                               const cli_node* accept, const cli_node* alternative = &Tno_alt);
const cli_node* any_word(const char* name, const char* help, const cli_node* accept);
const cli_node* rest_of_line(const char* name, const char* help, const cli_node* accept);
const cli_node* custom(cli_action action, const cli_node* accept,
                       const cli_node* alternative = &Tno_alt);
const cli_node* with_no(const cli_node* accept, const cli_node* plain);
const cli_node* with_default(const cli_node* accept, const cli_node* plain);
const cli_node* print_config(cli_handler handler, const cli_node* accept);
// Adds a tree with these first nodes.
void attach(int chain, const cli_node* first, const char* description);

}  // namespace qv::cli
