#include "platform/driver/linux/rtnl_link.h"

#include <cstring>

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

#include "platform/base/visible.h"

namespace qv {
namespace {

struct PolicyTable {
    nla_policy link[IFLA_MAX + 1]{};
    nla_policy info[IFLA_INFO_MAX + 1]{};
    nla_policy bridge_port[IFLA_BRPORT_MAX + 1]{};

    PolicyTable() {
        link[IFLA_IFNAME] = {.type = NLA_STRING, .minlen = 2, .maxlen = IFNAMSIZ};
        link[IFLA_MASTER].type = NLA_U32;
        link[IFLA_LINKINFO].type = NLA_NESTED;
        info[IFLA_INFO_KIND].type = NLA_STRING;
        info[IFLA_INFO_SLAVE_KIND].type = NLA_STRING;
        info[IFLA_INFO_SLAVE_DATA].type = NLA_NESTED;
        bridge_port[IFLA_BRPORT_NO].type = NLA_U16;
    }
};

// The library takes policies as pointers to non-const, but only reads them.
PolicyTable& policies() {
    static PolicyTable instance;
    return instance;
}

bool parse_bridge_port(nlattr* data, LinkMessage& message) {
    nlattr* field[IFLA_BRPORT_MAX + 1];
    if (nla_parse_nested(field, IFLA_BRPORT_MAX, data, policies().bridge_port) < 0) {
        return false;
    }
    if (field[IFLA_BRPORT_NO] != nullptr) {
        message.bridge_port = nla_get_u16(field[IFLA_BRPORT_NO]);
    }
    return true;
}

bool parse_link_info(nlattr* data, LinkMessage& message) {
    nlattr* field[IFLA_INFO_MAX + 1];
    if (nla_parse_nested(field, IFLA_INFO_MAX, data, policies().info) < 0) {
        return false;
    }
    if (field[IFLA_INFO_KIND] != nullptr) {
        message.kind = nla_get_string(field[IFLA_INFO_KIND]);
    }
    const nlattr* const slave_kind = field[IFLA_INFO_SLAVE_KIND];
    const bool in_bridge = slave_kind != nullptr && nla_strcmp(slave_kind, "bridge") == 0;
    if (!in_bridge || field[IFLA_INFO_SLAVE_DATA] == nullptr) {
        return true;
    }
    return parse_bridge_port(field[IFLA_INFO_SLAVE_DATA], message);
}

}  // namespace

std::optional<LinkMessage> parse_link(nlmsghdr* header) {
    const bool about_link = header->nlmsg_type == RTM_NEWLINK || header->nlmsg_type == RTM_DELLINK;
    nlattr* field[IFLA_MAX + 1];
    if (!about_link ||
        nlmsg_parse(header, sizeof(ifinfomsg), field, IFLA_MAX, policies().link) < 0) {
        return std::nullopt;
    }
    ifinfomsg info;
    std::memcpy(&info, nlmsg_data(header), sizeof info);
    if (info.ifi_family != AF_UNSPEC || info.ifi_index <= 0) {
        return std::nullopt;
    }
    LinkMessage message;
    message.ifx = static_cast<uint32_t>(info.ifi_index);
    if (header->nlmsg_type == RTM_DELLINK) {
        message.removed = true;
        return message;
    }
    // Wireless drivers send events as link messages that lack the link's attributes.
    if (field[IFLA_IFNAME] == nullptr || field[IFLA_WIRELESS] != nullptr) {
        return std::nullopt;
    }
    message.name = visible(nla_get_string(field[IFLA_IFNAME]));
    message.master = field[IFLA_MASTER] != nullptr ? nla_get_u32(field[IFLA_MASTER]) : 0;
    message.admin_up = (info.ifi_flags & IFF_UP) != 0;
    message.oper_up = (info.ifi_flags & IFF_RUNNING) != 0;
    if (field[IFLA_LINKINFO] != nullptr && !parse_link_info(field[IFLA_LINKINFO], message)) {
        return std::nullopt;
    }
    return message;
}

}  // namespace qv
