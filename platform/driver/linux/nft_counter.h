// Decoder for the packet filter's list of named counters.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct nlmsghdr;

namespace qv {

struct PacketCounts {
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

struct NamedCounter {
    std::string name;
    PacketCounts counts;
};

// Decodes one message of the list. Nothing for a message that is malformed or about something else.
// The whole of `header->nlmsg_len` bytes and their padding is readable. Any thread.
std::optional<NamedCounter> parse_counter(const nlmsghdr* header);

}  // namespace qv
