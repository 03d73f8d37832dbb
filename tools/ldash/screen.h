// The terminal that the shell writes to.
#pragma once

#include <cstddef>
#include <string_view>

namespace ldash {

// The size of a terminal in characters; a dimension that is unknown is 0.
struct Screen {
    size_t rows = 0;
    size_t columns = 0;
};

// Returns the size of the terminal behind descriptor `fd`, {0, 0} when it is not a terminal.
Screen screen_of(int fd);

// Returns the number of columns that `text`, in UTF-8, takes in one row: one for each character.
size_t width_of(std::string_view text);

}  // namespace ldash
