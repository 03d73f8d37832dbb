// Builders for the agent's expected messages.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace qv::test {

using Lines = std::vector<std::string>;

// Traced lines. A text that begins with "<function>" is an INFO line of the agent; others are taken
// unchanged.
inline Lines traced(std::initializer_list<std::string_view> texts) {
    Lines lines;
    for (const std::string_view text : texts) {
        lines.push_back((text.starts_with("<") ? "LDA-6-INFO: " : "") + std::string(text));
    }
    return lines;
}

// One list after the other.
inline Lines together(std::initializer_list<Lines> parts) {
    Lines lines;
    for (const Lines& part : parts) {
        lines.insert(lines.end(), part.begin(), part.end());
    }
    return lines;
}

// A line in quotes, with its control characters as C escapes: its ends are visible in a file.
inline std::string quoted(std::string_view line) {
    std::string text = "\"";
    for (const char c : line) {
        switch (c) {
            case '\r':
                text += "\\r";
                break;
            case '\n':
                text += "\\n";
                break;
            case '"':
            case '\\':
                text += '\\';
                [[fallthrough]];
            default:
                text += c;
        }
    }
    return text + '"';
}

// A notification as take_notifications() gives it.
inline std::string notified(std::string_view port, std::string_view type, std::string_view policy,
                            std::string_view src_port) {
    const std::string entry = "notify-entry[name='" + std::string(port) + "']/";
    std::string line = entry;
    line.append("notify-type=").append(type).append(" ");
    line.append(entry).append("vid=0 ");
    line.append(entry).append("policy=").append(policy).append(" ");
    line.append(entry).append("src-port=").append(src_port);
    return line;
}

}  // namespace qv::test
