#include "platform/cli/agent_table.h"

#include <algorithm>
#include <charconv>

#include "platform/cli/engine.h"
#include "qv/bridge.h"

namespace qv::cli {
namespace {

constexpr std::string_view kPolicyLine = "loop-detect policy: ";
constexpr std::string_view kLoop = "loop";
constexpr std::string_view kNormal = "normal";

std::string_view take_line(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

// The number that `text` begins with, which it loses.
std::optional<uint32_t> take_number(std::string_view& text) {
    uint32_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{}) {
        return {};
    }
    text.remove_prefix(static_cast<size_t>(stop - text.data()));
    return value;
}

void trim_end(std::string_view& text) {
    text.remove_suffix(text.size() - (text.find_last_not_of(" \r") + 1));
}

// The last word of `text`, which loses it.
std::string_view take_last_word(std::string_view& text) {
    trim_end(text);
    const size_t start = text.rfind(' ') + 1;  // 0 without a blank
    const std::string_view word = text.substr(start);
    text.remove_suffix(word.size());
    return word;
}

uint32_t vlan_mode_of(std::string_view name) {
    for (const uint32_t mode : {SWPORT_MODE_ACCESS, SWPORT_MODE_TRUNK, SWPORT_MODE_HYBRID}) {
        if (name == swport_vlan_mode_name(mode)) {
            return mode;
        }
    }
    return SWPORT_MODE_NONE;
}

// A row from its right end: a name may be as wide as its column, and the next one follows it
// without a blank then.
std::optional<AgentPort> parse_row(std::string_view row) {
    AgentPort port;
    take_last_word(row);  // the aggregate
    port.vlan_mode = vlan_mode_of(take_last_word(row));
    port.held = take_last_word(row) == "shutdown";
    port.storm = take_last_word(row) == kLoop;
    port.tarn = take_last_word(row) == kLoop;
    trim_end(row);
    port.in_table = row.ends_with(kLoop);
    if (!port.in_table && !row.ends_with(kNormal)) {
        return {};
    }
    row.remove_suffix(port.in_table ? kLoop.size() : kNormal.size());
    const std::optional<uint32_t> ifx = take_number(row);
    trim_end(row);
    row.remove_prefix(std::min(row.find_first_not_of(' '), row.size()));
    if (!ifx || row.empty()) {
        return {};
    }
    port.ifx = *ifx;
    port.name = row;
    return port;
}

}  // namespace

std::optional<AgentTable> parse_agent_table(std::string_view text) {
    AgentTable table;
    bool has_policy = false;
    while (!text.empty()) {
        std::string_view line = take_line(text);
        if (line.starts_with(kPolicyLine)) {
            line.remove_prefix(kPolicyLine.size());
            const std::optional<uint32_t> policy = take_number(line);
            has_policy = policy.has_value();
            table.policy = policy.value_or(0);
        } else if (std::optional<AgentPort> port = parse_row(line)) {
            table.ports.push_back(std::move(*port));
        }
    }
    return has_policy ? std::optional(std::move(table)) : std::nullopt;
}

std::optional<AgentTable> read_agent_table() {
    SessionState session;
    const Result result = execute(session, "show lda detect-result");
    return result.code == 0 ? parse_agent_table(result.output) : std::nullopt;
}

}  // namespace qv::cli
