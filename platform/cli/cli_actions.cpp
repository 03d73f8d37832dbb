// The actions of parse nodes: what each kind of node does in a walk.
#include "platform/cli/walk.h"

namespace {

void end_of_list(cli_walk*, const cli_node*) {}

template <typename Argument>
const Argument& argument_of(const cli_node* node) {
    return *static_cast<const Argument*>(node->argument);
}

void prefix_action(cli_walk* walk, const cli_node* node, uint32_t prefix) {
    const bool has_prefix = (walk->pcdb->prefix & prefix) != 0;
    walk->visit(has_prefix ? node->accept : node->alternative);
}

}  // namespace

extern "C" {

const cli_node Tno_alt = {end_of_list, nullptr, nullptr, nullptr, nullptr};

void common_keyword_action(cli_walk* walk, const cli_node* node) {
    const auto& keyword = argument_of<cli_keyword_arg>(node);
    walk->offer_keyword(keyword.keyword, keyword.help, node);
    walk->visit(node->alternative);
}

void common_number_action(cli_walk* walk, const cli_node* node) {
    walk->offer_number(argument_of<cli_number_arg>(node), node);
    walk->visit(node->alternative);
}

void common_word_action(cli_walk* walk, const cli_node* node) {
    walk->offer_word(argument_of<cli_word_arg>(node), node);
    walk->visit(node->alternative);
}

void eol_action(cli_walk* walk, const cli_node* node) {
    walk->offer_end(argument_of<cli_eol_arg>(node).handler);
    walk->visit(node->alternative);
}

void noprefix_action(cli_walk* walk, const cli_node* node) {
    const bool before = walk->place.no_allowed;
    walk->place.no_allowed = true;
    prefix_action(walk, node, CLI_PREFIX_NO);
    walk->place.no_allowed = before;
}

void defaultprefix_action(cli_walk* walk, const cli_node* node) {
    const bool before = walk->place.default_allowed;
    walk->place.default_allowed = true;
    prefix_action(walk, node, CLI_PREFIX_DEFAULT);
    walk->place.default_allowed = before;
}

void c2p_action(cli_walk* walk, const cli_node* node) {
    if (walk->generating()) {
        if (walk->first_time(node)) {
            argument_of<cli_c2p_arg>(node).handler(walk->pcdb);
        }
        return;  // generation finds the next node by itself
    }
    walk->visit(node->accept);
    walk->visit(node->alternative);
}

void append_point_action(cli_walk* walk, const cli_node* node) {
    walk->visit(node->accept);
    walk->visit(node->alternative);
}

void test_expression_action(cli_walk* walk, const cli_node* node) {
    const auto& test = argument_of<cli_test_arg>(node);
    walk->visit(test.test(walk->pcdb) != 0 ? test.accept : test.alternative);
}

}  // extern "C"
