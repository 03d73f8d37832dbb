#include "platform/cli/hostname_command.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"

namespace qv::cli {
namespace {

constexpr const char* kDefaultName = "lda";
constexpr size_t kMaxBytes = 63;

std::string& name() {
    static std::string& instance = *new std::string(kDefaultName);
    return instance;
}

// One label of a host name (RFC 1123, section 2.1).
bool is_label(std::string_view word) {
    const bool letters = std::all_of(word.begin(), word.end(), [](unsigned char c) {
        return (c < 0x80 && std::isalnum(c)) || c == '-';
    });
    return letters && !word.empty() && word.size() <= kMaxBytes && word.front() != '-' &&
           word.back() != '-';
}

int set_name(cli_pcdb* pcdb) {
    if (pcdb->prefix & (CLI_PREFIX_NO | CLI_PREFIX_DEFAULT)) {
        name() = kDefaultName;
        return 0;
    }
    if (!is_label(pcdb->word[0])) {
        return refuse(
            "Invalid host name: 1 to 63 letters, digits and '-', which is neither first nor last.");
    }
    name() = pcdb->word[0];
    return 0;
}

int print_name(cli_pcdb* pcdb) {
    if (name() != kDefaultName) {
        c2p_printf(pcdb, 0, "hostname %s", name().c_str());
    }
    return 0;
}

}  // namespace

const std::string& host_name() {
    return name();
}

void register_hostname_command() {
    const cli_node* end = end_of_line(set_name);
    const cli_node* word = any_word("NAME", "Letters, digits and '-', at most 63", end);
    attach(CLI_CHAIN_CONFIG,
           keyword("hostname", "Name of the switch, shown in the prompt",
                   print_config(print_name, with_no(end, with_default(end, word)))),
           "hostname");
}

}  // namespace qv::cli
