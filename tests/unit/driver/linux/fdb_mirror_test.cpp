// The mirror of a bridge's forwarding database, with a kernel that loses and skips messages.
#include "platform/driver/linux/fdb_mirror.h"

#include <atomic>
#include <thread>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "tests/support/watch_refusal.h"
#include "tests/unit/driver/linux/netlink_message.h"
#include "tests/unit/driver/linux/nft_rig.h"
#include "tests/unit/driver/linux/rtnl_script.h"

namespace qv {
namespace {

using FdbMirrorTest = NftForwardingTest;

// Lines for bridge(8), one for each of `count` addresses from `first` on.
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

// The kernel lists entries in batches and finds its place again by counting, so it skips one entry
// for each that is removed in between. The entry that must not be skipped is older and so listed
// later.
TEST_F(FdbMirrorTest, EntriesDeletedDuringTheListHideNoOthers) {
    constexpr MacAddress kStaying = 0x020000000000;
    constexpr MacAddress kGoing = 0x020001000000;
    constexpr unsigned kMany = 6000;
    constexpr int kRoomForSeconds_bytes = 256 << 20;  // else a slow test would lose notifications
    bridge(entries("add", kStaying, kMany));
    std::atomic<bool> over = false;
    std::thread elsewhere([&] {
        while (!over) {
            bridge(entries("add", kGoing, 300));
            bridge(entries("del", kGoing, 300));
        }
    });
    for (int reading = 0; reading < 20; ++reading) {
        FdbMirror mirror(loop, [](const auto&, const auto&) {},
                         {.receive_buffer = kRoomForSeconds_bytes});
        mirror.follow(if_nametoindex("br0"));
        const auto found = [&] {
            const auto& known = mirror.known();
            return std::distance(known.lower_bound(kStaying), known.lower_bound(kStaying + kMany));
        };
        EXPECT_TRUE(wait_for([&] { return found() == kMany; })) << "in reading " << reading;
        EXPECT_EQ(mirror.resyncs(), 0u);
    }
    over = true;
    elsewhere.join();
}

// ---- No socket ----

TEST_F(FdbMirrorTest, KnownAddressesStayWhileThereIsNoSocketForAnotherBridge) {
    bridge(entries("add", kHost, 1));
    std::vector<MacAddress> lost;
    FdbMirror mirror(loop, [&](const auto&, const auto& gone) { lost = gone; }, {});
    mirror.follow(bridge_ifx);
    ASSERT_TRUE(wait_for([&] { return mirror.known().contains(kHost); }));

    const uint32_t another = if_nametoindex("lo");
    test::g_rtnl.no_socket = true;
    EXPECT_THROW(mirror.follow(another), std::runtime_error);
    EXPECT_EQ(mirror.bridge(), bridge_ifx);
    bridge(entries("add", kHost + 1, 1));
    EXPECT_TRUE(wait_for([&] { return mirror.known().contains(kHost + 1); })) << "still followed";
    EXPECT_TRUE(mirror.known().contains(kHost));
    EXPECT_TRUE(lost.empty());

    test::g_rtnl.no_socket = false;
    mirror.follow(another);
    EXPECT_EQ(mirror.bridge(), another);
    EXPECT_TRUE(wait_for([&] { return mirror.known().empty(); }));
    EXPECT_TRUE(std::count(lost.begin(), lost.end(), kHost) == 1);
}

TEST_F(FdbMirrorTest, RulesWaitForTheMirror) {
    bridge(entries("add", kHost, 1));
    test::g_rtnl.no_socket = true;
    plane->install(3, 1, kPortRule);
    settle();
    EXPECT_EQ(sink.take(), Lines{}) << "else every frame would count as flooded";
    EXPECT_EQ(output_of("nft list chains"), "table netdev lda {\n}\n");
    EXPECT_EQ(
        platform.log.lines(),
        Lines{"FORWARDING-3-MIRROR: The bridge's addresses are not known: rtnetlink: connect: "
              "Out of memory"});
    test::g_rtnl.no_socket = false;
    settle();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines().size(), 1u);
}

// ---- A scripted list ----

constexpr uint32_t kBridge = 7;
constexpr size_t kLimit = 2000;

struct FdbListTest : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace of our own: " << std::strerror(errno);
        }
        test::g_rtnl = {.silent = true, .trusted = true};
        mirror.follow(kBridge);
    }

    void send(uint16_t type, MacAddress address, uint16_t flags, uint16_t vlan,
              uint16_t state = NUD_REACHABLE) {
        ndmsg entry{};
        entry.ndm_family = AF_BRIDGE;
        entry.ndm_state = state;
        std::string bytes(6, '\0');
        for (size_t n = 0; n < bytes.size(); ++n) {
            bytes[n] = static_cast<char>(address >> (8 * (5 - n)));
        }
        const auto number = [](auto value) {
            return std::string(reinterpret_cast<const char*>(&value), sizeof value);
        };
        test::send_rtnl(type,
                        number(entry) + attribute(NDA_LLADDR, bytes) +
                            attribute(NDA_MASTER, number(kBridge)) +
                            attribute(NDA_VLAN, number(vlan)),
                        flags);
    }
    void list(MacAddress address, uint16_t vlan = 1) {
        send(RTM_NEWNEIGH, address, NLM_F_MULTI, vlan);
    }
    void announce_new(MacAddress address, uint16_t vlan = 1) {
        send(RTM_NEWNEIGH, address, 0, vlan);
    }
    void announce_deleted(MacAddress address, uint16_t vlan = 1) {
        send(RTM_DELNEIGH, address, 0, vlan);
    }

    // The addresses that the mirror has reported a second later.
    std::set<MacAddress> known() {
        test::run_for(loop, platform.manual_clock, std::chrono::seconds(1));
        return mirror.known();
    }

    using Set = std::set<MacAddress>;
    test::TestPlatform platform;
    EventLoop loop{platform.manual_clock};
    FdbMirror mirror{loop,
                     [this](const auto& added, const auto& gone) {
                         largest_report = std::max(largest_report, added.size() + gone.size());
                     },
                     {.entries = kLimit}};
    size_t largest_report = 0;
};

