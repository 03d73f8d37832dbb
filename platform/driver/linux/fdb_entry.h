// Decoder for rtnetlink messages about the forwarding entries of a bridge.
#pragma once

#include <cstdint>
#include <optional>

struct nlmsghdr;

namespace qv {

// An Ethernet address, its first byte the highest of six.
using MacAddress = uint64_t;

struct FdbEntry {
    uint32_t bridge;  // interface index
    MacAddress address;
    uint16_t vlan;  // 0 when the bridge does not filter VLANs
    bool learned;   // from a frame; false: set by hand, or the bridge's own
};

// Decodes an RTM_NEWNEIGH or RTM_DELNEIGH about an entry of a bridge. Returns nothing for any other
// message, a malformed one, neighbours of other families, and address filters of a device, which
// name no bridge. The caller keeps the message; all `header->nlmsg_len` bytes must be readable. Any
// thread.
std::optional<FdbEntry> parse_fdb_entry(nlmsghdr* header);

}  // namespace qv
