// A forwarding plane of a Linux bridge that others interfere with, and a kernel that refuses.
#include <libmnl/libmnl.h>
#include <nftables/libnftables.h>

#include "tests/unit/services/nft_rig.h"

namespace {

// Transactions with this text in them are refused, so many times.
std::string g_refused;
int g_refusals = 0;
// Called once, right before the next transaction.
std::function<void()> g_meanwhile;
// Answers of the kernel that cannot be had.
int g_lost_answers = 0;
// Lists are marked as interrupted by changes.
bool g_interrupted = false;

}  // namespace

// The linker puts these in place of the libraries' functions.
extern "C" {
int __real_nft_run_cmd_from_buffer(nft_ctx* context, const char* text);
int __wrap_nft_run_cmd_from_buffer(nft_ctx* context, const char* text) {
    if (g_meanwhile) {
        std::exchange(g_meanwhile, nullptr)();
    }
    if (g_refusals > 0 && std::strstr(text, g_refused.c_str()) != nullptr) {
        --g_refusals;
        errno = ENOMEM;
        return -1;
    }
    return __real_nft_run_cmd_from_buffer(context, text);
}

ssize_t __real_mnl_socket_recvfrom(const mnl_socket* socket, void* buffer, size_t size);
ssize_t __wrap_mnl_socket_recvfrom(const mnl_socket* socket, void* buffer, size_t size) {
    if (g_lost_answers > 0) {
        --g_lost_answers;
        errno = ENOBUFS;
        return -1;
    }
    const ssize_t length = __real_mnl_socket_recvfrom(socket, buffer, size);
    int left = static_cast<int>(length);
    auto* header = static_cast<nlmsghdr*>(buffer);
    for (; g_interrupted && mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
        header->nlmsg_flags |= NLM_F_DUMP_INTR;
    }
    return length;
}
}

namespace qv {
namespace {

const Lines kPutBack = {
    "FORWARDING-4-RESTORED: The rules of storm-loop-detect were changed from outside and are put "
    "back."};

struct NftTrouble : NftForwardingTest {
    void refuse(const std::string& text, int times) {
        g_refused = text;
        g_refusals = times;
    }

    bool logged() {
        return wait_for([&] { return !platform.log.lines().empty(); });
    }

    // Frames that come in on the first port are counted by its rule.
    void expect_counting(ForwardingId id) {
        const uint64_t before = packets(id);
        send_frames("p-swp1", kUnknown, 3);
        EXPECT_TRUE(wait_for([&] { return packets(id) >= before + 3; }));
    }
};

// ---- Somebody else changes the table ----

TEST_F(NftTrouble, TableThatSomebodyTookAwayIsPutBack) {
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 5; }));
    nft("flush ruleset\n");
    ASSERT_TRUE(wait_for([&] { return !platform.log.lines().empty(); }));
    EXPECT_EQ(platform.log.lines(),
              (Lines{"FORWARDING-4-RESTORED: The rules of storm-loop-detect were changed from "
                     "outside and are put back."}));
    EXPECT_TRUE(is_known("02:00:00:00:00:01"));
    carry_out();
    send_frames("p-swp1", kUnknown, 2);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 7; }));
    settle();
    EXPECT_EQ(packets(3), 7u);
    EXPECT_EQ(platform.log.lines().size(), 1u);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftTrouble, RulesThatCannotBePutBackAreReportedAsLost) {
    plane->install(3, 1, kPortRule);
    plane->install(4, std::nullopt, kSwitchRule);
    carry_out();
    nft("flush ruleset\n");
    ASSERT_EQ(seteuid(65534), 0);
    const bool lost = wait_for([&] { return sink.lines.size() >= 4; });
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_TRUE(lost);
    EXPECT_EQ(sink.take(), (Lines{"done 3", "done 4", "failed 3: Operation not permitted",
                                  "failed 4: Operation not permitted"}));
    EXPECT_FALSE(loop.next_timer().has_value());
}

