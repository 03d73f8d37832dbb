// A forwarding plane of a Linux bridge with interference by others, and with refusals by the
// kernel.
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include "tests/unit/driver/linux/nft_rig.h"
#include "tests/unit/driver/linux/nft_script.h"

namespace qv {
namespace {

const Lines kPutBack = {
    "FORWARDING-4-RESTORED: The rules of storm-loop-detect were changed from outside and are "
    "restored."};

struct NftTrouble : NftForwardingTest {
    void refuse(const std::string& text, int times) {
        test::g_nft.refused = text;
        test::g_nft.refusals = times;
    }

    bool logged() {
        return wait_for([&] { return !platform.log.lines().empty(); });
    }

    // Checks that the rule of the first port counts its incoming frames.
    void expect_counting(ForwardingId id) {
        const uint64_t before = packets(id);
        EXPECT_TRUE(wait_for([&] {
            // Repeatedly: a rule may be restored a moment later.
            send_frames("p-swp1", kUnknown, 3);
            return packets(id) >= before + 3;
        }));
    }
};

// ---- Somebody else changes the table ----

TEST_F(NftTrouble, TableRemovedByOthersIsRestored) {
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 5; }));
    nft("flush ruleset\n");
    ASSERT_TRUE(wait_for([&] { return !platform.log.lines().empty(); }));
    EXPECT_EQ(platform.log.lines(),
              (Lines{"FORWARDING-4-RESTORED: The rules of storm-loop-detect were changed from "
                     "outside and are restored."}));
    ASSERT_TRUE(wait_for([&] {
        turn_for(std::chrono::milliseconds(5));
        return !output_of("nft list chain netdev lda port1.3").empty();
    }));
    EXPECT_TRUE(is_known("02:00:00:00:00:01")) << "no rule before the known addresses";
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
    run_until_committed();
    nft("flush ruleset\n");
    ASSERT_EQ(seteuid(65534), 0);
    const bool lost = wait_for([&] { return sink.lines.size() >= 4; });
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_TRUE(lost);
    EXPECT_EQ(sink.take(), (Lines{"done 3", "done 4", "failed 3: Operation not permitted",
                                  "failed 4: Operation not permitted"}));
    EXPECT_FALSE(loop.next_timer().has_value());
}

