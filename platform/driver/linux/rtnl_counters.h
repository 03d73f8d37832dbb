// Packet counters of links, read from rtnetlink when somebody asks for them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "platform/driver/switch_driver.h"

struct nlmsghdr;

namespace qv {

struct LinkCounters {
    uint32_t ifx;
    PortCounters counters;
};

// Decodes RTM_NEWSTATS with the statistics of a link (IFLA_STATS_LINK_64). Returns nothing for any
// other message and for a malformed one. The caller keeps the message; all `header->nlmsg_len`
// bytes must be readable. Any thread.
std::optional<LinkCounters> parse_counters(nlmsghdr* header);

// Asks the kernel for the counters of link `ifx`, or of all links of the network namespace when it
// is 0, and waits for the answer on a socket of its own. Returns what could be read, by interface
// index. Any thread.
std::map<uint32_t, PortCounters> read_counters(uint32_t ifx);

}  // namespace qv
