// Argument blocks of parse nodes for all trees of the agent, and tests of a handler's context.
#pragma once

#include <cstdint>

#include <qv/cli.h>

// Attribute words of a keyword. Their meaning is the framework's.
inline constexpr uint32_t APP_KEYWORD_PLAIN = 14;          // global, show and debug chains
inline constexpr uint32_t APP_KEYWORD_INTERFACE = 0x800E;  // interface chain
inline constexpr uint32_t APP_KEYWORD_DETAIL = 30;         // "detail"

constexpr cli_keyword_arg app_keyword(const char* keyword, const char* help,
                                      uint32_t attribute = APP_KEYWORD_PLAIN) {
    return {.keyword = keyword,
            .help = help,
            .zero = 0,
            .attribute = {attribute, attribute},
            .word = {1, 2, 0, 0, 0},
            .name = keyword,
            .one = 1};
}

// A number that is stored in a number slot of the context.
constexpr cli_number_arg app_number(const char* help, int64_t low, int64_t high,
                                    uint32_t slot = 0) {
    return {.help = help, .low = low, .high = high, .zero = 0, .flags = 258, .slot = slot};
}

constexpr cli_eol_arg app_end(cli_handler handler) {
    return {.one = 1, .handler = handler};
}

constexpr cli_c2p_arg app_print(cli_handler handler) {
    return {.handler = handler};
}

constexpr cli_test_arg app_test(const cli_node& accept, cli_test_func test) {
    return {.accept = &accept, .alternative = &Tno_alt, .test = test};
}

// Nodes, one call for each kind of block: `accept` is taken when the node matches, `alternative`
// tried when it does not.
constexpr cli_node app_node(const cli_keyword_arg& block, const cli_node& accept,
                            const cli_node& alternative = Tno_alt) {
    return {common_keyword_action, &block, &accept, &alternative, nullptr};
}
constexpr cli_node app_node(const cli_number_arg& block, const cli_node& accept,
                            const cli_node& alternative = Tno_alt) {
    return {common_number_action, &block, &accept, &alternative, nullptr};
}
constexpr cli_node app_node(const cli_c2p_arg& block, const cli_node& accept) {
    return {c2p_action, &block, &accept, &Tno_alt, nullptr};
}
constexpr cli_node app_node(const cli_eol_arg& block, const cli_node& alternative = Tno_alt) {
    return {eol_action, &block, nullptr, &alternative, nullptr};
}
constexpr cli_node app_node(const cli_test_arg& block) {
    return {test_expression_action, &block, block.accept, block.alternative, nullptr};
}
// `accept` for a line with the prefix, else `alternative`.
constexpr cli_node app_no_prefix(const cli_node& accept, const cli_node& alternative) {
    return {noprefix_action, nullptr, &accept, &alternative, nullptr};
}
constexpr cli_node app_default_prefix(const cli_node& accept, const cli_node& alternative) {
    return {defaultprefix_action, nullptr, &accept, &alternative, nullptr};
}
// Root of a tree, for cli_add_command.
constexpr cli_node app_root(const cli_node& accept) {
    return {append_point_action, nullptr, &accept, &Tno_alt, nullptr};
}

// The line is only being completed or explained: a handler does nothing.
inline bool app_cli_is_help(const cli_pcdb* pcdb) {
    return (pcdb->flags & CLI_FLAG_HELP) != 0;
}
// The running configuration is being generated: a handler writes its line.
inline bool app_cli_is_generating(const cli_pcdb* pcdb) {
    return (pcdb->flags & CLI_FLAGS_GENERATING) != 0;
}
// The line has the prefix "no".
inline bool app_cli_has_no(const cli_pcdb* pcdb) {
    return (pcdb->prefix & CLI_PREFIX_NO) != 0;
}
// The line has the prefix "no" or "default".
inline bool app_cli_has_prefix(const cli_pcdb* pcdb) {
    return (pcdb->prefix & (CLI_PREFIX_NO | CLI_PREFIX_DEFAULT)) != 0;
}