// The kernel announces a deletion at once, and sends the part of the list that it has begun later.
TEST_F(FdbListTest, EntryDeletedDuringTheListStaysDeleted) {
    list(kHost);
    announce_deleted(kHost + 1);
    list(kHost + 1);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{}) << "the list is read again";
    EXPECT_EQ(test::g_rtnl.requests, 2u);
    list(kHost);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
    EXPECT_EQ(test::g_rtnl.requests, 2u);
}

TEST_F(FdbListTest, EntryDeletedAndAddedInMidListIsKnown) {
    announce_deleted(kHost);
    announce_new(kHost);
    list(kHost);
    test::send_rtnl_done();
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
}

TEST_F(FdbListTest, EntryDeletedInOneListMayBeInTheNext) {
    announce_deleted(kHost);
    test::send_rtnl_done();
    known();
    list(kHost);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
}

TEST_F(FdbListTest, DeletionOfOneVlanLeavesTheOther) {
    announce_deleted(kHost, 1);
    list(kHost, 2);
    test::send_rtnl_done();
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost}) << "both lists add up";
    announce_deleted(kHost, 2);
    EXPECT_EQ(known(), Set{});
}

TEST_F(FdbListTest, ListsAreReadTenTimesWhileEntriesGo) {
    for (unsigned reading = 1; reading < FdbMirror::kMaxReadings; ++reading) {
        list(kHost + reading);
        announce_deleted(kHost + 100);
        test::send_rtnl_done();
        EXPECT_EQ(known(), Set{}) << "in reading " << reading;
    }
    announce_deleted(kHost + 100);
    test::send_rtnl_done();
    EXPECT_EQ(known().size(), FdbMirror::kMaxReadings - 1);
    EXPECT_EQ(test::g_rtnl.requests, FdbMirror::kMaxReadings);
    announce_deleted(kHost + 1);
    EXPECT_EQ(known().size(), FdbMirror::kMaxReadings - 2) << "no list is read for a change";
    EXPECT_EQ(test::g_rtnl.requests, FdbMirror::kMaxReadings);
}

TEST_F(FdbListTest, HalfOfAListIsNotHandedOn) {
    list(kHost);
    list(kHost + 1);
    EXPECT_EQ(known(), Set{}) << "the first list has no end yet";
    test::send_rtnl_done();
    EXPECT_EQ(known(), (Set{kHost, kHost + 1}));

    // A change that is not reported yet when everything is read again.
    announce_deleted(kHost);
    test::send_rtnl(NLMSG_ERROR, "");
    EXPECT_EQ(known(), (Set{kHost, kHost + 1}));
    list(kHost);
    EXPECT_EQ(known(), (Set{kHost, kHost + 1}));
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
}

TEST_F(FdbListTest, NothingIsKnownOfNoBridge) {
    list(kHost);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
    mirror.follow(0);
    EXPECT_EQ(known(), Set{});
    EXPECT_EQ(mirror.bridge(), 0u);
    EXPECT_EQ(mirror.resyncs(), 0u);
}

TEST_F(FdbListTest, KnownAddressesStayUntilTheListOfAnotherBridgeIsComplete) {
    list(kHost);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost});
    test::g_no_watch = true;
    mirror.follow(kBridge);
    EXPECT_EQ(known(), Set{kHost});
    test::g_no_watch = false;
    EXPECT_EQ(known(), Set{kHost});
    list(kHost + 1);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kHost + 1});
}

// ---- More entries than there are places ----