TEST_F(NftTrouble, RulesThatSomebodyEmptiedArePutBack) {
    plane->install(3, 1, kPortRule);
    settle();
    const std::string before = output_of("nft -s list chain netdev lda port1.3");
    nft("flush table netdev lda\n");
    ASSERT_TRUE(logged());
    carry_out();
    EXPECT_EQ(output_of("nft -s list chain netdev lda port1.3"), before);
    expect_counting(3);
    EXPECT_EQ(platform.log.lines(), kPutBack);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftTrouble, KnownAddressesThatSomebodyRemovedArePutBack) {
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
    nft("flush set netdev lda fdb\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

TEST_F(NftTrouble, ChangesOfOtherTablesAndOurOwnAreNoChangesFromOutside) {
    plane->install(3, 1, kPortRule);
    settle();
    nft("add table netdev theirs\nadd counter netdev theirs port1.3\nadd table inet lda\n"
        "add chain inet lda port1.3\nflush table inet lda\n");
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(4, 2, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
    settle();
    nft("delete table inet lda\ndelete table netdev theirs\n");
    settle();
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftTrouble, RuleAskedForWhenTheTableHasJustGoneIsInstalledAllTheSame) {
    plane->install(3, 1, kPortRule);
    settle();
    sink.take();
    g_meanwhile = [] {
        nft("flush ruleset\n");
    };
    plane->install(4, 2, kPortRule);
    ASSERT_TRUE(wait_for([&] { return !sink.lines.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"done 4"});
    EXPECT_NE(output_of("nft list chain netdev lda port1.3"), "");
    EXPECT_NE(output_of("nft list chain netdev lda port2.4"), "");
    settle();
    EXPECT_EQ(platform.log.lines(), kPutBack) << "once";
    expect_counting(3);
}

TEST_F(NftTrouble, RulesThatWereToGoWentWithTheTable) {
    constexpr ForwardingId kMany = 2 * NftForwarding::kRulesAtOnce;
    for (ForwardingId id = 1; id <= kMany + 1; ++id) {
        plane->install(id, 1, kPortRule);
    }
    ASSERT_TRUE(wait_for([&] { return sink.lines.size() > kMany; }));
    g_meanwhile = [] {
        nft("flush ruleset\n");
    };
    for (ForwardingId id = 1; id <= kMany; ++id) {
        plane->remove(id);
    }
    settle();
    EXPECT_EQ(output_of("nft list counters"),
              "table netdev lda {\n\tcounter port1.129 {\n\t\tpackets 0 bytes 0\n\t}\n}\n");
    EXPECT_EQ(platform.log.lines(), kPutBack) << "once";
}

TEST_F(NftTrouble, CounterThatSomebodyResetGoesOn) {
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 40);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 40; }));
    ASSERT_NE(output_of("nft reset counter netdev lda port1.3"), "");
    send_frames("p-swp1", kUnknown, 2);
    EXPECT_TRUE(wait_for([&] { return packets(3) >= 42; }));
    settle();
    EXPECT_EQ(packets(3), 42u);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

// ---- The kernel refuses ----

TEST_F(NftTrouble, OnlyTheRuleThatCannotBeInstalledFails) {
    plane->install(3, 1, kPortRule);
    plane->install(4, 1, kPortRule);
    carry_out();
    sink.take();
    refuse("chain netdev lda port2.6 ", 2);
    plane->remove(4);
    plane->install(5, 2, kPortRule);
    plane->install(6, 2, kPortRule);
    plane->install(7, 2, kPortRule);
    carry_out();
    EXPECT_EQ(sink.take(), (Lines{"done 5", "failed 6: Cannot allocate memory", "done 7"}));
    EXPECT_EQ(platform.log.lines().size(), 1u);
    settle();
    EXPECT_EQ(output_of("nft list counters"),
              "table netdev lda {\n"
              "\tcounter port1.3 {\n\t\tpackets 0 bytes 0\n\t}\n"
              "\tcounter port2.5 {\n\t\tpackets 0 bytes 0\n\t}\n"
              "\tcounter port2.7 {\n\t\tpackets 0 bytes 0\n\t}\n"
              "}\n");
    EXPECT_EQ(output_of("nft list chain netdev lda port1.4"), "");
    EXPECT_NE(output_of("nft list chain netdev lda port2.7"), "");
    EXPECT_EQ(platform.log.lines().size(), 1u) << "nothing was taken for damage";
}

TEST_F(NftTrouble, RuleThatCannotBePutBackIsLostAndNoOther) {
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    plane->install(5, std::nullopt, kSwitchRule);
    settle();
    sink.take();
    refuse("device \"swp2\"", 2);
    nft("flush ruleset\n");
    ASSERT_TRUE(wait_for([&] { return !sink.lines.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"failed 4: Cannot allocate memory"});
    expect_counting(3);
    settle();
    EXPECT_EQ(output_of("nft list chain netdev lda port2.4"), "");
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(NftTrouble, RuleThatCannotFollowItsPortIsPutBack) {
    plane->install(3, 1, kPortRule);
    settle();
    refuse("device \"uplink\"", 2);
    ip("link set swp1 down\nlink set swp1 name uplink\nlink set uplink up\n");
    find_port(1, "uplink");
    plane->port_changed(1);
    ASSERT_TRUE(logged());
    carry_out();
    expect_counting(3);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftTrouble, TableThatCannotBeRemovedIsSaid) {
    plane->install(3, 1, kPortRule);
    carry_out();
    refuse("delete table netdev lda", 1);
    plane->remove(3);
    EXPECT_EQ(platform.log.lines(),
              Lines{"FORWARDING-3-LEFT: The rules of storm-loop-detect cannot be removed: Cannot "
                    "allocate memory."});
    // The next rule replaces what is left.
    plane->install(4, 2, kPortRule);
    carry_out();
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
    EXPECT_NE(output_of("nft list chain netdev lda port2.4"), "");
}

TEST_F(NftTrouble, ReadingThatBreaksOffIsMadeUpForByTheNext) {
    plane->install(3, 1, kPortRule);
    settle();
    g_lost_answers = 1;
    ASSERT_TRUE(wait_for([] { return g_lost_answers == 0; }));
    settle();
    EXPECT_EQ(platform.log.lines(), Lines{});
    expect_counting(3);
    EXPECT_EQ(packets(3), 3u);
}

TEST_F(NftTrouble, CountersAreReportedWhileTheTableNeverComesToRest) {
    plane->install(3, 1, kPortRule);
    settle();
    g_interrupted = true;
    expect_counting(3);
    g_interrupted = false;
    settle();
    EXPECT_EQ(packets(3), 3u);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

}  // namespace
}  // namespace qv
