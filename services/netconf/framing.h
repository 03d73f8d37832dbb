// The framing of NETCONF messages (RFC 6242): where a message ends, and whether the frame around it
// is sound. What is inside must be text, and is not looked at further.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace netconf {

struct Message {
    std::string text;  // without its frame
    bool chunked;      // how it was framed

    // With a frame of the same kind, and of one chunk.
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

    // Why nothing can be made of the input any more; null while all is well.
    const char* fault() const { return fault_; }
    // Whether a message has begun that is not whole.
    bool inside_message() const { return !input_.empty(); }

 private:
    Message take(std::string text, size_t length);
    std::optional<Message> next_delimited();
    std::optional<Message> next_chunked();
    bool take_chunk();

    std::string input_;   // of the message that is not whole yet
    size_t scanned_ = 0;  // bytes of it that are known to be sound
    std::string text_;    // what the chunks among them carry
    bool greeted_ = false;
    bool chunked_ = false;
    const char* fault_ = nullptr;
};

}  // namespace netconf
