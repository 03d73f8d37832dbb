#include "marker.h"

#include <algorithm>

namespace ldash {
namespace {

// Characters of UTF-8 text; each takes one column.
size_t width_of(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

}  // namespace

std::string marker(std::string_view prompt, std::string_view line, size_t wrong_at,
                   size_t columns) {
    const size_t before = width_of(prompt) + width_of(line.substr(0, wrong_at));
    const size_t all = width_of(prompt) + width_of(line);
    if (columns == 0 || before / columns != all / columns) {
        return {};
    }
    return std::string(before % columns, ' ') + "^\n";
}

}  // namespace ldash
