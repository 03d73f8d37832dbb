// Packet counters of links: messages written by hand, and the kernel's in a network namespace of
// this process.
#include "platform/driver/linux/rtnl_counters.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>

#include "platform/base/clock.h"
#include "platform/driver/linux/rtnl_switch.h"
#include "tests/support/test_platform.h"
#include "tests/unit/driver/linux/netlink_message.h"
#include "tests/unit/driver/linux/recording_sink.h"
#include "tests/unit/driver/linux/rtnl_script.h"

namespace qv {
namespace {

template <typename Value>
std::string bytes_of(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string about_link(uint32_t ifx) {
    if_stats_msg header{};
    header.ifindex = ifx;
    return bytes_of(header);
}

std::string numbers(std::initializer_list<uint64_t> values) {
    std::string bytes;
    for (const uint64_t value : values) {
        bytes += bytes_of(value);
    }
    return bytes;
}

std::optional<LinkCounters> parse(uint16_t type, const std::string& payload) {
    const NetlinkMessage message(type, payload);
    return parse_counters(const_cast<nlmsghdr*>(message.get()));
}

TEST(ParseCounters, ReadsPacketsBytesErrorsAndDropsOfBothDirections) {
    // Longer than the known fields: kernels append new ones.
    const auto link = parse(
        RTM_NEWSTATS,
        about_link(7) + attribute(IFLA_STATS_LINK_64, numbers({1, 2, 3, 4, 5, 6, 7, 8, 9, 10})));
    ASSERT_TRUE(link.has_value());
    EXPECT_EQ(link->ifx, 7u);
    const PortCounters expected{.received = {.packets = 1, .bytes = 3, .drops = 7, .errors = 5},
                                .sent = {.packets = 2, .bytes = 4, .drops = 8, .errors = 6}};
    EXPECT_EQ(link->counters, expected);
}

TEST(ParseCounters, OtherAndMalformedMessagesAreNone) {
    const std::string statistics = attribute(IFLA_STATS_LINK_64, numbers({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_TRUE(parse(RTM_NEWSTATS, about_link(7) + statistics).has_value());
    EXPECT_FALSE(parse(RTM_NEWLINK, about_link(7) + statistics).has_value());
    EXPECT_FALSE(parse(RTM_NEWSTATS, about_link(0) + statistics).has_value());
    EXPECT_FALSE(parse(RTM_NEWSTATS, about_link(7)).has_value());
    EXPECT_FALSE(parse(RTM_NEWSTATS, "").has_value());
    EXPECT_FALSE(parse(RTM_NEWSTATS, about_link(7) + attribute(IFLA_STATS_LINK_64,
                                                               numbers({1, 2, 3, 4, 5, 6, 7})))
                     .has_value())
        << "too short";
    EXPECT_FALSE(parse(RTM_NEWSTATS, about_link(7) + statistics.substr(0, statistics.size() - 4))
                     .has_value())
        << "cut off";
}

// Runs the lines as commands of ip(8).
void ip(const std::string& lines) {
    FILE* const pipe = popen("ip -batch -", "w");
    ASSERT_NE(pipe, nullptr);
    std::fputs(lines.c_str(), pipe);
    ASSERT_EQ(pclose(pipe), 0) << lines;
}

struct ReadCounters : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace of our own: " << std::strerror(errno);
        }
        // Without IPv6 the kernel itself sends nothing on the links.
        std::FILE* const file = std::fopen("/proc/sys/net/ipv6/conf/default/disable_ipv6", "w");
        if (file != nullptr) {
            std::fputs("1", file);
            std::fclose(file);
        }
        ip("link add br0 type bridge\nlink add swp1 type veth peer name p1\n"
           "link set swp1 master br0\n");
    }
};

const PortCounters kQuiet{.received = {.packets = 0, .bytes = 0, .drops = 0, .errors = 0},
                          .sent = {.packets = 0, .bytes = 0, .drops = 0, .errors = 0}};

TEST_F(ReadCounters, OneLinkOrAllOfThem) {
    const uint32_t swp1 = if_nametoindex("swp1");
    const auto one = read_counters(swp1);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one.at(swp1), kQuiet);
    const auto all = read_counters(0);
    EXPECT_EQ(all.size(), 4u) << "lo, br0, swp1 and p1";
    EXPECT_EQ(all.at(swp1), kQuiet);
    EXPECT_TRUE(read_counters(999).empty());
}

TEST_F(ReadCounters, WithoutASocketThereAreNoCounters) {
    test::g_rtnl.no_socket = true;
    EXPECT_TRUE(read_counters(0).empty());
    test::g_rtnl.no_socket = false;
    test::g_rtnl.refused_requests = 1;
    EXPECT_TRUE(read_counters(0).empty());
    EXPECT_FALSE(read_counters(0).empty());
}

TEST_F(ReadCounters, SwitchHasThoseOfItsPorts) {
    test::TestPlatform platform;
    SteadyClock clock;
    EventLoop loop{clock};
    test::RecordingSink sink;
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(test::run_until(loop, [&] { return sink.find("swp1") != nullptr; }));
    const uint32_t swp1 = if_nametoindex("swp1");
    const std::map<uint32_t, PortCounters> ports{{swp1, kQuiet}};
    EXPECT_EQ(driver.counters(0), ports);
    EXPECT_EQ(driver.counters(swp1), ports);
    EXPECT_TRUE(driver.counters(if_nametoindex("p1")).empty()) << "no port";
}

}  // namespace
}  // namespace qv
