// Reports when chains have been added to the kernel's packet filter.
//
//     rule_watch       in the network namespace of the switch
//
// Standard input has a number of chains; standard output says "ready", and then the time at which
// there were this many more, in nanoseconds of the monotonic clock.
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReceiveBuffer = 32 << 20;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

mnl_socket* watch_tables() {
    mnl_socket* const watch = mnl_socket_open(NETLINK_NETFILTER);
    if (watch == nullptr ||
        mnl_socket_bind(watch, 1U << (NFNLGRP_NFTABLES - 1), MNL_SOCKET_AUTOPID) < 0) {
        fail("netlink");
    }
    setsockopt(mnl_socket_get_fd(watch), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
               sizeof kReceiveBuffer);
    return watch;
}

void drain(const mnl_socket* watch) {
    char bytes[8192];
    while (recv(mnl_socket_get_fd(watch), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

long chains_in(const char* bytes, int left) {
    long chains = 0;
    const auto* header = reinterpret_cast<const nlmsghdr*>(bytes);
    for (; mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
        chains += header->nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWCHAIN) ? 1 : 0;
    }
    return chains;
}

}  // namespace

int main() {
    const mnl_socket* const watch = watch_tables();
    char line[32];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        drain(watch);
        std::puts("ready");
        std::fflush(stdout);
        for (long wanted = std::strtol(line, nullptr, 10); wanted > 0;) {
            char bytes[8192];
            const ssize_t size = mnl_socket_recvfrom(watch, bytes, sizeof bytes);
            if (size < 0) {
                fail("receive");
            }
            wanted -= chains_in(bytes, static_cast<int>(size));
        }
        std::printf("%lld\n", static_cast<long long>(Clock::now().time_since_epoch().count()));
        std::fflush(stdout);
    }
}
