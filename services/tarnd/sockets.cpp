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

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/base/tarn_limits.h"

namespace qv::tarnd {
namespace {

constexpr size_t kFrameBuffer = 2048;
constexpr size_t kDatagramBytes = 64 << 10;
constexpr size_t kTypeAt = 2 * ETH_ALEN;
constexpr size_t kTagBytes = 4;
constexpr uint16_t kVidMask = 0x0fff;
constexpr uint16_t kHighestPriority = 7 << 13;  // network control

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

uint16_t number_at(std::span<const uint8_t> frame, size_t at) {
    return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
}

bool is_tagged(std::span<const uint8_t> frame) {
    if (frame.size() < kTypeAt + kTagBytes) {
        return false;
    }
    const uint16_t type = number_at(frame, kTypeAt);
    return type == ETH_P_8021Q || type == ETH_P_8021AD;
}

// The VLAN of the tag that the kernel has taken out of the frame; 0: there was none.
uint16_t stripped_vid(msghdr& message) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        tpacket_auxdata extra{};
        if (part->cmsg_level == SOL_PACKET && part->cmsg_type == PACKET_AUXDATA &&
            part->cmsg_len >= CMSG_LEN(sizeof extra)) {
            std::memcpy(&extra, CMSG_DATA(part), sizeof extra);
            const bool valid = (extra.tp_status & TP_STATUS_VLAN_VALID) != 0;
            return valid ? extra.tp_vlan_tci & kVidMask : 0;
        }
    }
    return 0;
}

// Takes the inner tag out of the frame. It names the VLAN only where there is no outer one.
void pass_frame(uint32_t ifx, uint16_t vid, std::span<uint8_t> frame,
                const PacketSocket::Receiver& receiver) {
    if (is_tagged(frame)) {
        const uint16_t inner = number_at(frame, kTypeAt + 2) & kVidMask;
        vid = vid != 0 ? vid : inner;
        std::memmove(frame.data() + kTagBytes, frame.data(), kTypeAt);
        frame = frame.subspan(kTagBytes);
    }
    receiver(ifx, vid, frame);
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
    // The kernel takes the outer tag out of a frame; one more may be left in it.
    std::array<sock_filter, 8> code{{{BPF_LD | BPF_H | BPF_ABS, 0, 0, kTypeAt},
                                     {BPF_JMP | BPF_JEQ | BPF_K, 4, 0, kProbeEtherType},
                                     {BPF_JMP | BPF_JEQ | BPF_K, 1, 0, ETH_P_8021Q},
                                     {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, ETH_P_8021AD},
                                     {BPF_LD | BPF_H | BPF_ABS, 0, 0, kTypeAt + kTagBytes},
                                     {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, kProbeEtherType},
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
        setsockopt(fd_.get(), SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0 ||
        bind(fd_.get(), reinterpret_cast<const sockaddr*>(&all), sizeof all) != 0) {
        fail("packet socket");
    }
}

bool PacketSocket::send(uint32_t ifx, uint16_t vid, const Frame& frame) const {
    std::array<uint8_t, kFrameBytes + kTagBytes> tagged;
    std::span<const uint8_t> bytes = frame;
    if (vid != 0) {
        const std::array<uint16_t, 2> tag{htons(ETH_P_8021Q), htons(kHighestPriority | vid)};
        std::memcpy(tagged.data(), frame.data(), kTypeAt);
        std::memcpy(tagged.data() + kTypeAt, tag.data(), kTagBytes);
        std::copy(frame.begin() + kTypeAt, frame.end(), tagged.begin() + kTypeAt + kTagBytes);
        bytes = tagged;
    }
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(vid != 0 ? ETH_P_8021Q : kProbeEtherType);
    to.sll_ifindex = static_cast<int>(ifx);
    to.sll_halen = kDestination.size();
    std::memcpy(to.sll_addr, kDestination.data(), kDestination.size());
    return sendto(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&to),
                  sizeof to) == static_cast<ssize_t>(bytes.size());
}

bool PacketSocket::receive(size_t most, const Receiver& receiver) const {
    std::array<uint8_t, kFrameBuffer> bytes;
    for (size_t n = 0; n < most; ++n) {
        sockaddr_ll from{};
        iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
        alignas(cmsghdr) std::array<uint8_t, CMSG_SPACE(sizeof(tpacket_auxdata))> extra;
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = extra.data();
        message.msg_controllen = extra.size();
        const ssize_t size = recvmsg(fd_.get(), &message, MSG_DONTWAIT);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return false;
        }
        // Other errors are news of an interface (ENETDOWN), reported once each.
        if (size > 0 && from.sll_pkttype != PACKET_OUTGOING) {
            pass_frame(static_cast<uint32_t>(from.sll_ifindex), stripped_vid(message),
                       std::span(bytes).first(static_cast<size_t>(size)), receiver);
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
