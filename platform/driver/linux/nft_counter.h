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

// Decodes one message of the list. Returns nothing for a message that is malformed or about
// something else. The caller keeps the message; all `header->nlmsg_len` bytes and their padding
// must be readable. Any thread.
std::optional<NamedCounter> parse_counter(const nlmsghdr* header);

}  // namespace qv
