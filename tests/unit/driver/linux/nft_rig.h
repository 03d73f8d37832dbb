// The forwarding plane of a Linux bridge on a real kernel: a network namespace of this process with
// a bridge "br0" of two ports, whose far ends are "p-swp1" and "p-swp2".
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "platform/driver/linux/nft_forwarding.h"
#include "tests/support/test_platform.h"

namespace qv {

using Lines = std::vector<std::string>;

inline constexpr MacAddress kBroadcast = 0xFFFFFFFFFFFF;
inline constexpr MacAddress kUnknown = 0x02000000EE01;
inline constexpr MacAddress kHost = 0x020000000001;
inline constexpr ForwardingRule kPortRule = {.unknown_destination = true,
                                             .ethertype = std::nullopt,
                                             .meter = ForwardingRule::Meter{1000, 512},
                                             .counted = true};
inline constexpr ForwardingRule kSwitchRule = {
    .unknown_destination = false, .ethertype = 0x8847, .meter = std::nullopt, .counted = false};

class Sink final : public ForwardingSink {
 public:
    void done(ForwardingId id) override { lines.push_back("done " + std::to_string(id)); }
    void failed(ForwardingId id, int error) override {
        lines.push_back("failed " + std::to_string(id) + ": " + std::strerror(error));
    }
    void counted(ForwardingId id, uint64_t packets, uint64_t bytes) override {
        counts[id].packets += packets;
        counts[id].bytes += bytes;
    }
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
    std::map<ForwardingId, PacketCounts> counts;
};

// The standard output of a command.
inline std::string output_of(const std::string& command) {
    FILE* const pipe = popen((command + " 2>/dev/null").c_str(), "r");
    std::string text;
    std::array<char, 4096> bytes;
    for (size_t got = 0; (got = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;) {
        text.append(bytes.data(), got);
    }
    pclose(pipe);
    return text;
}

inline void run(const std::string& program, const std::string& lines) {
    FILE* const pipe = popen(program.c_str(), "w");
    ASSERT_NE(pipe, nullptr);
    std::fputs(lines.c_str(), pipe);
    ASSERT_EQ(pclose(pipe), 0) << lines;
}

inline void ip(const std::string& lines) {
    run("ip -batch -", lines);
}

inline void bridge(const std::string& lines) {
    run("bridge -batch -", lines);
}

inline void nft(const std::string& lines) {
    run("nft -f -", lines);
}

inline std::string port_line(const std::string& name) {
    return "link add " + name + " type veth peer name p-" + name + "\nlink set p-" + name +
           " up\nlink set " + name + " up\nlink set " + name + " master br0\n";
}

// Sends frames of 60 bytes out of a device.
inline void send_frames(const std::string& device, MacAddress destination, unsigned count,
                        uint16_t type = 0x88B6, int vlan = -1) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    ASSERT_GE(fd, 0);
    std::array<unsigned char, 60> frame{};
    for (size_t n = 0; n < 6; ++n) {
        frame[n] = static_cast<unsigned char>(destination >> (8 * (5 - n)));
    }
    frame[6] = 0x06;  // sender
    size_t at = 12;
    if (vlan >= 0) {
        const std::array<unsigned char, 4> tag = {0x81, 0, 0, static_cast<unsigned char>(vlan)};
        std::copy(tag.begin(), tag.end(), frame.begin() + 12);
        at = 16;
    }
    frame[at] = static_cast<unsigned char>(type >> 8);
    frame[at + 1] = static_cast<unsigned char>(type);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    for (unsigned n = 0; n < count; ++n) {
        const ssize_t sent = sendto(fd, frame.data(), frame.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&to), sizeof to);
        ASSERT_EQ(sent, static_cast<ssize_t>(frame.size())) << std::strerror(errno);
    }
    close(fd);
}

struct NftForwardingTest : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace of our own: " << std::strerror(errno);
        }
        // Only the test may send frames.
        for (const char* scope : {"all", "default"}) {
            std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + scope + "/disable_ipv6") << 1;
        }
        ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") + port_line("swp2"));
        if (std::system(
                "nft add table netdev probe 2>/dev/null && nft delete table netdev probe")) {
            GTEST_SKIP() << "no packet filter of the netdev family in this kernel";
        }
        find_bridge();
        find_port(1, "swp1");
        find_port(2, "swp2");
        make_plane(FdbMirror::kReceiveBuffer);
    }

    void make_plane(int receive_buffer) {
        plane = std::make_unique<NftForwarding>(
            loop, NftForwarding::Settings{.find_bridge = [this] { return bridge_ifx; },
                                          .find_port =
                                              [this](uint32_t phyid) {
                                                  const auto found = ports.find(phyid);
                                                  return found == ports.end() ? nullptr
                                                                              : &found->second;
                                              },
                                          .mirror = {.receive_buffer = receive_buffer}});
        plane->start(sink);
    }

    // The calls to the port model.
    void find_bridge() { bridge_ifx = if_nametoindex("br0"); }
    void find_port(uint32_t phyid, const std::string& name) {
        ports[phyid] = Port{.ifx = if_nametoindex(name.c_str()), .phyid = phyid, .name = name};
    }

    bool wait_for(const std::function<bool()>& done) { return test::run_until(loop, done); }

    void turn_for(Duration time) {
        bool over = false;
        const auto timer = loop.after(time, [&] { over = true; });
        wait_for([&] { return over; });
    }

    // Waits until the requests are in the kernel.
    void run_until_committed() { turn_for(2 * NftForwarding::kGather); }

    // Waits until the set of known addresses has been read and the counters were reported twice.
    void settle() { turn_for(2 * NftForwarding::kTick + std::chrono::seconds(1)); }

    static bool is_known(const std::string& address) {
        return output_of("nft list set netdev lda fdb").find(address) != std::string::npos;
    }
    bool becomes_known(const std::string& address, bool known = true) {
        return wait_for([&] {
            turn_for(std::chrono::milliseconds(200));
            return is_known(address) == known;
        });
    }
    uint64_t packets(ForwardingId id) { return sink.counts[id].packets; }

    // ip(8) and the like take a while: ten seconds of this clock are one real second.
    test::TestPlatform platform;
    SteadyClock clock{10};
    EventLoop loop{clock};
    Sink sink;
    uint32_t bridge_ifx = 0;
    std::map<uint32_t, Port> ports;
    std::unique_ptr<NftForwarding> plane;
};

}  // namespace qv
