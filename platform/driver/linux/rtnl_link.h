// Decoder for rtnetlink link messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct nlmsghdr;

namespace qv {

struct LinkMessage {
    uint32_t ifx = 0;      // interface index, never 0
    bool removed = false;  // the link was deleted; only `ifx` is set
    std::string name;
    std::string kind;          // such as "bridge" or "veth", empty for a plain device
    uint32_t master = 0;       // interface index of the link it is enslaved to, 0 for none
    uint32_t bridge_port = 0;  // port number in the bridge, 0 outside a bridge
    bool admin_up = false;     // IFF_UP
    bool oper_up = false;      // IFF_RUNNING: up, and able to pass packets

    bool operator==(const LinkMessage&) const = default;
};

// Decodes RTM_NEWLINK or RTM_DELLINK about a link as a whole. Returns nothing for any other
// message, for a malformed one, and for messages of family AF_BRIDGE, in which a bridge says
// "deleted" of a link that only left it. The caller keeps the message; all `header->nlmsg_len`
// bytes must be readable. Any thread.
std::optional<LinkMessage> parse_link(nlmsghdr* header);

}  // namespace qv
