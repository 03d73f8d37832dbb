// Measures one reading of all counters of the Linux forwarding plane, beside a bare dump of them.
//
//     counter_bench PORTS ROUNDS       as root; in its own network namespace
//
// Each round sends one frame into every port. Then the plane's tick reads all counters and reports
// the increments, and a bare dump with libnftnl and libmnl reads and sums the same table. Standard
// output: one JSON object, medians in nanoseconds.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <libnftnl/object.h>
#include <linux/if_packet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/driver/linux/nft_forwarding.h"
#include "tests/support/test_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr qv::ForwardingRule kRule = {.unknown_destination = true,
                                      .ethertype = std::nullopt,
                                      .meter = qv::ForwardingRule::Meter{8000, 1024},
                                      .counted = true};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Port N is device "dN". The two ends of a pair are two ports: what one sends the other receives.
void make_devices(unsigned ports) {
    // Only we may send frames.
    for (const char* scope : {"all", "default"}) {
        std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + scope + "/disable_ipv6") << 1;
    }
    FILE* const ip = popen("ip -batch -", "w");
    for (unsigned n = 1; n <= ports; n += 2) {
        std::fprintf(ip, "link add d%u type veth peer name d%u\nlink set d%u up\nlink set d%u up\n",
                     n, n + 1, n, n + 1);
    }
    if (pclose(ip) != 0) {
        fail("ip");
    }
}

class Sink final : public qv::ForwardingSink {
 public:
    void done(qv::ForwardingId) override { ++installed; }
    void failed(qv::ForwardingId, int) override {}
    void counted(qv::ForwardingId, uint64_t added, uint64_t) override { packets += added; }

    unsigned installed = 0;
    uint64_t packets = 0;
};

// Sends a frame to an unknown address out of every device.
class Sender {
 public:
    explicit Sender(unsigned ports) : ports_(ports), fd_(socket(AF_PACKET, SOCK_RAW, 0)) {
        if (fd_ < 0) {
            fail("packet socket");
        }
    }
    void send_all() const {
        std::array<unsigned char, 60> frame = {0x02, 0, 0, 0, 0xEE, 1,    2,
                                               0,    0, 0, 0, 1,    0x88, 0xB6};
        for (unsigned n = 1; n <= ports_; ++n) {
            sockaddr_ll to{};
            to.sll_family = AF_PACKET;
            to.sll_ifindex = static_cast<int>(if_nametoindex(("d" + std::to_string(n)).c_str()));
            if (sendto(fd_, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                       sizeof to) < 0) {
                fail("send");
            }
        }
    }

 private:
    const unsigned ports_;
    const int fd_;
};

struct Dump {
    unsigned counters = 0;
    uint64_t packets = 0;
};

int add_up(const nlmsghdr* header, void* data) {
    nftnl_obj* const object = nftnl_obj_alloc();
    if (object != nullptr && nftnl_obj_nlmsg_parse(header, object) >= 0) {
        auto* dump = static_cast<Dump*>(data);
        ++dump->counters;
        dump->packets += nftnl_obj_get_u64(object, NFTNL_OBJ_CTR_PKTS);
    }
    nftnl_obj_free(object);
    return MNL_CB_OK;
}

Dump bare_dump(const mnl_socket* socket, uint32_t sequence) {
    std::array<char, 1024> request;
    nlmsghdr* const header =
        nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETOBJ, NFPROTO_NETDEV, NLM_F_DUMP, sequence);
    nftnl_obj* const filter = nftnl_obj_alloc();
    nftnl_obj_set_str(filter, NFTNL_OBJ_TABLE, qv::NftForwarding::kTable);
    nftnl_obj_set_u32(filter, NFTNL_OBJ_TYPE, NFT_OBJECT_COUNTER);
    nftnl_obj_nlmsg_build_payload(header, filter);
    nftnl_obj_free(filter);
    if (mnl_socket_sendto(socket, header, header->nlmsg_len) < 0) {
        fail("netlink");
    }
    static std::array<char, 64 << 10> answer;
    Dump dump;
    for (int more = MNL_CB_OK; more == MNL_CB_OK;) {
        const ssize_t size = mnl_socket_recvfrom(socket, answer.data(), answer.size());
        more = size < 0 ? MNL_CB_ERROR
                        : mnl_cb_run(answer.data(), static_cast<size_t>(size), sequence,
                                     mnl_socket_get_portid(socket), add_up, &dump);
        if (more == MNL_CB_ERROR) {
            fail("dump");
        }
    }
    return dump;
}

// The kernel may defer received frames on a busy processor.
void wait_for_frames(const mnl_socket* socket, uint64_t sent) {
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (bare_dump(socket, 1).packets != sent && Clock::now() < deadline) {
        std::this_thread::yield();
    }
}

long long timed(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return (Clock::now() - start).count();
}

long long median(std::vector<long long>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

int measure(unsigned ports, unsigned rounds) {
    qv::test::TestPlatform platform;
    qv::EventLoop loop(platform.manual_clock);
    platform.attach_loop(loop);
    std::vector<qv::Port> known(ports + 1);
    for (unsigned n = 1; n <= ports; ++n) {
        known[n].name = "d" + std::to_string(n);
        known[n].phyid = n;
        known[n].ifx = if_nametoindex(known[n].name.c_str());
    }
    Sink sink;
    qv::NftForwarding plane(loop, {.find_bridge = [] { return 0; },
                                   .find_port =
                                       [&](uint32_t phyid) {
                                           return &known.at(phyid);
                                       }});
    plane.start(sink);
    for (unsigned n = 1; n <= ports; ++n) {
        plane.install(n, n, kRule);
    }
    platform.run_for(std::chrono::milliseconds(500));
    if (sink.installed != ports) {
        std::fprintf(stderr, "counter_bench: only %u rules\n", sink.installed);
        return 1;
    }

    mnl_socket* const socket = mnl_socket_open(NETLINK_NETFILTER);
    if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        fail("netlink");
    }
    const Sender sender(ports);
    std::vector<long long> ours;
    std::vector<long long> bare;
    for (unsigned round = 1; round <= rounds; ++round) {
        sender.send_all();
        const uint64_t sent = static_cast<uint64_t>(ports) * round;
        wait_for_frames(socket, sent);
        Dump dump;
        const auto read_ours = [&] {
            platform.manual_clock.advance(qv::NftForwarding::kTick);
            loop.fetch();
            loop.run();
        };
        const auto read_bare = [&] {
            dump = bare_dump(socket, round);
        };
        if (round % 2 == 0) {
            ours.push_back(timed(read_ours));
            bare.push_back(timed(read_bare));
        } else {
            bare.push_back(timed(read_bare));
            ours.push_back(timed(read_ours));
        }
        if (dump.counters != ports || dump.packets != sent || sink.packets != sent) {
            std::fprintf(stderr, "counter_bench: %llu frames sent, %llu read, %llu reported\n",
                         static_cast<unsigned long long>(sent),
                         static_cast<unsigned long long>(dump.packets),
                         static_cast<unsigned long long>(sink.packets));
            return 1;
        }
    }
    std::printf("{\"ours\": %lld, \"bare\": %lld}\n", median(ours), median(bare));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned ports =
        argc == 3 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 0;
    const unsigned rounds =
        argc == 3 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 0;
    if (ports == 0 || ports % 2 != 0 || rounds == 0) {
        std::fprintf(stderr, "usage: counter_bench PORTS ROUNDS (an even number of ports)\n");
        return 2;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        fail("network namespace");
    }
    make_devices(ports);
    return measure(ports, rounds);
}
