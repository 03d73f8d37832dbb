// The framing of NETCONF messages (RFC 6242): where a message ends, and whether the frame around it
// is sound. What is inside is not looked at.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace netconf {

class Framing {
 public:
    // More than any request to this server needs. Parsing takes time that grows with the square of
    // the number of elements.
    static constexpr size_t kLongestMessage_bytes = size_t{256} << 10;

    // What has arrived, in pieces of any size.
    void feed(std::string_view bytes);
    // The next whole message with its frame, as it arrived; nothing when none is whole, or when the
    // frame is broken. The first is a <hello> and ends with "]]>]]>"; when it announces base:1.1
    // those that follow come in chunks.
    std::optional<std::string> next();

    // Why nothing can be made of the input any more; null while all is well.
    const char* fault() const { return fault_; }
    // Whether a message has begun that is not whole.
    bool inside_message() const { return !input_.empty(); }

 private:
    std::optional<std::string> take(size_t length);
    std::optional<std::string> next_delimited();
    std::optional<std::string> next_chunked();
    bool step_over_chunk();

    std::string input_;   // of the message that is not whole yet
    size_t scanned_ = 0;  // bytes of it that are known to be sound
    bool any_chunk_ = false;
    bool greeted_ = false;
    bool chunked_ = false;
    const char* fault_ = nullptr;
};

}  // namespace netconf
