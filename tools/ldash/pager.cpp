#include "pager.h"

#include <algorithm>
#include <cstdio>

namespace ldash {
namespace {

constexpr const char* kMore = "--More--";
constexpr const char* kErase = "\r        \r";  // overwrites kMore

size_t rows_of(std::string_view line, size_t columns) {
    const size_t width = width_of(line);
    return columns == 0 || width == 0 ? 1 : (width + columns - 1) / columns;
}

// Removes the first line of `text` and returns it with its line end.
std::string_view take_line(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end);
    return line;
}

// Returns how many rows to show before the next stop; 0 to skip the rest.
size_t ask(size_t page, const NextKey& next_key) {
    show_more_prompt();
    int key = 0;
    do {
        key = next_key();
    } while (key >= 0 &&
             std::string_view(" \r\nqQ").find(static_cast<char>(key)) == std::string_view::npos);
    std::fputs(kErase, stdout);
    if (key == ' ') {
        return page;
    }
    return key == '\r' || key == '\n' ? 1 : 0;
}

}  // namespace

void show_more_prompt() {
    std::fputs(kMore, stdout);
    std::fflush(stdout);
}

void show_paged(std::string_view text, Screen screen, const NextKey& next_key) {
    const size_t page = std::max<size_t>(screen.rows, 2) - 1;  // the prompt takes the last row
    size_t left = page;
    while (!text.empty()) {
        const std::string_view line = take_line(text);
        const size_t rows = rows_of(line.substr(0, line.find('\n')), screen.columns);
        // A line longer than a whole page cannot be split: it follows a stop of its own.
        if (screen.rows != 0 && rows > left && left < page) {
            left = ask(page, next_key);
            if (left == 0) {
                break;
            }
        }
        std::fwrite(line.data(), 1, line.size(), stdout);
        left -= std::min(rows, left);
    }
    std::fflush(stdout);
}

}  // namespace ldash
