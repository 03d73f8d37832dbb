#include "services/tarnd/sockets.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace qv::tarnd {
namespace {

constexpr size_t kFrameBuffer = 2048;
constexpr size_t kDatagramBytes = 64 << 10;

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

void drop_all(int fd) {
    std::array<uint8_t, kFrameBuffer> bytes;
    while (recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_TRUNC) > 0) {
    }
}

}  // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

Descriptor::~Descriptor() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

// The filter is attached before the socket is bound to its protocol, so that no other frame is ever
// queued.
PacketSocket::PacketSocket() : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (fd_.get() < 0) {
        fail("packet socket");
    }
    std::array<sock_filter, 4> code{{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 2 * ETH_ALEN},
                                     {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, kEtherType},
                                     {BPF_RET | BPF_K, 0, 0, kFrameBuffer},
                                     {BPF_RET | BPF_K, 0, 0, 0}}};
    const sock_fprog program{.len = code.size(), .filter = code.data()};
    const int on = 1;
    // Probes go before other frames where a port's queue knows priorities. It need not.
    const int priority = TC_PRIO_CONTROL;
    setsockopt(fd_.get(), SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority);
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_ALL);
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0 ||
        setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        bind(fd_.get(), reinterpret_cast<const sockaddr*>(&all), sizeof all) != 0) {
        fail("packet socket");
    }
}

bool PacketSocket::send(uint32_t ifx, const Frame& frame) const {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(kEtherType);
    to.sll_ifindex = static_cast<int>(ifx);
    to.sll_halen = kDestination.size();
    std::memcpy(to.sll_addr, kDestination.data(), kDestination.size());
    return sendto(fd_.get(), frame.data(), frame.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&to),
                  sizeof to) == static_cast<ssize_t>(frame.size());
}

bool PacketSocket::receive(size_t most, const Receiver& receiver) const {
    std::array<uint8_t, kFrameBuffer> bytes;
    for (size_t n = 0; n < most; ++n) {
        sockaddr_ll from{};
        socklen_t length = sizeof from;
        const ssize_t size = recvfrom(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return false;
        }
        // Other errors are news of an interface (ENETDOWN), reported once each.
        if (size > 0 && from.sll_pkttype != PACKET_OUTGOING) {
            receiver(static_cast<uint32_t>(from.sll_ifindex),
                     std::span(bytes).first(static_cast<size_t>(size)));
        }
    }
    return true;
}

RouteSocket::RouteSocket(int group, int receive_buffer)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)),
      buffer_(kDatagramBytes) {
    if (fd_.get() < 0) {
        fail("rtnetlink socket");
    }
    // Beyond the system's limit where we may; the limit itself where we may not.
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer)) {
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        setsockopt(fd_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
        fail("rtnetlink socket");
    }
}

bool RouteSocket::request_links(uint32_t sequence) const {
    struct {
        nlmsghdr header;
        ifinfomsg link;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = sequence;
    request.link.ifi_family = AF_UNSPEC;
    return send(fd_.get(), &request, sizeof request, MSG_DONTWAIT) ==
           static_cast<ssize_t>(sizeof request);
}

bool RouteSocket::receive(size_t most, const Receiver& receiver) {
    for (size_t n = 0; n < most; ++n) {
        sockaddr_nl from{};
        socklen_t length = sizeof from;
        const ssize_t size = recvfrom(fd_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        if (size < 0) {
            drop_all(fd_.get());
            return false;
        }
        if (from.nl_pid != 0) {
            continue;  // not from the kernel
        }
        auto left = static_cast<unsigned>(size);
        auto* message = reinterpret_cast<nlmsghdr*>(buffer_.data());
        for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            receiver(message);
        }
    }
    return true;
}

}  // namespace qv::tarnd