struct FullFdbTest : FdbListTest {
    void SetUp() override {
        FdbListTest::SetUp();
        for (MacAddress n = 0; n < kLimit; ++n) {
            list(kHost + n);
        }
        test::send_rtnl_done();
        known();
    }
    // Messages since the last call.
    std::vector<std::string> log() {
        std::vector<std::string> lines = platform.log.lines();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(logged_));
        logged_ += lines.size();
        return lines;
    }
    void delete_entries(MacAddress first, MacAddress count) {
        for (MacAddress address = first; address < first + count; ++address) {
            announce_deleted(address);
        }
    }

 private:
    size_t logged_ = 0;
};

constexpr MacAddress kStranger = kHost + 0x100000;
constexpr const char* kFull =
    "FORWARDING-4-ADDRESSES: The bridge has learned more than 2000 addresses: frames to the others "
    "count as flooded. Limit what it learns with fdb_max_learned.";

TEST_F(FullFdbTest, LearnedEntriesBeyondTheLimitAreLeftOutAndSaidOnce) {
    EXPECT_EQ(log(), std::vector<std::string>{});
    announce_new(kStranger);
    announce_new(kStranger + 1);
    announce_new(kHost);  // moves to another port
    EXPECT_EQ(known().size(), kLimit);
    EXPECT_FALSE(mirror.known().contains(kStranger));
    EXPECT_TRUE(mirror.known().contains(kHost));
    EXPECT_EQ(log(), std::vector<std::string>{kFull});
}

TEST_F(FullFdbTest, EntriesSetByHandAndThoseOfTheBridgeAreNeverLeftOut) {
    send(RTM_NEWNEIGH, kStranger, 0, 1, NUD_NOARP);
    send(RTM_NEWNEIGH, kStranger + 1, 0, 1, NUD_PERMANENT);
    EXPECT_EQ(known().size(), kLimit + 2);
    EXPECT_TRUE(mirror.known().contains(kStranger) && mirror.known().contains(kStranger + 1));
    EXPECT_EQ(log(), std::vector<std::string>{});
}

TEST_F(FullFdbTest, PlaceThatBecomesFreeIsTaken) {
    announce_new(kStranger);
    announce_deleted(kHost);
    announce_new(kStranger + 1);
    EXPECT_TRUE(known().contains(kStranger + 1));
    EXPECT_FALSE(mirror.known().contains(kStranger));
    EXPECT_EQ(test::g_rtnl.requests, 1u);
}

TEST_F(FullFdbTest, EverythingIsReadAgainWhenAQuarterIsFree) {
    announce_new(kStranger);
    delete_entries(kHost, kLimit / 4 - 1);
    EXPECT_EQ(known().size(), kLimit * 3 / 4 + 1);
    EXPECT_EQ(test::g_rtnl.requests, 1u);
    announce_deleted(kHost + kLimit - 1);
    EXPECT_EQ(known().size(), kLimit * 3 / 4) << "as they were until the list is complete";
    EXPECT_EQ(test::g_rtnl.requests, 2u);
    EXPECT_EQ(log(), std::vector<std::string>{kFull});
    list(kStranger);
    test::send_rtnl_done();
    EXPECT_EQ(known(), Set{kStranger});
    EXPECT_EQ(log(), std::vector<std::string>{
                         "FORWARDING-6-ADDRESSES: All addresses of the bridge are known again."});
}

TEST_F(FullFdbTest, ListThatIsTooLongAgainIsNotSaidAgain) {
    announce_new(kStranger);
    delete_entries(kHost, kLimit / 4);
    known();
    for (MacAddress n = 0; n <= kLimit; ++n) {
        list(kStranger + n);
    }
    test::send_rtnl_done();
    EXPECT_EQ(known().size(), kLimit);
    EXPECT_EQ(log(), std::vector<std::string>{kFull});
}

TEST_F(FullFdbTest, ReadingAgainWaitsForASocket) {
    announce_new(kStranger);
    test::g_rtnl.no_socket = true;
    delete_entries(kHost, kLimit / 4);
    known();
    EXPECT_EQ(test::g_rtnl.requests, 1u);
    test::g_rtnl.no_socket = false;
    known();
    EXPECT_EQ(test::g_rtnl.requests, 2u);
}

// ---- Reports ----

TEST_F(FullFdbTest, ReportsAreSmallAlsoAfterAList) {
    EXPECT_EQ(mirror.known().size(), kLimit);
    EXPECT_EQ(largest_report, FdbMirror::kMaxPerReport);
    largest_report = 0;
    mirror.repeat();
    EXPECT_TRUE(mirror.known().empty() && mirror.repeating());
    announce_deleted(kHost + 1);
    announce_new(kHost + kLimit);
    EXPECT_EQ(known().size(), kLimit);
    EXPECT_FALSE(mirror.repeating());
    EXPECT_FALSE(mirror.known().contains(kHost + 1));
    EXPECT_EQ(largest_report, FdbMirror::kMaxPerReport);
    mirror.follow(0);
    EXPECT_EQ(known(), Set{});
}

}  // namespace
}  // namespace qv
