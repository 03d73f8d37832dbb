// Blanks of typed and saved lines.
#pragma once

#include <string_view>

namespace qv::cli {

inline constexpr std::string_view kBlanks = " \t\r\n";

// The text without the blanks at both ends; empty when it has nothing else.
inline std::string_view trimmed(std::string_view text) {
    const size_t start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) {
        return {};
    }
    return text.substr(start, text.find_last_not_of(kBlanks) + 1 - start);
}

}  // namespace qv::cli
