#include "screen.h"

#include <sys/ioctl.h>

#include <algorithm>

namespace ldash {

Screen screen_of(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0) {
        return {};
    }
    return {.rows = size.ws_row, .columns = size.ws_col};
}

size_t width_of(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;  // not a continuation byte
    }));
}

}  // namespace ldash
