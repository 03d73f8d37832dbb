// Sends frames out of a device as fast as one processor can, and measures them.
//
//     frame_sender DEVICE DESTINATION CPU       in the device's network namespace
//
// Standard input has a number of frames; standard output has the nanoseconds for all of them.
// The sending processor does all the work on the other side of a veth pair, too: the frames are
// received, bridged and delivered before the next ones are sent.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kAtOnce = 64;
constexpr uint16_t kType = 0x88B6;  // local experimental

using Frame = std::array<unsigned char, 60>;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

Frame frame_to(const char* address) {
    const ether_addr* const destination = ether_aton(address);
    if (destination == nullptr) {
        fail("address");
    }
    ether_header header{};
    std::memcpy(header.ether_dhost, destination, sizeof header.ether_dhost);
    const unsigned char source[] = {0x02, 0, 0, 0, 0xBE, 0x01};
    std::memcpy(header.ether_shost, source, sizeof source);
    header.ether_type = htons(kType);
    Frame frame{};
    std::memcpy(frame.data(), &header, sizeof header);
    return frame;
}

// Straight to the device, past its queue.
int open_device(const char* name) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll device{};
    device.sll_family = AF_PACKET;
    device.sll_ifindex = static_cast<int>(if_nametoindex(name));
    const int bypass = 1;
    if (fd < 0 || device.sll_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&device), sizeof device) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &bypass, sizeof bypass) != 0) {
        fail(name);
    }
    return fd;
}

void stay_on(unsigned cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        fail("affinity");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: frame_sender DEVICE DESTINATION CPU\n");
        return 2;
    }
    const int fd = open_device(argv[1]);
    Frame frame = frame_to(argv[2]);
    stay_on(static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
    iovec piece = {frame.data(), frame.size()};
    std::array<mmsghdr, kAtOnce> messages{};
    for (mmsghdr& message : messages) {
        message.msg_hdr.msg_iov = &piece;
        message.msg_hdr.msg_iovlen = 1;
    }
    char line[32];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        const auto start = Clock::now();
        for (size_t left = std::strtoul(line, nullptr, 10); left > 0;) {
            const int sent =
                sendmmsg(fd, messages.data(), static_cast<unsigned>(std::min(left, kAtOnce)), 0);
            if (sent < 0) {
                fail("send");
            }
            left -= static_cast<size_t>(sent);
        }
        std::printf("%lld\n", static_cast<long long>((Clock::now() - start).count()));
        std::fflush(stdout);
    }
}
