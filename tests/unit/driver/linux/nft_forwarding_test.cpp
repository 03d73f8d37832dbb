// The forwarding plane of a Linux bridge on a real kernel.
#include "tests/unit/driver/linux/nft_rig.h"

#include <algorithm>
#include <limits>

namespace qv {
namespace {

// ---- The numbers ----

TEST(KernelMeter, PassesTwiceTheRateAndFourSecondsOfItAtOnce) {
    EXPECT_EQ(kernel_meter(1).rate_pps, 2u);
    EXPECT_EQ(kernel_meter(1).burst, 8u);
    EXPECT_EQ(kernel_meter(8000).rate_pps, 16000u);
    EXPECT_EQ(kernel_meter(8000).burst, 64000u);
    EXPECT_EQ(kernel_meter(1000000).burst, 8000000u);
}

TEST(KernelMeter, StaysWithinTheKernelsLimits) {
    EXPECT_EQ(kernel_meter(536870911).burst, 4294967288u);
    EXPECT_EQ(kernel_meter(536870912).burst, 4294967295u);
    EXPECT_EQ(kernel_meter(500000001).rate_pps, 1000000000u);
    EXPECT_EQ(kernel_meter(std::numeric_limits<uint64_t>::max()).rate_pps, 1000000000u);
    EXPECT_EQ(kernel_meter(std::numeric_limits<uint64_t>::max()).burst, 4294967295u);
}

TEST(NftTable, NamesThatTheFilterCannotExpressAreNotUsed) {
    EXPECT_TRUE(NftTable::can_name("swp1"));
    EXPECT_TRUE(NftTable::can_name("eth0.100@x-y_z"));
    EXPECT_FALSE(NftTable::can_name("swp*"));
    EXPECT_FALSE(NftTable::can_name("s\"p"));
    EXPECT_FALSE(NftTable::can_name("s\\p"));
}

TEST(NextBatchSize, KeepsTheTimeOfATransactionInBounds) {
    using std::chrono::microseconds;
    EXPECT_EQ(next_batch_size(8, microseconds(2001)), 4u);
    EXPECT_EQ(next_batch_size(8, microseconds(2000)), 8u);
    EXPECT_EQ(next_batch_size(8, microseconds(1000)), 8u);
    EXPECT_EQ(next_batch_size(8, microseconds(999)), 16u);
    EXPECT_EQ(next_batch_size(64, microseconds(1)), 64u);
    EXPECT_EQ(next_batch_size(4, microseconds(50000)), 4u);
}

TEST(CountedSince, FollowsAWrapAndACounterThatWasSetBack) {
    EXPECT_EQ(counted_since(5, 12), 7u);
    EXPECT_EQ(counted_since(7, 7), 0u);
    EXPECT_EQ(counted_since(std::numeric_limits<uint64_t>::max() - 1, 3), 5u);
    EXPECT_EQ(counted_since(1000, 40), 40u);
}

TEST_F(NftForwardingTest, RuleIsAChainAtTheIngressOfItsPort) {
    plane->reserve(1, ForwardingDriver::Table::kAcl);
    plane->reserve(2, ForwardingDriver::Table::kEntry);
    plane->install(3, 1, kPortRule);
    EXPECT_EQ(sink.take(), (Lines{"done 1", "done 2"}));
    run_until_committed();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"),
              "table netdev lda {\n"
              "\tchain port1.3 {\n"
              "\t\ttype filter hook ingress device \"swp1\" priority filter; policy accept;\n"
              "\t\tmeta protocol 0x88b5 limit rate 2000/second burst 2000 packets accept\n"
              "\t\tether daddr @fdb accept\n"
              "\t\tcounter name \"port1.3\"\n"
              "\t\tlimit rate over 2000/second burst 8000 packets counter packets 0 bytes 0 drop\n"
              "\t}\n"
              "}\n");
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftForwardingTest, TableIsThereOnlyWhileThereAreRules) {
    EXPECT_EQ(output_of("nft list ruleset"), "");
    plane->install(3, std::nullopt, kSwitchRule);
    plane->install(4, 1, kPortRule);
    run_until_committed();
    EXPECT_NE(output_of("nft list chain netdev lda port1.4"), "");
    plane->remove(4);
    run_until_committed();
    EXPECT_NE(output_of("nft list table netdev lda"), "");
    EXPECT_EQ(output_of("nft list chains"), "table netdev lda {\n}\n");
    EXPECT_EQ(output_of("nft list counters"), "");
    plane->remove(3);
    EXPECT_EQ(output_of("nft list ruleset"), "");
    EXPECT_FALSE(loop.next_timer().has_value());
    plane->remove(3);
    plane->remove(99);
    EXPECT_EQ(sink.take(), (Lines{"done 3", "done 4"}));
}

TEST_F(NftForwardingTest, FloodedFramesAreCountedAndReportedAsIncrements) {
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 30);
    send_frames("p-swp1", kBroadcast, 12);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 42; }));
    settle();
    EXPECT_EQ(packets(3), 42u);
    EXPECT_EQ(sink.counts[3].bytes, 42u * 46) << "without the Ethernet header";
    EXPECT_EQ(packets(4), 0u);

    send_frames("p-swp1", kUnknown, 8);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 50; }));
    settle();
    EXPECT_EQ(packets(3), 50u);
}

