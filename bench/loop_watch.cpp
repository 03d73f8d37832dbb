// A host that sends, a bystander that counts, and a watch on the ports of a switch, for one loop.
//
//     loop_watch SOURCE BYSTANDER      devices of its namespace
//
// A line "talk COUNT PAUSE_us LIMIT_ms" sends that many broadcasts out of SOURCE and watches until
// nothing more has arrived at BYSTANDER for kCalm, or the limit is over. The answer: frames that
// arrived beyond those sent; nanoseconds from the first of these to the last; from the first of
// these until one port, and until a second one, was administratively down (-1: none was); 1 if it
// became calm, else 0.
//
// A line "up DEVICE LIMIT_ms" brings a device up while broadcasts leave SOURCE every 0.1 ms. The
// answer: nanoseconds until the first one arrives at DEVICE; -1 when the limit is over.
//
// The kernel stamps the frames. The bystander's frames are left in a ring that is read every
// millisecond, so that watching costs little; those that do not fit are counted too.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>

namespace {

constexpr uint16_t kType = 0x88b6;  // local experimental
constexpr int64_t kMillisecond_ns = 1000000;
constexpr int64_t kCalm_ns = 400 * kMillisecond_ns;
constexpr unsigned kSlotBytes = 128;
constexpr unsigned kBlockBytes = 1 << 16;
constexpr unsigned kSlots = 1 << 18;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

void bind_to(int fd, const std::string& device) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(kType);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    if (address.sll_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail(device.c_str());
    }
}

int packet_socket() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fail("packet socket");
    }
    return fd;
}

class Source {
 public:
    explicit Source(const std::string& device) : fd_(packet_socket()) {
        bind_to(fd_, device);
        frame_.fill(0);
        std::fill_n(frame_.begin(), ETH_ALEN, 0xff);
        frame_[ETH_ALEN] = 0x02;
        frame_[2 * ETH_ALEN - 1] = 0x01;
        frame_[2 * ETH_ALEN] = kType >> 8;
        frame_[2 * ETH_ALEN + 1] = kType & 0xff;
    }
    void send_one() {
        // A storm may have filled the queue: then the frame is lost like one on the way.
        if (send(fd_, frame_.data(), frame_.size(), 0) < 0 && errno != ENOBUFS) {
            fail("send");
        }
    }

 private:
    int fd_;
    std::array<uint8_t, 60> frame_;
};

// Frames that arrived since clear(), with the times of the second of them that was not expected.
class Bystander {
 public:
    explicit Bystander(const std::string& device) : fd_(packet_socket()) {
        const int version = TPACKET_V2;
        const tpacket_req ring{.tp_block_size = kBlockBytes,
                               .tp_block_nr = kSlots / (kBlockBytes / kSlotBytes),
                               .tp_frame_size = kSlotBytes,
                               .tp_frame_nr = kSlots};
        if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
            setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &ring, sizeof ring) != 0) {
            fail("ring");
        }
        void* const memory =
            mmap(nullptr, size_t{kSlots} * kSlotBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (memory == MAP_FAILED) {
            fail("ring");
        }
        slots_ = static_cast<uint8_t*>(memory);
        bind_to(fd_, device);
    }

    void clear() {
        read(0);
        arrived = 0;
        first_stray_ns = 0;
        last_ns = 0;
    }

    // `sent` frames are expected. Frames that did not fit into the ring count as arrived now.
    void read(uint64_t sent) {
        uint64_t stamped = 0;
        // With a limit: a storm may fill the ring as fast as it is read.
        for (auto* slot = header(); (slot->tp_status & TP_STATUS_USER) != 0 && stamped < kSlots;
             slot = header()) {
            last_ns = slot->tp_sec * int64_t{1000000000} + slot->tp_nsec;
            if (arrived + ++stamped == sent + 1 ||
                (first_stray_ns == 0 && arrived + stamped > sent)) {
                first_stray_ns = last_ns;
            }
            slot->tp_status = TP_STATUS_KERNEL;
            next_ = (next_ + 1) % kSlots;
        }
        tpacket_stats statistics{};
        socklen_t size = sizeof statistics;
        getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &statistics, &size);
        arrived += stamped + statistics.tp_drops;
        if (statistics.tp_drops != 0) {
            last_ns = now_ns();
        }
    }

    uint64_t arrived = 0;
    int64_t first_stray_ns = 0;
    int64_t last_ns = 0;

 private:
    tpacket2_hdr* header() {
        return reinterpret_cast<tpacket2_hdr*>(slots_ + size_t{next_} * kSlotBytes);
    }

    int fd_;
    uint8_t* slots_;
    unsigned next_ = 0;
};

