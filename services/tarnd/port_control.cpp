#include "services/tarnd/port_control.h"

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <span>

namespace qv::tarnd {
namespace {

nlattr* find_in(nlattr* outer, int type) {
    return nla_find(static_cast<nlattr*>(nla_data(outer)), nla_len(outer), type);
}

struct Flag {
    int attribute;
    uint8_t PortFlags::*value;
};
constexpr std::array<Flag, 5> kFlags{{{IFLA_BRPORT_LOCKED, &PortFlags::locked},
                                      {IFLA_BRPORT_LEARNING, &PortFlags::learning},
                                      {IFLA_BRPORT_UNICAST_FLOOD, &PortFlags::flood},
                                      {IFLA_BRPORT_MCAST_FLOOD, &PortFlags::mcast_flood},
                                      {IFLA_BRPORT_BCAST_FLOOD, &PortFlags::bcast_flood}}};

// The part of the kernel's answer about an interface that concerns a bridge port.
struct Answer {
    bool is_port = false;
    PortFlags flags;
};

Answer read_answer(nlmsghdr* message) {
    Answer answer;
    nlattr* const link = nlmsg_find_attr(message, sizeof(ifinfomsg), IFLA_LINKINFO);
    nlattr* const kind = link != nullptr ? find_in(link, IFLA_INFO_SLAVE_KIND) : nullptr;
    nlattr* const data = kind != nullptr && nla_strcmp(kind, "bridge") == 0
                             ? find_in(link, IFLA_INFO_SLAVE_DATA)
                             : nullptr;
    answer.is_port = data != nullptr;
    for (const Flag& flag : kFlags) {
        nlattr* const value = data != nullptr ? find_in(data, flag.attribute) : nullptr;
        if (value != nullptr && nla_len(value) >= 1) {
            answer.flags.*flag.value = nla_get_u8(value);
        }
    }
    return answer;
}

struct Setting {
    int attribute;  // IFLA_BRPORT_*
    uint8_t value;
};

// Changes settings of a bridge port, all or none. 0 or errno.
int change_port(const RtnlRequests& requests, uint32_t ifx, std::span<const Setting> settings) {
    ifinfomsg link{};
    link.ifi_family = AF_BRIDGE;
    link.ifi_index = static_cast<int>(ifx);
    const NlMessage change = link_change(link);
    nlattr* const port =
        change ? nla_nest_start(change.get(), IFLA_PROTINFO | NLA_F_NESTED) : nullptr;
    if (port == nullptr) {
        return ENOMEM;
    }
    for (const Setting& setting : settings) {
        if (nla_put_u8(change.get(), setting.attribute, setting.value) < 0) {
            return ENOMEM;
        }
    }
    nla_nest_end(change.get(), port);
    return requests.change(change);
}

}  // namespace

PortFlags opened(const PortFlags& present, const PortFlags& former) {
    PortFlags flags = present;
    for (const Flag& flag : kFlags) {
        if (present.*flag.value == kClosed.*flag.value) {
            flags.*flag.value = former.*flag.value;
        }
    }
    return flags;
}

uint32_t pack(const PortFlags& flags) {
    uint32_t number = 0;
    for (const Flag& flag : kFlags) {
        number = number << 1 | (flags.*flag.value != 0 ? 1 : 0);
    }
    return number;
}

PortFlags unpack(uint32_t number) {
    PortFlags flags;
    for (size_t n = kFlags.size(); n > 0; --n, number >>= 1) {
        flags.*kFlags[n - 1].value = number & 1;
    }
    return flags;
}

int PortControl::set_up(uint32_t ifx, bool up) const {
    return requests_.set_up(ifx, up);
}

int PortControl::set_state(uint32_t ifx, uint8_t state) const {
    return change_port(requests_, ifx, std::array{Setting{IFLA_BRPORT_STATE, state}});
}

int PortControl::read_flags(uint32_t ifx, PortFlags& flags) const {
    Answer answer;
    const int error =
        requests_.read_link(ifx, [&](nlmsghdr* message) { answer = read_answer(message); });
    if (error == 0 && answer.is_port) {
        flags = answer.flags;
    }
    return error != 0 ? error : answer.is_port ? 0 : EINVAL;
}

int PortControl::set_flags(uint32_t ifx, const PortFlags& flags) const {
    std::array<Setting, kFlags.size()> settings;
    std::ranges::transform(kFlags, settings.begin(), [&](const Flag& flag) {
        return Setting{flag.attribute, flags.*flag.value};
    });
    return change_port(requests_, ifx, settings);
}

}  // namespace qv::tarnd
