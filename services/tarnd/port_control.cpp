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
        result = nl_wait_for_ack(socket);
    }
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    return refused != 0 ? refused : result < 0 ? EIO : 0;
}

Message request_about(const ifinfomsg& link) {
    Message message(nlmsg_alloc_simple(RTM_SETLINK, NLM_F_ACK));
    ifinfomsg copy = link;
    if (message && nlmsg_append(message.get(), &copy, sizeof copy, NLMSG_ALIGNTO) < 0) {
        message.reset();
    }
    return message;
}

}  // namespace

PortControl::PortControl() : socket_(open_rtnl_socket()) {}

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

}  // namespace qv::tarnd
