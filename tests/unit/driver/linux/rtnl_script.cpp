#include "tests/unit/driver/linux/rtnl_script.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/unit/driver/linux/netlink_message.h"

namespace qv::test {

RtnlScript g_rtnl;

void send_rtnl(uint16_t type, const std::string& payload, uint16_t flags) {
    const NetlinkMessage message(type, payload, flags);
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = g_rtnl.port;
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    EXPECT_EQ(sendto(fd, message.get(), message.get()->nlmsg_len, 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message.get()->nlmsg_len))
        << std::strerror(errno);
    close(fd);
}

void send_rtnl_done(int error) {
    const int result = -error;
    send_rtnl(NLMSG_DONE, std::string(reinterpret_cast<const char*>(&result), sizeof result),
              NLM_F_MULTI);
}

}  // namespace qv::test

using qv::test::g_rtnl;

// The linker puts these in place of the libraries' functions.
extern "C" {

int __real_nl_connect(nl_sock* socket, int protocol);
int __wrap_nl_connect(nl_sock* socket, int protocol) {
    if (g_rtnl.no_socket) {
        return -NLE_NOMEM;
    }
    const int result = __real_nl_connect(socket, protocol);
    g_rtnl.port = nl_socket_get_local_port(socket);
    ++g_rtnl.sockets;
    return result;
}

int __real_nl_send_simple(nl_sock* socket, int type, int flags, void* bytes, size_t size);
int __wrap_nl_send_simple(nl_sock* socket, int type, int flags, void* bytes, size_t size) {
    ++g_rtnl.requests;
    if (g_rtnl.refused_requests > 0) {
        --g_rtnl.refused_requests;
        return -NLE_BUSY;
    }
    return g_rtnl.silent ? 0 : __real_nl_send_simple(socket, type, flags, bytes, size);
}

int __real_nl_recv(nl_sock* socket, sockaddr_nl* sender, unsigned char** bytes, ucred** owner);
int __wrap_nl_recv(nl_sock* socket, sockaddr_nl* sender, unsigned char** bytes, ucred** owner) {
    const int length = __real_nl_recv(socket, sender, bytes, owner);
    if (g_rtnl.trusted) {
        sender->nl_pid = 0;
    }
    return length;
}
}
