#include "services/netconf/framing.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace netconf {
namespace {

constexpr std::string_view kEndOfMessage = "]]>]]>";
constexpr std::string_view kEndOfChunks = "\n##\n";
constexpr std::string_view kChunkStart = "\n#";
constexpr std::string_view kChunkedFraming = "urn:ietf:params:netconf:base:1.1";
constexpr size_t kLongestSize = 10;  // digits
constexpr const char* kTooLong = "a message is longer than 64 KiB";

// Whether either text is the beginning of the other.
bool may_be(std::string_view text, std::string_view whole) {
    const size_t common = std::min(text.size(), whole.size());
    return text.substr(0, common) == whole.substr(0, common);
}

// The rest of a document after blanks, XML declaration, instructions and comments.
std::string_view without_prolog(std::string_view text) {
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
        const std::string_view end = text.starts_with("<?")     ? "?>"
                                     : text.starts_with("<!--") ? "-->"
                                                                : "";
        const size_t at = text.find(end);
        if (end.empty() || at == std::string_view::npos) {
            return text;
        }
        text.remove_prefix(at + end.size());
    }
}

// The library crashes on a message that has nothing but a prolog, and takes a zero byte for its
// end.
bool holds_text(std::string_view text) {
    return !without_prolog(text).empty() && text.find('\0') == std::string_view::npos;
}

}  // namespace

std::string Message::framed() const {
    if (!chunked) {
        return text + std::string(kEndOfMessage);
    }
    return std::string(kChunkStart) + std::to_string(text.size()) + "\n" + text +
           std::string(kEndOfChunks);
}

void Framing::feed(std::string_view bytes) {
    input_.append(bytes);
}

std::optional<Message> Framing::next() {
    if (fault_ != nullptr) {
        return std::nullopt;
    }
    std::optional<Message> message = chunked_ ? next_chunked() : next_delimited();
    // The frame does not count, so the limit does not depend on how the bytes arrive.
    const size_t length = message ? message->text.size() : chunked_ ? text_.size() : scanned_;
    if (fault_ == nullptr && length > kLongestMessage_bytes) {
        refuse_length(message ? std::move(message->text) : chunked_ ? text_ : input_);
    } else if (message && !holds_text(message->text)) {
        fault_ = "a message is empty or holds a zero byte";
    }
    return fault_ == nullptr ? std::move(message) : std::nullopt;
}

void Framing::refuse_length(std::string beginning) {
    fault_ = kTooLong;
    too_long_ = std::move(beginning);
}

std::optional<Message> Framing::beginning_of_too_long() const {
    if (fault_ != kTooLong || !greeted_) {
        return std::nullopt;
    }
    return Message{.text = too_long_, .chunked = chunked_};
}

// Ends a message of `length` bytes of the input.
Message Framing::take(std::string text, size_t length) {
    input_.erase(0, length);
    scanned_ = 0;
    text_.clear();
    return {std::move(text), chunked_};
}

std::optional<Message> Framing::next_delimited() {
    const size_t end = input_.find(kEndOfMessage, scanned_);
    if (end == std::string::npos) {
        // The delimiter may have begun in the last bytes.
        scanned_ = input_.size() - std::min(input_.size(), kEndOfMessage.size() - 1);
        return std::nullopt;
    }
    const Message message = take(input_.substr(0, end), end + kEndOfMessage.size());
    if (!std::exchange(greeted_, true)) {
        chunked_ = message.text.find(kChunkedFraming) != std::string::npos;
    }
    return message;
}

std::optional<Message> Framing::next_chunked() {
    while (take_chunk()) {
    }
    const std::string_view rest = std::string_view(input_).substr(scanned_);
    if (fault_ != nullptr || !rest.starts_with(kEndOfChunks)) {
        return std::nullopt;
    }
    if (text_.empty()) {
        fault_ = "a message has no chunk";
        return std::nullopt;
    }
    return take(std::move(text_), scanned_ + kEndOfChunks.size());
}

// Returns false when no whole chunk begins at the position of the scan.
bool Framing::take_chunk() {
    const std::string_view rest = std::string_view(input_).substr(scanned_);
    if (may_be(rest, kEndOfChunks)) {
        return false;
    }
    if (!rest.starts_with(kChunkStart) || rest[kChunkStart.size()] < '1' ||
        rest[kChunkStart.size()] > '9') {
        fault_ = "the framing is broken: no chunk begins where one should";
        return false;
    }
    const size_t line_end = rest.find('\n', kChunkStart.size());
    const std::string_view digits =
        rest.substr(kChunkStart.size(), std::min(line_end, rest.size()) - kChunkStart.size());
    size_t size = 0;
    const auto [stop, error] = std::from_chars(digits.begin(), digits.end(), size);
    if (stop != digits.end() || error != std::errc() || digits.size() > kLongestSize) {
        fault_ = "the framing is broken: the size of a chunk is not a number";
        return false;
    }
    if (line_end == std::string_view::npos) {
        return false;
    }
    if (size > kLongestMessage_bytes) {
        refuse_length(text_ + std::string(rest.substr(line_end + 1)));
        return false;
    }
    const size_t length = line_end + 1 + size;
    if (rest.size() < length) {
        return false;
    }
    text_.append(rest.substr(line_end + 1, size));
    scanned_ += length;
    return true;
}

}  // namespace netconf