TEST_F(NftForwardingTest, FramesToKnownAddressesAreNotCounted) {
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
    settle();
    send_frames("p-swp1", kHost, 100);
    send_frames("p-swp1", kUnknown, 1);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 1; }));
    settle();
    EXPECT_EQ(packets(3), 1u);
}

TEST_F(NftForwardingTest, FramesToAGroupAreCountedWhateverTheDatabaseSays) {
    bridge(
        "fdb add 01:00:5e:00:00:05 dev swp2 master static\n"
        "fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
    send_frames("p-swp1", 0x01005E000005, 4);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 4; }));
}

TEST_F(NftForwardingTest, OwnAddressesOfTheBridgeAreKnown) {
    ip("link set br0 address 02:00:00:00:0b:0b\nlink set swp2 address 02:00:00:00:0b:02\n");
    plane->install(3, 1, kPortRule);
    EXPECT_TRUE(becomes_known("02:00:00:00:0b:0b"));
    EXPECT_TRUE(becomes_known("02:00:00:00:0b:02"));
}

TEST_F(NftForwardingTest, KnownAddressesFollowTheForwardingDatabase) {
    ip("link add br1 type bridge\nlink set br1 up\nlink add other type veth peer name p-other\n"
       "link set other master br1\n");
    bridge(
        "fdb add 02:00:00:00:00:77 dev other master static\n"
        "fdb add 02:00:00:00:00:05 dev swp1 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:05"));
    EXPECT_FALSE(is_known("02:00:00:00:00:77")) << "of another bridge";

    bridge("fdb add 02:00:00:00:00:06 dev swp2 master static\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:06"));
    bridge("fdb del 02:00:00:00:00:05 dev swp1 master\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:05", false));
    // Learned from a frame, once the port forwards.
    EXPECT_TRUE(wait_for([&] {
        send_frames("p-swp2", kUnknown, 1);
        turn_for(std::chrono::seconds(1));
        return is_known("06:00:00:00:00:00");
    }));
}

TEST_F(NftForwardingTest, AddressIsKnownWhileOneOfItsVlansIs) {
    if (std::system("ip link set br0 type bridge vlan_filtering 1 2>/dev/null") != 0) {
        GTEST_SKIP() << "this kernel's bridge has no VLAN filtering";
    }
    bridge(
        "vlan add dev swp1 vid 10\n"
        "fdb add 02:00:00:00:00:09 dev swp1 vlan 1 master static\n"
        "fdb add 02:00:00:00:00:09 dev swp1 vlan 10 master static\n");
    plane->install(3, 1, kPortRule);
    ASSERT_TRUE(becomes_known("02:00:00:00:00:09"));
    bridge("fdb del 02:00:00:00:00:09 dev swp1 vlan 1 master\n");
    settle();
    EXPECT_TRUE(is_known("02:00:00:00:00:09"));
    bridge("fdb del 02:00:00:00:00:09 dev swp1 vlan 10 master\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:09", false));
}

