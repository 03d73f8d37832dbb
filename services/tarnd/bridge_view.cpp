#include "services/tarnd/bridge_view.h"

#include <cstring>
#include <utility>
#include <vector>

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

#include "platform/driver/linux/fdb_entry.h"

namespace qv::tarnd {
namespace {

std::optional<uint8_t> state_in(nlattr* nested) {
    nlattr* const state =
        nla_find(static_cast<nlattr*>(nla_data(nested)), nla_len(nested), IFLA_BRPORT_STATE);
    return state != nullptr && nla_len(state) >= 1 ? std::optional(nla_get_u8(state))
                                                   : std::nullopt;
}

// The nested attribute of this type within another.
nlattr* inner(nlattr* outer, int type) {
    return outer == nullptr ? nullptr
                            : nla_find(static_cast<nlattr*>(nla_data(outer)), nla_len(outer), type);
}

}  // namespace

std::optional<PortStateMessage> parse_port_state(nlmsghdr* header) {
    if (header->nlmsg_type != RTM_NEWLINK || !nlmsg_valid_hdr(header, sizeof(ifinfomsg))) {
        return std::nullopt;
    }
    ifinfomsg info;
    std::memcpy(&info, nlmsg_data(header), sizeof info);
    nlattr* data = nullptr;
    if (info.ifi_family == AF_BRIDGE) {
        data = nlmsg_find_attr(header, sizeof info, IFLA_PROTINFO);
    } else if (info.ifi_family == AF_UNSPEC) {
        nlattr* const link = nlmsg_find_attr(header, sizeof info, IFLA_LINKINFO);
        nlattr* const kind = inner(link, IFLA_INFO_SLAVE_KIND);
        data = kind != nullptr && nla_strcmp(kind, "bridge") == 0
                   ? inner(link, IFLA_INFO_SLAVE_DATA)
                   : nullptr;
    }
    const auto state = data != nullptr ? state_in(data) : std::nullopt;
    if (!state || info.ifi_index <= 0) {
        return std::nullopt;
    }
    return PortStateMessage{static_cast<uint32_t>(info.ifi_index), *state};
}

std::optional<LearnedAddress> parse_learned(nlmsghdr* header) {
    const auto entry = header->nlmsg_type == RTM_NEWNEIGH ? parse_fdb_entry(header) : std::nullopt;
    if (!entry) {
        return std::nullopt;
    }
    ndmsg neighbour;
    std::memcpy(&neighbour, nlmsg_data(header), sizeof neighbour);
    if ((neighbour.ndm_state & (NUD_PERMANENT | NUD_NOARP)) != 0 || neighbour.ndm_ifindex <= 0) {
        return std::nullopt;
    }
    return LearnedAddress{entry->bridge, static_cast<uint32_t>(neighbour.ndm_ifindex),
                          entry->address | static_cast<uint64_t>(entry->vlan) << 48};
}

BridgeView::BridgeView(std::string bridge, Prober& prober)
    : bridge_(std::move(bridge)), prober_(prober) {}

void BridgeView::begin_dump() {
    for (auto& [ifx, link] : links_) {
        link.seen = false;
    }
}

void BridgeView::end_dump(Time now) {
    std::vector<uint32_t> gone;
    for (const auto& [ifx, link] : links_) {
        if (!link.seen) {
            gone.push_back(ifx);
        }
    }
    for (const uint32_t ifx : gone) {
        forget(ifx, now);
    }
}

void BridgeView::take(nlmsghdr* header, Time now) {
    const auto message = parse_link(header);
    if (message && message->removed) {
        forget(message->ifx, now);
        return;
    }
    if (message) {
        Link& link = links_[message->ifx];
        link.seen = true;
        link.state = link.master == message->master ? link.state : BR_STATE_DISABLED;
        link.master = message->master;
        link.up = message->admin_up && message->oper_up;
    }
    const auto state = parse_port_state(header);
    const uint32_t ifx = message ? message->ifx : state ? state->ifx : 0;
    const auto found = links_.find(ifx);
    if (found == links_.end()) {
        return;
    }
    found->second.state = state ? state->state : found->second.state;
    tell(ifx, found->second, now);
    if (message && message->kind == "bridge") {
        follow_bridge(*message, now);
    }
}

void BridgeView::follow_bridge(const LinkMessage& message, Time now) {
    const bool named = message.name == bridge_;
    if (named && bridge_ifx_ != message.ifx) {
        bridge_ifx_ = message.ifx;
        tell_all(now);
    } else if (!named && bridge_ifx_ == message.ifx) {
        bridge_ifx_ = 0;
        tell_all(now);
    }
}

void BridgeView::forget(uint32_t ifx, Time now) {
    const auto found = links_.find(ifx);
    if (found == links_.end()) {
        return;
    }
    if (found->second.member) {
        prober_.remove_port(ifx);
    }
    if (found->second.elsewhere) {
        prober_.set_elsewhere(ifx, false);
    }
    links_.erase(found);
    if (ifx == bridge_ifx_) {
        bridge_ifx_ = 0;
        tell_all(now);
    }
}

void BridgeView::tell(uint32_t ifx, Link& link, Time now) {
    const bool member = bridge_ifx_ != 0 && link.master == bridge_ifx_;
    const bool forwarding = member && link.up && link.state == BR_STATE_FORWARDING;
    const bool elsewhere = bridge_ifx_ != 0 && link.master != 0 && !member;
    if (elsewhere != link.elsewhere) {
        prober_.set_elsewhere(ifx, elsewhere);
    }
    if (member != link.member && !member) {
        prober_.remove_port(ifx);
    } else if (member && (!link.member || forwarding != link.forwarding)) {
        prober_.set_port(ifx, forwarding, now);
    }
    link.member = member;
    link.forwarding = forwarding;
    link.elsewhere = elsewhere;
}

void BridgeView::tell_all(Time now) {
    for (auto& [ifx, link] : links_) {
        tell(ifx, link, now);
    }
}

}  // namespace qv::tarnd
