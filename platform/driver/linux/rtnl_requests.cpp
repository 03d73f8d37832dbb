// A change is answered by an acknowledgement. A question is answered by a link: if it also asked
// for an acknowledgement, the library would leave that one in the socket, where the next request
// would take it for its own. So nothing asks for acknowledgements but the changes.
#include "platform/driver/linux/rtnl_requests.h"

#include <cerrno>

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include "platform/base/guarded.h"

namespace qv {
namespace {

using Take = std::function<void(nlmsghdr*)>;

NlMessage link_request(int type, int flags, const ifinfomsg& link) {
    NlMessage request(nlmsg_alloc_simple(type, flags));
    ifinfomsg copy = link;
    if (request && nlmsg_append(request.get(), &copy, sizeof copy, NLMSG_ALIGNTO) < 0) {
        request.reset();
    }
    return request;
}

int keep_errno(sockaddr_nl*, nlmsgerr* answer, void* kept) {
    *static_cast<int*>(kept) = -answer->error;
    return NL_STOP;
}

// Called by the library, which no exception may cross.
int pass_to_handler(nl_msg* answer, void* handler) {
    guarded([=] { (**static_cast<const Take**>(handler))(nlmsg_hdr(answer)); });
    return NL_OK;
}

// When an answer cannot be received, for want of memory, it stays in the socket.
void drop_unread_answers(const nl_sock* socket) {
    char byte = 0;
    while (recv(nl_socket_get_fd(socket), &byte, sizeof byte, MSG_DONTWAIT) >= 0) {
    }
}

}  // namespace

void NlMessageFree::operator()(nl_msg* message) const {
    nlmsg_free(message);
}

NlMessage link_change(const ifinfomsg& link) {
    return link_request(RTM_SETLINK, NLM_F_ACK, link);
}

RtnlRequests::RtnlRequests() : socket_(open_rtnl_socket()) {
    nl_socket_disable_auto_ack(socket_.get());
}

// The kernel's errno is kept because the library's own error numbers are coarser.
int RtnlRequests::send(nl_msg* request) const {
    nl_sock* const socket = socket_.get();
    drop_unread_answers(socket);
    int refused = 0;
    nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, keep_errno, &refused);
    int result = nl_send_auto(socket, request);
    if (result >= 0) {
        const bool acknowledged = (nlmsg_hdr(request)->nlmsg_flags & NLM_F_ACK) != 0;
        result = acknowledged ? nl_wait_for_ack(socket) : nl_recvmsgs_default(socket);
    }
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    if (refused != 0) {
        return refused;
    }
    return result < 0 ? EIO : 0;
}

int RtnlRequests::change(const NlMessage& request) const {
    return request ? send(request.get()) : ENOMEM;
}

int RtnlRequests::set_up(uint32_t ifx, bool up) const {
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(ifx);
    link.ifi_flags = up ? IFF_UP : 0;
    link.ifi_change = IFF_UP;
    return change(link_change(link));
}

int RtnlRequests::read_link(uint32_t ifx, const Take& take) const {
    ifinfomsg wanted{};
    wanted.ifi_index = static_cast<int>(ifx);
    const NlMessage request = link_request(RTM_GETLINK, 0, wanted);
    if (!request) {
        return ENOMEM;
    }
    const Take* handler = &take;
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, pass_to_handler, &handler);
    const int error = send(request.get());
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
    return error;
}

}  // namespace qv
