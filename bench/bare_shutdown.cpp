// Floor of the reaction time: subscribes to the loop reports and sets the reported interface down.
// It has the agent's libraries, but no loop state, no policy, no command line and no threads.
//
//     bare_shutdown REDIS_SOCKET        in the network namespace of the interfaces
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "bench/redis_link.h"

namespace {

void set_down(nl_sock* socket, uint32_t ifx) {
    nl_msg* const request = nlmsg_alloc_simple(RTM_SETLINK, NLM_F_ACK);
    ifinfomsg change{};
    change.ifi_index = static_cast<int>(ifx);
    change.ifi_change = IFF_UP;
    nlmsg_append(request, &change, sizeof change, NLMSG_ALIGNTO);
    if (nl_send_auto(socket, request) < 0 || nl_wait_for_ack(socket) < 0) {
        std::fprintf(stderr, "interface %u cannot be set down\n", ifx);
    }
    nlmsg_free(request);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bare_shutdown REDIS_SOCKET\n");
        return 2;
    }
    nl_sock* const socket = nl_socket_alloc();
    if (socket == nullptr || nl_connect(socket, NETLINK_ROUTE) < 0) {
        bench::fail("netlink");
    }
    const bench::Connection connection = bench::connect(argv[1]);
    bench::subscribe(connection.get(), bench::kReports);
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const bench::Reply message = bench::next_reply(connection.get());
        const bench::Report report = bench::unpack(bench::payload(message));
        if (report && report->is_loop != 0) {
            set_down(socket, report->index->ifx);
        }
    }
}