TEST_F(NftTrouble, RulesFlushedByOthersAreRestored) {
    plane->install(3, 1, kPortRule);
    settle();
    const std::string before = output_of("nft -s list chain netdev lda port1.3");
    nft("flush table netdev lda\n");
    ASSERT_TRUE(logged());
    run_until_committed();
    EXPECT_EQ(output_of("nft -s list chain netdev lda port1.3"), before);
    expect_counting(3);
    EXPECT_EQ(platform.log.lines(), kPutBack);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftTrouble, KnownAddressesRemovedByOthersAreRestored) {
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
    nft("flush set netdev lda fdb\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

TEST_F(NftTrouble, ChangesOfOtherTablesAndOurOwnDoNotRestoreTheTable) {
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

// ---- Others keep the kernel busy ----

// In another table; more than the kernel keeps messages for.
std::string sixty_thousand_elements() {
    std::string elements;
    for (int n = 0; n < 60000; ++n) {
        elements += (n == 0 ? "" : ",") + std::to_string(n);
    }
    return "add table inet theirs\nadd set inet theirs ports { type mark; }\n"
           "add element inet theirs ports {" +
           elements + "}\n";
}

struct NftOverrun : NftTrouble {
    void SetUp() override {
        NftTrouble::SetUp();
        if (IsSkipped()) {
            return;
        }
        bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
        plane->install(3, 1, kPortRule);
        ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
        settle();
        chain = this_chain();
    }

    static std::string this_chain() {
        return output_of("nft -a list chain netdev lda port1.3 | grep handle");
    }

    std::string chain;
};

TEST_F(NftOverrun, ChangesOfAnotherTableTouchNothing) {
    nft(sixty_thousand_elements());
    settle();
    nft("delete table inet theirs\n");
    settle();
    plane->install(4, 2, kPortRule);
    settle();
    EXPECT_EQ(this_chain(), chain);
    EXPECT_TRUE(is_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftOverrun, AddressesLearnedMeanwhileDoNotRestoreTheTable) {
    bridge("fdb add 02:00:00:00:00:02 dev swp2 master static\n");
    nft(sixty_thousand_elements());
    settle();
    EXPECT_TRUE(is_known("02:00:00:00:00:02"));
    EXPECT_EQ(this_chain(), chain);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftOverrun, RuleReplacedByOthersIsRestored) {
    const std::string rules = output_of("nft -s list chain netdev lda port1.3");
    nft(sixty_thousand_elements());
    nft("flush chain netdev lda port1.3\nadd rule netdev lda port1.3 accept\n");
    ASSERT_TRUE(logged());
    settle();
    EXPECT_EQ(output_of("nft -s list chain netdev lda port1.3"), rules);
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

TEST_F(NftOverrun, AddressRemovedByOthersIsRestored) {
    nft(sixty_thousand_elements());
    nft("delete element netdev lda fdb { 02:00:00:00:00:01 }\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

TEST_F(NftOverrun, RemovedTableIsRestored) {
    nft(sixty_thousand_elements());
    nft("delete table netdev lda\n");
    ASSERT_TRUE(logged());
    settle();
    expect_counting(3);
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

TEST_F(NftOverrun, TableThatCannotBeReadIsLookedAtLater) {
    test::g_nft.interrupted = true;
    nft(sixty_thousand_elements());
    nft("delete element netdev lda fdb { 02:00:00:00:00:01 }\n");
    settle();
    EXPECT_EQ(platform.log.lines(), Lines{});
    test::g_nft.interrupted = false;
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    EXPECT_EQ(platform.log.lines(), kPutBack);
}

// ---- Sets and counters ----

TEST_F(NftTrouble, ManyAddressesAtOnceAllArrive) {
    NftTable table("lda");
    NftTable::Change change = table.change();
    change.replace_table();
    ASSERT_EQ(table.run(change), 0);
    std::vector<MacAddress> addresses;
    for (MacAddress n = 0; n < 5000; ++n) {
        addresses.push_back(kHost + n);
    }
    EXPECT_EQ(table.change_known(addresses, {}), 0);
    const std::string set = output_of("nft list set netdev lda fdb");
    EXPECT_EQ(std::count(set.begin(), set.end(), ':'), 5 * 5000);
    EXPECT_NE(set.find("02:00:00:00:13:88"), std::string::npos) << "the last";
    EXPECT_EQ(table.change_known({}, addresses), 0);
    EXPECT_EQ(output_of("nft list set netdev lda fdb").find("elements"), std::string::npos);
    EXPECT_EQ(table.change_known({}, addresses), ENOENT);
}

TEST_F(NftTrouble, ChangeThatIsNotAcknowledgedHasFailed) {
    NftTable table("lda");
    NftTable::Change change = table.change();
    change.replace_table();
    ASSERT_EQ(table.run(change), 0);
    test::g_nft.unheard = NFNL_MSG_BATCH_BEGIN;
    EXPECT_EQ(table.change_known(std::vector<MacAddress>{kHost}, {}), EIO);
    test::g_nft.unheard = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETGEN;
    EXPECT_EQ(table.open(), EIO);
    test::g_nft.unheard = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETTABLE;
    EXPECT_FALSE(NftTable("none").is_gone());
    test::g_nft.unheard = -1;
    EXPECT_FALSE(is_known("02:00:00:00:00:01"));
    EXPECT_EQ(table.open(), 0);
    EXPECT_FALSE(table.is_gone());
    EXPECT_TRUE(NftTable("none").is_gone());
}

TEST_F(NftTrouble, AddressThatCouldNotBeAddedIsPutBack) {
    plane->install(3, 1, kPortRule);
    settle();
    test::g_nft.unheard = NFNL_MSG_BATCH_BEGIN;
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    ASSERT_TRUE(logged());
    test::g_nft.unheard = -1;
    EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
    expect_counting(3);
}

TEST_F(NftTrouble, RulesAreNotPutBackBeforeAllKnownAddresses) {
    std::string lines;
    for (unsigned n = 0; n < 3000; ++n) {
        char line[80];
        std::snprintf(line, sizeof line, "fdb add 02:00:00:00:%02x:%02x dev swp2 master static\n",
                      n / 256 + 16, n % 256);
        lines += line;
    }
    bridge(lines);
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:1b:b7"));
    settle();
    nft("flush ruleset\n");
    ASSERT_TRUE(logged());
    ASSERT_TRUE(wait_for([] { return !output_of("nft list chain netdev lda port1.3").empty(); }));
    EXPECT_TRUE(is_known("02:00:00:00:10:00")) << "the first";
    EXPECT_TRUE(is_known("02:00:00:00:1b:b7")) << "the last";
}

TEST_F(NftTrouble, RestoredCounterCountsFromZero) {
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 5; }));
    nft("flush ruleset\n");
    ASSERT_TRUE(logged());
    run_until_committed();
    ASSERT_NE(output_of("nft list chain netdev lda port1.3"), "");
    send_frames("p-swp1", kUnknown, 12);  // more than before
    EXPECT_TRUE(wait_for([&] { return packets(3) == 17; }));
}

TEST_F(NftTrouble, RuleRequestedRightAfterTheTableIsLostIsStillInstalled) {
    plane->install(3, 1, kPortRule);
    settle();
    sink.take();
    test::g_nft.meanwhile = [] {
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

TEST_F(NftTrouble, RulesToRemoveAreGoneWithTheTable) {
    constexpr ForwardingId kMany = 2 * NftForwarding::kMaxBatch;
    for (ForwardingId id = 1; id <= kMany + 1; ++id) {
        plane->install(id, 1, kPortRule);
    }
    ASSERT_TRUE(wait_for([&] { return sink.lines.size() > kMany; }));
    test::g_nft.meanwhile = [] {
        nft("flush ruleset\n");
    };
    for (ForwardingId id = 1; id <= kMany; ++id) {
        plane->remove(id);
    }
    settle();
    EXPECT_TRUE(wait_for([&] {
        return output_of("nft list counters") ==
               "table netdev lda {\n\tcounter port1.129 {\n\t\tpackets 0 bytes 0\n\t}\n}\n";
    }));
    EXPECT_EQ(platform.log.lines(), kPutBack) << "once";
}

TEST_F(NftTrouble, CounterResetByOthersContinues) {
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
    run_until_committed();
    sink.take();
    refuse("chain netdev lda port2.6 ", 2);
    plane->remove(4);
    plane->install(5, 2, kPortRule);
    plane->install(6, 2, kPortRule);
    plane->install(7, 2, kPortRule);
    run_until_committed();
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
    run_until_committed();
    expect_counting(3);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

// Some kernels refuse a chain on a device that they do not have.
TEST_F(NftTrouble, DeviceThatTheKernelDoesNotHaveIsTriedAgain) {
    test::g_nft.error = ENOENT;
    refuse("device \"swp1\"", 2 * static_cast<int>(NftForwarding::kDeviceTries) - 2);
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    run_until_committed();
    EXPECT_EQ(sink.take(), Lines{"done 4"});
    EXPECT_TRUE(wait_for([&] { return !sink.lines.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    expect_counting(3);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftTrouble, DeviceThatNeverAppearsIsRefusedInTheEnd) {
    test::g_nft.error = ENOENT;
    refuse("device \"swp1\"", 1000);
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    ASSERT_TRUE(wait_for([&] { return sink.lines.size() == 2; }));
    EXPECT_EQ(sink.take(), (Lines{"done 4", "failed 3: No such file or directory"}));
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
}

TEST_F(NftTrouble, RuleIsInstalledOnceTheModelKnowsTheDevice) {
    test::g_nft.error = ENOENT;
    refuse("device \"swp1\"", 1000);
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    run_until_committed();
    ip("link set swp1 down\nlink set swp1 name uplink\nlink set uplink up\n");
    find_port(1, "uplink");
    plane->port_changed(1);
    run_until_committed();
    EXPECT_EQ(sink.take(), (Lines{"done 4", "done 3"}));
    const std::string before = output_of("nft -a list chain netdev lda port1.3 | grep chain");
    settle();
    EXPECT_EQ(output_of("nft -a list chain netdev lda port1.3 | grep chain"), before) << "once";
}

TEST_F(NftTrouble, RuleThatWaitsForItsDeviceCanBeRemoved) {
    test::g_nft.error = ENOENT;
    refuse("device \"swp1\"", 1000);
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    run_until_committed();
    plane->remove(3);
    settle();
    EXPECT_EQ(sink.take(), Lines{"done 4"});
    EXPECT_EQ(output_of("nft list counters"),
              "table netdev lda {\n\tcounter port2.4 {\n\t\tpackets 0 bytes 0\n\t}\n}\n");
}

TEST_F(NftTrouble, TableThatCannotBeRemovedIsSaid) {
    plane->install(3, 1, kPortRule);
    run_until_committed();
    refuse("delete table netdev lda", 1);
    plane->remove(3);
    EXPECT_EQ(platform.log.lines(),
              Lines{"FORWARDING-3-LEFT: The rules of storm-loop-detect cannot be removed: Cannot "
                    "allocate memory."});
    // The next rule replaces the remains.
    plane->install(4, 2, kPortRule);
    run_until_committed();
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
    EXPECT_NE(output_of("nft list chain netdev lda port2.4"), "");
}

TEST_F(NftTrouble, CountsOfAnInterruptedReadingAreReportedWithTheNext) {
    plane->install(3, 1, kPortRule);
    settle();
    test::g_nft.lost_answers = 1;
    send_frames("p-swp1", kUnknown, 3);
    ASSERT_TRUE(wait_for([] { return test::g_nft.lost_answers == 0; }));
    ASSERT_TRUE(wait_for([&] { return packets(3) != 0; }));
    settle();
    EXPECT_EQ(packets(3), 3u);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftTrouble, CountersAreReportedWhileTheTableKeepsChanging) {
    plane->install(3, 1, kPortRule);
    settle();
    test::g_nft.interrupted = true;
    send_frames("p-swp1", kUnknown, 3);
    EXPECT_TRUE(wait_for([&] { return packets(3) >= 3; }));
    test::g_nft.interrupted = false;
    settle();
    EXPECT_EQ(packets(3), 3u);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

}  // namespace
}  // namespace qv
