// Text from outside (names, records, files, lines), as it may be shown.
#pragma once

#include <string>
#include <string_view>

namespace qv {

// For visible(): texts of several lines.
constexpr std::string_view kLinesAndTabs = "\n\t";

// The text with each byte of a control character as `\x1b`: those below 0x20 but for the ones in
// `kept`, 0x7f, and U+0080 to U+009F, which terminals obey too. Bytes that are not UTF-8 are
// written so as well; other text stays as it is. Where "\n" is kept, "\r\n" is too. Any thread.
std::string visible(std::string_view text, std::string_view kept = {});

// Whether visible() would leave the text as it is. Any thread.
bool is_visible(std::string_view text, std::string_view kept = {});

}  // namespace qv
