#include "platform/driver/linux/rtnl_counters.h"

#include <cstring>
#include <memory>
#include <stdexcept>

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "platform/base/guarded.h"
#include "platform/driver/linux/netlink_datagram.h"
#include "platform/driver/linux/rtnl_monitor.h"

namespace qv {
namespace {

using Counters = std::map<uint32_t, PortCounters>;

// The first fields of the kernel's statistics, which every kernel sends. Newer ones append more.
struct LinkStatistics {
    uint64_t rx_packets;
    uint64_t tx_packets;
    uint64_t rx_bytes;
    uint64_t tx_bytes;
    uint64_t rx_errors;
    uint64_t tx_errors;
    uint64_t rx_dropped;
    uint64_t tx_dropped;
};
static_assert(offsetof(rtnl_link_stats64, tx_dropped) == offsetof(LinkStatistics, tx_dropped));

// Called by the library, which no exception may cross. Without memory the link is left out.
int keep_counters(nl_msg* answer, void* kept) {
    guarded([=] {
        if (const auto link = parse_counters(nlmsg_hdr(answer))) {
            (*static_cast<Counters*>(kept))[link->ifx] = link->counters;
        }
    });
    return NL_OK;
}

// Sends the request and reads its whole answer. An error keeps the part already read.
void read_all(nl_sock* socket, uint32_t ifx, Counters& counters) {
    if_stats_msg wanted{};
    wanted.ifindex = ifx;
    wanted.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
    nl_socket_disable_msg_peek(socket);
    nl_socket_set_msg_buf_size(socket, kNetlinkDatagramBytes);
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, keep_counters, &counters);
    const int flags = ifx == 0 ? NLM_F_DUMP : 0;
    if (nl_send_simple(socket, RTM_GETSTATS, flags, &wanted, sizeof wanted) >= 0) {
        static_cast<void>(nl_recvmsgs_default(socket));
    }
}

}  // namespace

std::optional<LinkCounters> parse_counters(nlmsghdr* header) {
    nla_policy policy[IFLA_STATS_MAX + 1]{};
    policy[IFLA_STATS_LINK_64].minlen = sizeof(LinkStatistics);
    nlattr* field[IFLA_STATS_MAX + 1];
    if (header->nlmsg_type != RTM_NEWSTATS ||
        nlmsg_parse(header, sizeof(if_stats_msg), field, IFLA_STATS_MAX, policy) < 0) {
        return std::nullopt;
    }
    if_stats_msg about;
    std::memcpy(&about, nlmsg_data(header), sizeof about);
    if (about.ifindex == 0 || field[IFLA_STATS_LINK_64] == nullptr) {
        return std::nullopt;
    }
    LinkStatistics now;
    std::memcpy(&now, nla_data(field[IFLA_STATS_LINK_64]), sizeof now);
    return LinkCounters{.ifx = about.ifindex,
                        .counters = {.received = {.packets = now.rx_packets,
                                                  .bytes = now.rx_bytes,
                                                  .drops = now.rx_dropped,
                                                  .errors = now.rx_errors},
                                     .sent = {.packets = now.tx_packets,
                                              .bytes = now.tx_bytes,
                                              .drops = now.tx_dropped,
                                              .errors = now.tx_errors}}};
}

std::map<uint32_t, PortCounters> read_counters(uint32_t ifx) {
    Counters counters;
    try {
        const NlSocket socket = open_rtnl_socket();
        read_all(socket.get(), ifx, counters);
    } catch (const std::runtime_error&) {
        // Without a socket there are no counters; the command prints the rest.
    }
    return counters;
}

}  // namespace qv
