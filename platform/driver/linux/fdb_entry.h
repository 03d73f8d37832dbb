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
    uint16_t vlan;  // 0 where the bridge does not tell VLANs apart
};

// Decodes RTM_NEWNEIGH or RTM_DELNEIGH about an entry of some bridge. Nothing for any other
// message, for one that is malformed, for other neighbours and for the filters of single devices,
// which have no bridge above them. The whole of `header->nlmsg_len` bytes is readable and stays the
// caller's. Any thread.
std::optional<FdbEntry> parse_fdb_entry(nlmsghdr* header);

}  // namespace qv
