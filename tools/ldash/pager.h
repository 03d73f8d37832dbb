// Shows long output one page at a time.
#pragma once

#include <functional>
#include <string_view>

#include "screen.h"

namespace ldash {

// Waits for a key and returns it; negative to skip the rest of the output.
using NextKey = std::function<int()>;

// Writes `text` to standard output. With more rows than `screen` has, it stops below each page and
// waits for a key: the space bar shows the next page, Enter the next line, "q" skips the rest, and
// other keys do nothing. A screen without rows gets everything at once.
void show_paged(std::string_view text, Screen screen, const NextKey& next_key);

// Writes the prompt below a page again, for a `next_key` that wrote something over it.
void show_more_prompt();

}  // namespace ldash
