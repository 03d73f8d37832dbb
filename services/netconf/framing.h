// The framing of NETCONF messages (RFC 6242): where a message ends, and whether its frame is valid.
// The content must be text and is not examined further.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace netconf {

struct Message {
    std::string text;  // without its frame
    bool chunked;      // how it was framed

    // The message in a frame of the same kind, in one chunk.
    std::string framed() const;
};

class Framing {
 public:
    // More than any request to this server needs. Parsing takes time that grows with the square of
    // the number of elements.
    static constexpr size_t kLongestMessage_bytes = size_t{64} << 10;

    // Takes bytes as they arrive, in pieces of any size.
    void feed(std::string_view bytes);
    // The next whole message; nothing when none is whole, or when the frame is broken. The first is
    // a <hello> and ends with "]]>]]>"; when it announces base:1.1 those that follow come in
    // chunks.
    std::optional<Message> next();

    // The reason why the input cannot be read any further; null without a fault.
    const char* fault() const { return fault_; }
    // After a fault, the beginning of the message when it is a request that is too long; else
    // nothing.
    std::optional<Message> beginning_of_too_long() const;
    // Whether a message has begun that is not whole.
    bool inside_message() const { return !input_.empty(); }

 private:
    Message take(std::string text, size_t length);
    std::optional<Message> next_delimited();
    std::optional<Message> next_chunked();
    bool take_chunk();
    void refuse_length(std::string beginning);

    std::string input_;   // of the message that is not whole yet
    size_t scanned_ = 0;  // bytes of it that are known to be valid
    std::string text_;    // contents of the chunks among them
    bool greeted_ = false;
    bool chunked_ = false;
    const char* fault_ = nullptr;
    std::string too_long_;  // beginning of a message, when that is the fault
};

}  // namespace netconf