// When interfaces went down, from the kernel's messages.
class Links {
 public:
    Links() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
        sockaddr_nl own{};
        own.nl_family = AF_NETLINK;
        own.nl_groups = RTMGRP_LINK;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
            fail("rtnetlink");
        }
    }
    void clear() {
        read();
        seen_.clear();
        down_ns = {-1, -1};
    }
    void read() {
        alignas(nlmsghdr) std::array<char, 1 << 16> bytes;
        for (ssize_t size = 0; (size = recv(fd_, bytes.data(), bytes.size(), 0)) > 0;) {
            auto left = static_cast<unsigned>(size);
            for (auto* one = reinterpret_cast<nlmsghdr*>(bytes.data()); NLMSG_OK(one, left);
                 one = NLMSG_NEXT(one, left)) {
                take(*one);
            }
        }
    }
    int fd() const { return fd_; }

    std::array<int64_t, 2> down_ns{-1, -1};

 private:
    void take(nlmsghdr& message) {
        const auto* const link = reinterpret_cast<const ifinfomsg*>(&message + 1);
        if (message.nlmsg_type != RTM_NEWLINK || (link->ifi_flags & IFF_UP) != 0 ||
            !seen_.insert(link->ifi_index).second || seen_.size() > down_ns.size()) {
            return;
        }
        down_ns[seen_.size() - 1] = now_ns();
    }

    int fd_;
    std::set<int> seen_;
};

void talk(Source& source, Bystander& bystander, Links& links, unsigned count, unsigned pause_us,
          unsigned limit_ms) {
    bystander.clear();
    links.clear();
    const int64_t end = now_ns() + limit_ms * kMillisecond_ns;
    int64_t send_at = now_ns();
    int64_t changed = send_at;
    uint64_t sent = 0;
    bool calm = false;
    while (!calm && now_ns() < end) {
        while (sent < count && now_ns() >= send_at && now_ns() < end) {
            source.send_one();
            ++sent;
            send_at += pause_us * int64_t{1000};
            changed = now_ns();
        }
        pollfd watched{.fd = links.fd(), .events = POLLIN, .revents = 0};
        const timespec pause{
            .tv_sec = 0,
            .tv_nsec = std::min<int64_t>(kMillisecond_ns, std::max(1U, pause_us) * int64_t{1000})};
        ppoll(&watched, 1, &pause, nullptr);
        links.read();
        const uint64_t before = bystander.arrived;
        bystander.read(sent);
        changed = bystander.arrived != before ? now_ns() : changed;
        calm = sent == count && now_ns() - changed > kCalm_ns;
    }
    const bool stray = bystander.arrived > sent;
    const int64_t first = bystander.first_stray_ns;
    const auto since_first = [&](int64_t time) {
        return static_cast<long long>(stray && time >= 0 ? time - first : -1);
    };
    std::printf("%lld %lld %lld %lld %d\n",
                static_cast<long long>(bystander.arrived) - static_cast<long long>(sent),
                static_cast<long long>(stray ? bystander.last_ns - first : 0),
                since_first(links.down_ns[0]), since_first(links.down_ns[1]), calm ? 1 : 0);
}

void bring_up(Source& source, const char* device, unsigned limit_ms) {
    const int receiver = packet_socket();
    bind_to(receiver, device);
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", device);
    ioctl(receiver, SIOCGIFFLAGS, &request);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    const int64_t start = now_ns();
    if (ioctl(receiver, SIOCSIFFLAGS, &request) != 0) {
        fail(device);
    }
    long long took = -1;
    std::array<char, 2048> bytes;
    while (took < 0 && now_ns() < start + limit_ms * kMillisecond_ns) {
        source.send_one();
        pollfd watched{.fd = receiver, .events = POLLIN, .revents = 0};
        const timespec pause{.tv_sec = 0, .tv_nsec = 100000};
        if (ppoll(&watched, 1, &pause, nullptr) > 0 &&
            recv(receiver, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
            took = now_ns() - start;
        }
    }
    close(receiver);
    std::printf("%lld\n", took);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: loop_watch SOURCE BYSTANDER\n", stderr);
        return 2;
    }
    Source source(argv[1]);
    Bystander bystander(argv[2]);
    Links links;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::array<char, 100> line;
    while (std::fgets(line.data(), line.size(), stdin) != nullptr) {
        unsigned count = 0;
        unsigned pause_us = 0;
        unsigned limit_ms = 0;
        char device[IF_NAMESIZE];
        if (std::sscanf(line.data(), "talk %u %u %u", &count, &pause_us, &limit_ms) == 3) {
            talk(source, bystander, links, count, pause_us, limit_ms);
        } else if (std::sscanf(line.data(), "up %15s %u", device, &limit_ms) == 2) {
            bring_up(source, device, limit_ms);
        } else {
            std::puts("?");
        }
    }
}
