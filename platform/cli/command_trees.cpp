#include "platform/cli/command_trees.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "platform/base/guarded.h"
#include "platform/cli/engine.h"
#include "platform/cli/walk.h"

namespace qv::cli {
namespace {

struct Tree {
    const cli_node* root;
    bool has_no;
    bool has_default;
    Opening opening;
};

// Whether a node with `action` can be reached from `node`.
bool contains(const cli_node* node, cli_action action, std::vector<const cli_node*>& seen) {
    if (!node || std::find(seen.begin(), seen.end(), node) != seen.end()) {
        return false;
    }
    seen.push_back(node);
    if (node->action == action) {
        return true;
    }
    if (node->action == test_expression_action) {
        const auto& test = *static_cast<const cli_test_arg*>(node->argument);
        if (contains(test.accept, action, seen) || contains(test.alternative, action, seen)) {
            return true;
        }
    }
    return contains(node->accept, action, seen) || contains(node->alternative, action, seen);
}

bool contains(const cli_node* node, cli_action action) {
    std::vector<const cli_node*> seen;
    return contains(node, action, seen);
}

void find_opening(const cli_node* node, std::vector<const cli_node*>& seen, Opening& opening) {
    if (!node || node == &Tno_alt || std::find(seen.begin(), seen.end(), node) != seen.end()) {
        return;
    }
    seen.push_back(node);
    const cli_action action = node->action;
    if (action == common_keyword_action) {
        opening.keywords.emplace_back(static_cast<const cli_keyword_arg*>(node->argument)->keyword);
    } else if (action == test_expression_action) {
        const auto& test = *static_cast<const cli_test_arg*>(node->argument);
        find_opening(test.accept, seen, opening);
        find_opening(test.alternative, seen, opening);
        return;
    } else if (action == append_point_action || action == c2p_action || action == noprefix_action ||
               action == defaultprefix_action) {
        find_opening(node->accept, seen, opening);
    } else {
        opening.any_word = true;
    }
    find_opening(node->alternative, seen, opening);
}

Opening opening_of(const cli_node* tree) {
    std::vector<const cli_node*> seen;
    Opening opening;
    find_opening(tree, seen, opening);
    return opening;
}

// Every attachment point with its trees in the order in which they were added.
std::map<int, std::vector<Tree>>& chains() {
    static auto& instance = *new std::map<int, std::vector<Tree>>{
        {kChainView, {}},          {kChainExec, {}},
        {kChainSession, {}},       {CLI_CHAIN_SHOW, {}},
        {CLI_CHAIN_DEBUG, {}},     {CLI_CHAIN_CONFIG, {}},
        {CLI_CHAIN_INTERFACE, {}}, {CLI_CHAIN_INTERFACE_STORM, {}}};
    return instance;
}

// A tree with a node for the "no" prefix accepts it for all its commands, because the node may be
// beside the path. Under "debug" it must be on the path: the trees there hold unrelated commands.
void visit_chain(cli_walk* walk, int chain) {
    const Place before = walk->place;
    for (const Tree& tree : chains().at(chain)) {
        if (!walk->may_begin(tree.opening)) {
            continue;
        }
        walk->place.no_allowed = before.no_allowed || (tree.has_no && chain != CLI_CHAIN_DEBUG);
        walk->place.no_in_tree = tree.has_no;
        walk->place.default_in_tree = before.default_in_tree || tree.has_default;
        walk->visit(tree.root);
    }
    walk->place = before;
}

constexpr cli_keyword_arg keyword_arg(const char* word, const char* help) {
    return {.keyword = word,
            .help = help,
            .zero = 0,
            .attribute = {14, 14},
            .word = {1, 2, 0, 0, 0},
            .name = word,
            .one = 1};
}

void show_trees_action(cli_walk* walk, const cli_node*) {
    visit_chain(walk, CLI_CHAIN_SHOW);
}

void debug_trees_action(cli_walk* walk, const cli_node*) {
    visit_chain(walk, CLI_CHAIN_DEBUG);
}

const cli_node show_trees = {show_trees_action, nullptr, nullptr, nullptr, nullptr};
const cli_node debug_trees = {debug_trees_action, nullptr, nullptr, nullptr, nullptr};
constexpr cli_keyword_arg show_arg = keyword_arg("show", "Show what the switch knows");
constexpr cli_keyword_arg debug_arg = keyword_arg("debug", "Switch diagnostics on");
const cli_node debug_word = {common_keyword_action, &debug_arg, &debug_trees, nullptr, nullptr};
const cli_node show_word = {common_keyword_action, &show_arg, &show_trees, nullptr, nullptr};

void exec_root_action(cli_walk* walk, const cli_node*) {
    visit_chain(walk, kChainView);
    walk->visit(&show_word);
    if (!privileged()) {
        return;
    }
    visit_chain(walk, kChainExec);
    const Place before = walk->place;
    walk->place.no_in_tree = true;
    walk->visit(&debug_word);
    walk->place = before;
}

void config_commands_action(cli_walk* walk, const cli_node*) {
    visit_chain(walk, CLI_CHAIN_CONFIG);
}

void interface_commands_action(cli_walk* walk, const cli_node*) {
    visit_chain(walk, CLI_CHAIN_INTERFACE);
    visit_chain(walk, CLI_CHAIN_INTERFACE_STORM);
}

void config_root_action(cli_walk* walk, const cli_node* node) {
    visit_chain(walk, kChainSession);
    config_commands_action(walk, node);
}

void interface_root_action(cli_walk* walk, const cli_node* node) {
    visit_chain(walk, kChainSession);
    interface_commands_action(walk, node);
}

const cli_node exec_root = {exec_root_action, nullptr, nullptr, nullptr, nullptr};
const cli_node config_commands = {config_commands_action, nullptr, nullptr, nullptr, nullptr};
const cli_node interface_commands = {interface_commands_action, nullptr, nullptr, nullptr, nullptr};
const cli_node config_root = {config_root_action, nullptr, nullptr, nullptr, nullptr};
const cli_node interface_root = {interface_root_action, nullptr, nullptr, nullptr, nullptr};

// Stores `value` until the process ends and returns its address.
template <typename T>
const T* keep(T value) {
    static std::deque<T>& kept = *new std::deque<T>;
    return &kept.emplace_back(std::move(value));
}

const cli_node* node(cli_action action, const void* argument, const cli_node* accept,
                     const cli_node* alternative = &Tno_alt) {
    return keep(cli_node{action, argument, accept, alternative, nullptr});
}

}  // namespace

const cli_node* config_commands_root(std::string_view mode) {
    if (mode == kModeConfig) {
        return &config_commands;
    }
    return mode == kModeInterface || mode == kModeRange ? &interface_commands : nullptr;
}

const cli_node* show_commands_root() {
    return &show_word;
}

const cli_node* end_of_line(cli_handler handler) {
    return node(eol_action, keep(cli_eol_arg{1, handler}), nullptr);
}

const cli_node* keyword(const char* word, const char* help, const cli_node* accept,
                        const cli_node* alternative) {
    return node(common_keyword_action, keep(keyword_arg(word, help)), accept, alternative);
}

const cli_node* number(const char* help, int64_t low, int64_t high, const cli_node* accept,
                       const cli_node* alternative) {
    return number_in_slot(0, help, low, high, accept, alternative);
}

const cli_node* number_in_slot(uint32_t slot, const char* help, int64_t low, int64_t high,
                               const cli_node* accept, const cli_node* alternative) {
    return node(common_number_action, keep(cli_number_arg{help, low, high, 0, 258, slot}), accept,
                alternative);
}

const cli_node* any_word(const char* name, const char* help, const cli_node* accept) {
    return node(common_word_action, keep(cli_word_arg{name, help, 0, false}), accept);
}

const cli_node* rest_of_line(const char* name, const char* help, const cli_node* accept) {
    return node(common_word_action, keep(cli_word_arg{name, help, 0, true}), accept);
}

const cli_node* custom(cli_action action, const cli_node* accept, const cli_node* alternative) {
    return node(action, nullptr, accept, alternative);
}

const cli_node* with_no(const cli_node* accept, const cli_node* plain) {
    return node(noprefix_action, nullptr, accept, plain);
}

const cli_node* with_default(const cli_node* accept, const cli_node* plain) {
    return node(defaultprefix_action, nullptr, accept, plain);
}

const cli_node* print_config(cli_handler handler, const cli_node* accept) {
    return node(c2p_action, keep(cli_c2p_arg{handler}), accept);
}

void attach(int chain, const cli_node* first, const char* description) {
    cli_add_command(chain, node(append_point_action, nullptr, first), description);
}

}  // namespace qv::cli

extern "C" {

int cli_add_command(int chain, const cli_node* root, const char*) {
    const auto found = qv::cli::chains().find(chain);
    if (found == qv::cli::chains().end() || !root) {
        return -1;
    }
    return qv::guarded(-1, [&] {
        found->second.push_back({.root = root,
                                 .has_no = qv::cli::contains(root, noprefix_action),
                                 .has_default = qv::cli::contains(root, defaultprefix_action),
                                 .opening = qv::cli::opening_of(root)});
        return 0;
    });
}

const cli_node* cli_get_mode_root(const char* mode) {
    const std::string_view name = mode ? mode : "";
    if (name == qv::cli::kModeExec) {
        return &qv::cli::exec_root;
    }
    if (name == qv::cli::kModeConfig) {
        return &qv::cli::config_root;
    }
    if (name == qv::cli::kModeInterface || name == qv::cli::kModeRange) {
        return &qv::cli::interface_root;
    }
    return nullptr;
}

}  // extern "C"
