// Argument blocks of parse nodes as every tree of the agent fills them, and the tests that its
// handlers make of their context.
#pragma once

#include <cstdint>

#include <qv/cli.h>

// Attribute words of a keyword. The framework carries them and gives them their meaning.
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

// A number that goes to a number slot of the context.
constexpr cli_number_arg app_number(const char* help, int64_t low, int64_t high,
                                    uint32_t slot = 0) {
    return {.help = help, .low = low, .high = high, .zero = 0, .flags = 258, .slot = slot};
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