// The frames that a device has received.
unsigned long received_by(const std::string& device) {
    std::ifstream devices("/proc/self/net/dev");
    unsigned long packets = 0;
    for (std::string line; std::getline(devices, line);) {
        std::sscanf(line.c_str(), (" " + device + ": %*u %lu").c_str(), &packets);
    }
    return packets;
}

TEST_F(NftForwardingTest, ProbesOfAnotherSwitchPassAndAreNotCounted) {
    plane->install(3, 1, kPortRule);
    settle();
    const unsigned long before = received_by("p-swp2");
    send_frames("p-swp1", 0x0388B5000001, 20, 0x88B5);
    send_frames("p-swp1", 0x0388B5000001, 20, 0x88B5, 7);
    send_frames("p-swp1", kBroadcast, 1);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 1; }));
    settle();
    EXPECT_EQ(packets(3), 1u);
    EXPECT_GE(received_by("p-swp2") - before, 41u);
}

TEST_F(NftForwardingTest, ProbesThatCircleInALoopAreCountedAsAStorm) {
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", 0x0388B5000001, 20000, 0x88B5);
    EXPECT_TRUE(wait_for([&] { return packets(3) >= 1; }));
}

TEST_F(NftForwardingTest, CountsFramesThatTheMeterDrops) {
    ForwardingRule slow = kPortRule;
    slow.meter->rate_pps = 1;
    plane->install(3, 1, slow);
    settle();
    send_frames("p-swp1", kUnknown, 200);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 200; }));
    EXPECT_EQ(packets(3), 200u);
    // Eight pass at once, and two more in each second.
    const std::string chain = output_of("nft list chain netdev lda port1.3");
    EXPECT_NE(chain.find("limit rate over 2/second burst 8 packets"), std::string::npos) << chain;
    unsigned dropped = 0;
    const size_t at = chain.find("counter packets ");
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(std::sscanf(chain.c_str() + at, "counter packets %u", &dropped), 1);
    EXPECT_GE(dropped, 180u);
    EXPECT_LE(dropped, 192u);
}

// ---- Ports that come and go ----

TEST_F(NftForwardingTest, RuleReturnsWithItsPortAndItsCounterContinues) {
    plane->install(3, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 5; }));

    ip("link del swp1\n");
    ports.erase(1);
    plane->port_changed(1);
    run_until_committed();
    EXPECT_EQ(output_of("nft list chains"), "table netdev lda {\n}\n");
    settle();

    ip(port_line("swp1"));
    find_port(1, "swp1");
    plane->port_changed(1);
    settle();
    send_frames("p-swp1", kUnknown, 7);
    ASSERT_TRUE(wait_for([&] { return packets(3) >= 12; }));
    settle();
    EXPECT_EQ(packets(3), 12u);
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftForwardingTest, PortThatIsGoneAgainBeforeItsRuleReturnsIsWaitedFor) {
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    run_until_committed();
    ip("link del swp1\n");  // the port model does not know yet
    ports[1].ifx = 4711;
    plane->port_changed(1);
    settle();
    EXPECT_EQ(sink.take(), (Lines{"done 3", "done 4"}));
    ip(port_line("swp1"));
    find_port(1, "swp1");
    plane->port_changed(1);
    settle();
    send_frames("p-swp1", kUnknown, 7);
    EXPECT_TRUE(wait_for([&] { return packets(3) == 7; }));
}

TEST_F(NftForwardingTest, RuleFollowsARenamedDevice) {
    plane->install(3, 1, kPortRule);
    run_until_committed();
    ip("link set swp1 down\nlink set swp1 name uplink\nlink set uplink up\n");
    find_port(1, "uplink");
    plane->port_changed(1);
    settle();
    send_frames("p-swp1", kUnknown, 3);
    EXPECT_TRUE(wait_for([&] { return packets(3) == 3; }));
    EXPECT_NE(output_of("nft list chains").find("device \"uplink\""), std::string::npos);
}

TEST_F(NftForwardingTest, RuleFindsADeviceWhoseNewNameTheModelLearnsLater) {
    ip("link set swp1 down\nlink set swp1 name uplink\nlink set uplink up\n");
    plane->install(3, 1, kPortRule);
    turn_for(NftForwarding::kTick);
    find_port(1, "uplink");
    plane->port_changed(1);
    settle();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    send_frames("p-swp1", kUnknown, 3);
    EXPECT_TRUE(wait_for([&] { return packets(3) == 3; }));
}

