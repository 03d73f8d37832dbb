// What the mirror of a bridge's forwarding database makes of a kernel that is hard to read.
#include "platform/driver/linux/fdb_mirror.h"

#include <atomic>
#include <thread>

#include "tests/unit/services/nft_rig.h"
#include "tests/unit/services/rtnl_script.h"

namespace qv {
namespace {

using FdbMirrorTest = NftForwardingTest;

// Lines for bridge(8), each about one of `count` addresses from `first` on.
std::string entries(const std::string& what, MacAddress first, unsigned count) {
    std::string lines;
    for (MacAddress address = first; address < first + count; ++address) {
        char text[sizeof "02:00:00:00:00:00"];
        std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x",
                      static_cast<unsigned>(address >> 24 & 0xFF),
                      static_cast<unsigned>(address >> 16 & 0xFF),
                      static_cast<unsigned>(address >> 8 & 0xFF),
                      static_cast<unsigned>(address & 0xFF));
        lines +=
            "fdb " + what + " " + text + " dev swp1 master" + (what == "add" ? " static\n" : "\n");
    }
    return lines;
}

// The kernel lists entries in lots, and finds its place again by counting: each one that has gone
// meanwhile makes it skip another. What it must not skip is older and so comes later in the list.
TEST_F(FdbMirrorTest, EntriesThatGoInMidListHideNoOther) {
    constexpr MacAddress kStaying = 0x020000000000;
    constexpr MacAddress kGoing = 0x020001000000;
    constexpr unsigned kMany = 6000;
    bridge(entries("add", kStaying, kMany));
    std::atomic<bool> over = false;
    std::thread elsewhere([&] {
        while (!over) {
            bridge(entries("add", kGoing, 300));
            bridge(entries("del", kGoing, 300));
        }
    });
    for (int reading = 0; reading < 20; ++reading) {
        bool handed_on = false;
        FdbMirror mirror(loop, [&](const auto&, const auto&) { handed_on = true; });
        mirror.follow(if_nametoindex("br0"));
        EXPECT_TRUE(wait_for([&] { return handed_on; }));
        const auto& known = mirror.known();
        const auto found =
            std::distance(known.lower_bound(kStaying), known.lower_bound(kStaying + kMany));
        EXPECT_EQ(found, kMany) << "in reading " << reading;
        EXPECT_EQ(mirror.resyncs(), 0u);
    }
    over = true;
    elsewhere.join();
}

TEST_F(FdbMirrorTest, NoAddressOfTheBridgeBeforeIsKnownWhileThereIsNoSocket) {
    bridge(entries("add", kHost, 1));
    FdbMirror mirror(loop, [](const auto&, const auto&) {});
    mirror.follow(if_nametoindex("br0"));
    ASSERT_TRUE(wait_for([&] { return mirror.known().contains(kHost); }));

    const uint32_t another = if_nametoindex("lo");
    test::g_rtnl.no_socket = true;
    EXPECT_THROW(mirror.follow(another), std::runtime_error);
    test::g_rtnl.no_socket = false;
    EXPECT_EQ(mirror.bridge(), 0u);
    EXPECT_TRUE(wait_for([&] { return mirror.known().empty(); }));

    mirror.follow(if_nametoindex("br0"));
    EXPECT_TRUE(wait_for([&] { return mirror.known().contains(kHost); }));
}

TEST_F(FdbMirrorTest, PlaneWithoutASocketForItSaysSoOnceAndTriesOn) {
    bridge(entries("add", kHost, 1));
    test::g_rtnl.no_socket = true;
    plane->install(3, 1, kPortRule);
    settle();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    EXPECT_EQ(
        platform.log.lines(),
        Lines{"FORWARDING-3-MIRROR: The bridge's addresses are not known: rtnetlink: connect: "
              "Out of memory"});
    test::g_rtnl.no_socket = false;
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines().size(), 1u);
}

}  // namespace
}  // namespace qv
