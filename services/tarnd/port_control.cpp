#include "services/tarnd/port_control.h"

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include <cerrno>
#include <memory>

namespace qv::tarnd {
namespace {

struct MessageFree {
    void operator()(nl_msg* message) const { nlmsg_free(message); }
};
using Message = std::unique_ptr<nl_msg, MessageFree>;

nlattr* find_in(nlattr* outer, int type) {
    return nla_find(static_cast<nlattr*>(nla_data(outer)), nla_len(outer), type);
}

int keep_errno(sockaddr_nl*, nlmsgerr* answer, void* kept) {
    *static_cast<int*>(kept) = -answer->error;
    return NL_STOP;
}

// The library's own error numbers are coarser than the kernel's.
int transact(nl_sock* socket, nl_msg* request) {
    int refused = 0;
    nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, keep_errno, &refused);
    int result = nl_send_auto(socket, request);
    if (result >= 0) {
        const bool acknowledged = (nlmsg_hdr(request)->nlmsg_flags & NLM_F_ACK) != 0;
        result = acknowledged ? nl_wait_for_ack(socket) : nl_recvmsgs_default(socket);
    }
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    return refused != 0 ? refused : result < 0 ? EIO : 0;
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

int keep_flags(nl_msg* message, void* kept) {
    auto& answer = *static_cast<Answer*>(kept);
    nlattr* const link = nlmsg_find_attr(nlmsg_hdr(message), sizeof(ifinfomsg), IFLA_LINKINFO);
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
    return NL_OK;
}

Message request_about(const ifinfomsg& link, int type = RTM_SETLINK, int flags = NLM_F_ACK) {
    Message message(nlmsg_alloc_simple(type, flags));
    ifinfomsg copy = link;
    if (message && nlmsg_append(message.get(), &copy, sizeof copy, NLMSG_ALIGNTO) < 0) {
        message.reset();
    }
    return message;
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

// The answer to a question is answer enough: an acknowledgement behind it would be taken for that
// of the next request.
PortControl::PortControl() : socket_(open_rtnl_socket()) {
    nl_socket_disable_auto_ack(socket_.get());
}

int PortControl::set_up(uint32_t ifx, bool up) const {
    ifinfomsg change{};
    change.ifi_index = static_cast<int>(ifx);
    change.ifi_flags = up ? IFF_UP : 0;
    change.ifi_change = IFF_UP;
    const Message message = request_about(change);
    return message ? transact(socket_.get(), message.get()) : ENOMEM;
}

int PortControl::set_state(uint32_t ifx, uint8_t state) const {
    ifinfomsg change{};
    change.ifi_family = AF_BRIDGE;
    change.ifi_index = static_cast<int>(ifx);
    const Message message = request_about(change);
    if (!message) {
        return ENOMEM;
    }
    nlattr* const port = nla_nest_start(message.get(), IFLA_PROTINFO | NLA_F_NESTED);
    if (port == nullptr || nla_put_u8(message.get(), IFLA_BRPORT_STATE, state) < 0) {
        return ENOMEM;
    }
    nla_nest_end(message.get(), port);
    return transact(socket_.get(), message.get());
}

int PortControl::read_flags(uint32_t ifx, PortFlags& flags) const {
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(ifx);
    const Message message = request_about(link, RTM_GETLINK, 0);
    if (!message) {
        return ENOMEM;
    }
    Answer answer;
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, keep_flags, &answer);
    const int error = transact(socket_.get(), message.get());
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
    if (error == 0 && answer.is_port) {
        flags = answer.flags;
    }
    return error != 0 ? error : answer.is_port ? 0 : EINVAL;
}

int PortControl::set_flags(uint32_t ifx, const PortFlags& flags) const {
    ifinfomsg change{};
    change.ifi_family = AF_BRIDGE;
    change.ifi_index = static_cast<int>(ifx);
    const Message message = request_about(change);
    nlattr* const port =
        message ? nla_nest_start(message.get(), IFLA_PROTINFO | NLA_F_NESTED) : nullptr;
    if (port == nullptr) {
        return ENOMEM;
    }
    for (const Flag& flag : kFlags) {
        if (nla_put_u8(message.get(), flag.attribute, flags.*flag.value) < 0) {
            return ENOMEM;
        }
    }
    nla_nest_end(message.get(), port);
    return transact(socket_.get(), message.get());
}

}  // namespace qv::tarnd
