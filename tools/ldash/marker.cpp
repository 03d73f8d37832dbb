#include "marker.h"

#include "screen.h"

namespace ldash {

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