// Some kernels remove the chain with the device, and there is no other sign of that.
TEST_F(NftForwardingTest, ChainIsCreatedAgainForADeviceThatReturnsUnderItsIndex) {
    plane->install(3, 1, kPortRule);
    run_until_committed();
    const std::string before = output_of("nft -a list chain netdev lda port1.3 | grep chain");
    const Port port = ports[1];
    ip("link del swp1\n");
    ports.erase(1);
    plane->port_changed(1);
    ip("link add swp1 index " + std::to_string(port.ifx) +
       " type veth peer name p-swp1\nlink set p-swp1 up\nlink set swp1 up\n"
       "link set swp1 master br0\n");
    ports[1] = port;
    plane->port_changed(1);
    settle();
    const std::string after = output_of("nft -a list chain netdev lda port1.3 | grep chain");
    EXPECT_NE(after, "");
    EXPECT_NE(after, before);
    send_frames("p-swp1", kUnknown, 3);
    EXPECT_TRUE(wait_for([&] { return packets(3) == 3; }));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftForwardingTest, RecreatedBridgeIsMirroredAgain) {
    plane->install(3, 1, kPortRule);
    bridge("fdb add 02:00:00:00:00:05 dev swp1 master static\n");
    ASSERT_TRUE(becomes_known("02:00:00:00:00:05"));
    ip("link del br0\n");
    bridge_ifx = 0;
    EXPECT_TRUE(becomes_known("02:00:00:00:00:05", false));
    ip("link add br0 type bridge\nlink set br0 up\nlink set swp1 master br0\n");
    find_bridge();
    bridge("fdb add 02:00:00:00:00:06 dev swp1 master static\n");
    EXPECT_TRUE(becomes_known("02:00:00:00:00:06"));
}

TEST_F(NftForwardingTest, OverrunOfTheMirrorLosesNoAddress) {
    make_plane(2048);
    plane->install(3, 1, kPortRule);
    settle();
    // Nobody reads meanwhile: more than the buffer holds.
    std::string lines;
    for (int n = 0; n < 600; ++n) {
        char line[80];
        std::snprintf(line, sizeof line, "fdb add 02:00:00:00:%02x:%02x dev swp%d master static\n",
                      n / 256 + 16, n % 256, n % 2 + 1);
        lines += line;
    }
    bridge(lines + "fdb del 02:00:00:00:10:07 dev swp2 master\n");
    ASSERT_TRUE(becomes_known("02:00:00:00:12:57"));
    EXPECT_GE(plane->resyncs(), 1u);
    EXPECT_EQ(platform.log.lines().at(0),
              "PORT-4-RESYNC: Reading all forwarding-database entries again: notifications were "
              "lost");
    const std::string set = output_of("nft list set netdev lda fdb");
    EXPECT_EQ(set.find("02:00:00:00:10:07"), std::string::npos);
    size_t found = 0;
    for (size_t at = 0; (at = set.find("02:00:00:00:1", at)) != std::string::npos; ++at) {
        ++found;
    }
    EXPECT_EQ(found, 599u);
}

TEST_F(NftForwardingTest, OtherTablesStayAsTheyAre) {
    nft("add table netdev theirs\nadd chain netdev theirs in { type filter hook ingress device "
        "\"swp1\" priority 10; policy accept; }\nadd rule netdev theirs in counter\n"
        "add table inet lda\nadd counter inet lda mine\nadd chain inet lda port1.3\n");
    const std::string before = output_of("nft list ruleset");
    plane->remove_leftovers();
    EXPECT_EQ(output_of("nft list ruleset"), before);
    plane->install(3, 1, kPortRule);
    settle();
    EXPECT_EQ(output_of("nft list table inet lda"),
              "table inet lda {\n\tcounter mine {\n\t\tpackets 0 bytes 0\n\t}\n\n"
              "\tchain port1.3 {\n\t}\n}\n");
    plane.reset();
    EXPECT_EQ(output_of("nft list ruleset"), before);
}

