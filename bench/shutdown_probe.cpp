// Measures the reaction time: sets the loop report of an interface in Redis and watches the kernel
// until the interface is administratively down.
//
//     shutdown_probe REDIS_SOCKET       in the network namespace of the interfaces
//
// Standard input has an interface index on each line; standard output has, for each, the
// nanoseconds from before the record was sent until the kernel's message, or "late" after five
// seconds.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/msg.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "bench/redis_link.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kLate{5};

int watch_links() {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        bench::fail("netlink");
    }
    return fd;
}

// Continues after an overrun, which is reported once and leaves the messages before it.
void drain(int fd) {
    char bytes[8192];
    while (::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0 || errno == ENOBUFS) {
    }
}

// Whether the messages of one datagram say that the interface is down.
bool says_down(char* bytes, int size, uint32_t ifx) {
    for (auto* header = reinterpret_cast<nlmsghdr*>(bytes); nlmsg_ok(header, size);
         header = nlmsg_next(header, &size)) {
        ifinfomsg link;
        if (header->nlmsg_type != RTM_NEWLINK) {
            continue;
        }
        std::memcpy(&link, nlmsg_data(header), sizeof link);
        if (link.ifi_index == static_cast<int>(ifx) && (link.ifi_flags & IFF_UP) == 0) {
            return true;
        }
    }
    return false;
}

bool wait_down(int fd, uint32_t ifx) {
    const auto deadline = Clock::now() + kLate;
    while (Clock::now() < deadline) {
        pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
        if (::poll(&waiting, 1, 100) <= 0) {
            continue;
        }
        alignas(nlmsghdr) char bytes[16384];
        const auto size = static_cast<int>(::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT));
        if (size > 0 && says_down(bytes, size, ifx)) {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: shutdown_probe REDIS_SOCKET\n");
        return 2;
    }
    const bench::Connection connection = bench::connect(argv[1]);
    const int links = watch_links();
    unsigned ifx = 0;
    while (std::scanf("%u", &ifx) == 1) {
        drain(links);
        bench::append_report(connection.get(), ifx, 1);
        const auto start = Clock::now();
        bench::send_queued(connection.get());
        const bool down = wait_down(links, ifx);
        const std::chrono::nanoseconds took = Clock::now() - start;
        bench::take_replies(connection.get());
        std::puts(down ? std::to_string(took.count()).c_str() : "late");
        std::fflush(stdout);
    }
    ::close(links);
}
