// Many changes at once in the forwarding plane of a Linux bridge.
#include "tests/unit/driver/linux/nft_rig.h"

namespace qv {
namespace {

using NftBatches = NftForwardingTest;

TEST_F(NftBatches, ManyRulesAreInstalledInTheirOrder) {
    Lines expected;
    for (ForwardingId id = 1; id <= 2 * NftForwarding::kMaxBatch + 1; ++id) {
        plane->install(id, id % 2 + 1, kPortRule);
        expected.push_back("done " + std::to_string(id));
    }
    ASSERT_TRUE(wait_for([&] { return sink.lines.size() >= expected.size(); }));
    EXPECT_EQ(sink.take(), expected);
    const std::string counters = output_of("nft list counters");
    EXPECT_EQ(static_cast<size_t>(std::count(counters.begin(), counters.end(), '.')),
              expected.size());

    // They are removed in as many batches.
    for (ForwardingId id = 1; id <= 2 * NftForwarding::kMaxBatch; ++id) {
        plane->remove(id);
    }
    run_until_committed();
    settle();
    EXPECT_EQ(output_of("nft list counters"),
              "table netdev lda {\n\tcounter port2.129 {\n\t\tpackets 0 bytes 0\n\t}\n}\n");
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftBatches, RuleRemovedBeforeItsInstallationIsNeverInstalled) {
    plane->install(3, std::nullopt, kSwitchRule);
    plane->install(4, 1, kPortRule);
    plane->remove(4);
    run_until_committed();
    EXPECT_EQ(sink.take(), Lines{"done 3"});
    EXPECT_EQ(output_of("nft list counters"), "");
    plane->install(5, 1, kPortRule);
    plane->remove(5);
    plane->remove(3);
    run_until_committed();
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_EQ(output_of("nft list ruleset"), "");
    EXPECT_FALSE(loop.next_timer().has_value());
}

TEST_F(NftBatches, RuleInPlaceOfAnotherReplacesIt) {
    plane->install(3, 1, kPortRule);
    settle();
    plane->remove(3);
    plane->install(4, 1, kPortRule);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    EXPECT_TRUE(wait_for([&] { return packets(4) == 5; }));
    EXPECT_EQ(packets(3), 0u);
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
}

TEST_F(NftBatches, RuleWaitsForAPortRemovedBeforeItsInstallation) {
    plane->install(3, 1, kPortRule);
    plane->install(4, 2, kPortRule);
    ip("link del swp1\n");
    ports.erase(1);
    plane->port_changed(1);
    run_until_committed();
    EXPECT_EQ(sink.take(), (Lines{"done 3", "done 4"}));
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
    ip(port_line("swp1"));
    find_port(1, "swp1");
    plane->port_changed(1);
    settle();
    send_frames("p-swp1", kUnknown, 5);
    EXPECT_TRUE(wait_for([&] { return packets(3) == 5; }));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

}  // namespace
}  // namespace qv
