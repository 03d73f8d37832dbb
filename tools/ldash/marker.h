// The line with a "^" under the word that the switch did not understand.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ldash {

// The line to print below `line`, which was typed after `prompt` on a terminal `columns` wide, to
// point at byte `wrong_at` of it. Empty when that place is not in the last row of the line, since
// nothing below could point there.
std::string marker(std::string_view prompt, std::string_view line, size_t wrong_at, size_t columns);

}  // namespace ldash
