// Parse nodes: their actions (distinguished only by address) and trees as text.
#include <map>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {
namespace {

constexpr int DEPTH_LIMIT = 32;  // no command has that many words

std::map<const void*, std::string>& names() {
    static auto* instance = new std::map<const void*, std::string>;
    return *instance;
}

std::string name_of(const void* thing) {
    auto found = names().find(thing);
    return found == names().end() ? "(unnamed)" : found->second;
}

std::string list(const uint32_t* words, int number) {
    std::string text;
    for (int i = 0; i < number; i++)
        text += (i == 0 ? "" : ",") + std::to_string(words[i]);
    return text;
}

template <typename Function>
const void* address(Function* function) {
    return reinterpret_cast<const void*>(function);
}

std::string keyword_text(const cli_keyword_arg& a) {
    return "keyword " + quoted(a.keyword) + " [" + quoted(a.help) + "] " + std::to_string(a.zero) +
           " " + list(a.attribute, 2) + " " + list(a.word, 5) + " " + quoted(a.name) + " " +
           std::to_string(a.one);
}

std::string number_text(const cli_number_arg& a) {
    return "number [" + quoted(a.help) + "] " + std::to_string(a.low) + ".." +
           std::to_string(a.high) + " " + std::to_string(a.zero) + " " + std::to_string(a.flags) +
           " slot " + std::to_string(a.slot);
}

std::string word_text(const cli_word_arg& a) {
    return "word " + quoted(a.name) + " [" + quoted(a.help) + "] slot " + std::to_string(a.slot) +
           (a.rest ? " rest" : "");
}

template <typename Block>
const Block& block(const cli_node* node) {
    return *static_cast<const Block*>(node->argument);
}

std::string node_text(const cli_node* node) {
    if (node->action == common_keyword_action)
        return keyword_text(block<cli_keyword_arg>(node));
    if (node->action == common_number_action)
        return number_text(block<cli_number_arg>(node));
    if (node->action == common_word_action)
        return word_text(block<cli_word_arg>(node));
    if (node->action == eol_action)
        return "eol " + std::to_string(block<cli_eol_arg>(node).one) + " " +
               name_of(address(block<cli_eol_arg>(node).handler));
    if (node->action == c2p_action)
        return "c2p " + name_of(address(block<cli_c2p_arg>(node).handler));
    if (node->action == noprefix_action)
        return "noprefix";
    if (node->action == defaultprefix_action)
        return "defaultprefix";
    if (node->action == append_point_action)
        return "append";
    if (node->action == test_expression_action)
        return "test " + name_of(address(block<cli_test_arg>(node).test));
    return "unknown action";
}

void render_node(const cli_node* node, int depth, const std::string& lead, std::string& text) {
    if (node == nullptr || node == &Tno_alt)
        return;
    text += std::string(static_cast<size_t>(depth) * 2, ' ') + lead + node_text(node);
    auto named = names().find(node);
    text += (named == names().end() ? "" : " " + named->second) +
            (node->reserved == nullptr ? "\n" : " with last field\n");
    if (depth >= DEPTH_LIMIT) {
        text += "(too deep)\n";
        return;
    }
    bool test = node->action == test_expression_action;
    const cli_node* accept = test ? block<cli_test_arg>(node).accept : node->accept;
    const cli_node* alternative = test ? block<cli_test_arg>(node).alternative : node->alternative;
    render_node(accept, depth + 1, "", text);
    render_node(alternative, depth, "else ", text);
}

}  // namespace

void name(const void* thing, const std::string& text) {
    names()[thing] = text;
}

std::string tree(const cli_node* root) {
    std::string text;
    render_node(root, 0, "", text);
    return text;
}

}  // namespace fake

extern "C" {

extern const cli_node Tno_alt = {nullptr, nullptr, nullptr, nullptr, nullptr};

void common_keyword_action(cli_walk*, const cli_node*) {
    fake::record("common_keyword_action");
}
void common_number_action(cli_walk*, const cli_node*) {
    fake::record("common_number_action");
}
void common_word_action(cli_walk*, const cli_node*) {
    fake::record("common_word_action");
}
void eol_action(cli_walk*, const cli_node*) {
    fake::record("eol_action");
}
void noprefix_action(cli_walk*, const cli_node*) {
    fake::record("noprefix_action");
}
void defaultprefix_action(cli_walk*, const cli_node*) {
    fake::record("defaultprefix_action");
}
void c2p_action(cli_walk*, const cli_node*) {
    fake::record("c2p_action");
}
void append_point_action(cli_walk*, const cli_node*) {
    fake::record("append_point_action");
}
void test_expression_action(cli_walk*, const cli_node*) {
    fake::record("test_expression_action");
}

}  // extern "C"