TEST_F(NftForwardingTest, LeftoversOfAnEarlierProcessAreRemoved) {
    nft("add table netdev lda\nadd chain netdev lda port1.9 { type filter hook ingress device "
        "\"swp1\" priority 0; policy drop; }\nadd counter netdev lda port1.3\n");
    plane->remove_leftovers();
    EXPECT_EQ(output_of("nft list ruleset"), "");
    plane->install(3, 1, kPortRule);
    run_until_committed();
    plane->remove_leftovers();
    EXPECT_NE(output_of("nft list chain netdev lda port1.3"), "") << "our own are no leftovers";
    plane->close();
    EXPECT_EQ(output_of("nft list ruleset"), "");
    plane->remove_leftovers();
}

TEST_F(NftForwardingTest, FirstRuleReplacesLeftoversThatNobodyRemoved) {
    nft("add table netdev lda\nadd chain netdev lda port1.9 { type filter hook ingress device "
        "\"swp1\" priority 0; policy drop; }\n");
    plane->install(3, 1, kPortRule);
    run_until_committed();
    EXPECT_EQ(output_of("nft list chain netdev lda port1.9"), "");
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftForwardingTest, NothingIsLeftOfAPlaneThatEndsWithRulesAndRequests) {
    plane->install(3, 1, kPortRule);
    settle();
    plane->install(4, 2, kPortRule);
    bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
    plane.reset();
    EXPECT_EQ(output_of("nft list ruleset"), "");
    EXPECT_FALSE(loop.next_timer().has_value());
    settle();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
}

TEST_F(NftForwardingTest, WithoutThePrivilegeEveryRuleIsRefusedWithOneMessage) {
    ASSERT_EQ(seteuid(65534), 0);
    plane->remove_leftovers();
    EXPECT_EQ(platform.log.lines(), Lines{});
    plane->reserve(1, ForwardingDriver::Table::kAcl);
    plane->install(2, std::nullopt, kSwitchRule);
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    run_until_committed();
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(sink.take(),
              (Lines{"done 1", "failed 2: Operation not permitted",
                     "failed 3: Operation not permitted", "failed 4: Operation not permitted"}));
    EXPECT_EQ(platform.log.lines(),
              (Lines{"FORWARDING-3-REFUSED: A rule of storm-loop-detect cannot be installed: "
                     "Operation not permitted. Storms are not found there."}));
    EXPECT_FALSE(loop.next_timer().has_value());
    // The privilege is back.
    plane->install(5, 1, kPortRule);
    run_until_committed();
    EXPECT_EQ(sink.take(), Lines{"done 5"});
}

TEST_F(NftForwardingTest, RulesThatMakeNoSenseHereAreRefused) {
    plane->install(3, 9, kPortRule);
    ForwardingRule nothing_passes = kPortRule;
    nothing_passes.meter->rate_pps = 0;
    plane->install(4, 1, nothing_passes);
    plane->install(5, std::nullopt, kPortRule);
    ip("link set swp2 down\nlink set swp2 name 2\"x\n");
    find_port(2, "2\"x");
    plane->install(6, 2, kPortRule);
    find_port(2, "swp*");  // which some kernels take for all ports
    plane->install(7, 2, kPortRule);
    EXPECT_EQ(sink.take(), (Lines{"failed 3: No such device", "failed 4: Invalid argument",
                                  "failed 5: Operation not supported", "failed 6: No such device",
                                  "failed 7: No such device"}));
    plane->install(8, 2, kPortRule);
    EXPECT_EQ(sink.take(), Lines{"failed 8: No such device"});
    const Lines log = platform.log.lines();
    const auto named = [&](const std::string& name, uint32_t ifx) {
        return std::count(log.begin(), log.end(),
                          "FORWARDING-3-REFUSED: No rule of storm-loop-detect can hold the name of "
                          "port " +
                              name + " (interface " + std::to_string(ifx) +
                              "). Storms are not found there. Rename it.");
    };
    EXPECT_EQ(named("2\"x", if_nametoindex("2\"x")), 1);
    EXPECT_EQ(named("swp*", 0), 1);
    EXPECT_EQ(output_of("nft list ruleset"), "");
}

}  // namespace
}  // namespace qv
