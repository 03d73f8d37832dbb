#include "platform/base/visible.h"

#include <cstdint>
#include <cstdio>

namespace qv {
namespace {

uint8_t byte_at(std::string_view text, size_t at) {
    return static_cast<uint8_t>(text[at]);
}

bool has_continuations(std::string_view text, size_t count) {
    for (size_t at = 1; at <= count; ++at) {
        if (at >= text.size() || (byte_at(text, at) & 0xc0) != 0x80) {
            return false;
        }
    }
    return true;
}

// Bytes of the character that begins the text and may be shown; 0 when its first byte may not. RFC
// 3629, section 4, without U+0080 to U+009F.
size_t shown_bytes(std::string_view text, std::string_view kept) {
    const uint8_t first = byte_at(text, 0);
    if (text.starts_with("\r\n") && kept.find('\n') != std::string_view::npos) {
        return 2;
    }
    if (first < 0x80) {
        const bool control = first < 0x20 || first == 0x7f;
        return !control || kept.find(text[0]) != std::string_view::npos ? 1 : 0;
    }
    const size_t more = first < 0xc2   ? 0
                        : first < 0xe0 ? 1
                        : first < 0xf0 ? 2
                        : first < 0xf5 ? 3
                                       : 0;
    if (more == 0 || !has_continuations(text, more)) {
        return 0;
    }
    const uint8_t second = byte_at(text, 1);
    const bool refused = (first == 0xc2 && second < 0xa0) || (first == 0xe0 && second < 0xa0) ||
                         (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
                         (first == 0xf4 && second > 0x8f);
    return refused ? 0 : 1 + more;
}

}  // namespace

std::string visible(std::string_view text, std::string_view kept) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const size_t size = shown_bytes(text, kept);
        if (size != 0) {
            shown.append(text.substr(0, size));
        } else {
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02x", byte_at(text, 0));
            shown.append(code);
        }
        text.remove_prefix(size != 0 ? size : 1);
    }
    return shown;
}

bool is_visible(std::string_view text, std::string_view kept) {
    while (!text.empty()) {
        const size_t size = shown_bytes(text, kept);
        if (size == 0) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

}  // namespace qv
