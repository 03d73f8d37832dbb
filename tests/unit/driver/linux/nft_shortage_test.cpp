// A forwarding plane of a Linux bridge in a process that has no descriptor left.
#include <fcntl.h>
#include <sys/resource.h>

#include "tests/unit/driver/linux/nft_rig.h"
#include "tests/unit/driver/linux/nft_script.h"

namespace qv {
namespace {

// All but `spare` of the descriptors that the process may open are in use.
class NoDescriptors {
 public:
    explicit NoDescriptors(unsigned spare = 0) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int next = dup(STDERR_FILENO);
        close(next);
        const rlimit none = {.rlim_cur = static_cast<rlim_t>(next) + spare,
                             .rlim_max = before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
    rlimit before_{};
};

struct NftShortage : NftForwardingTest {
    void SetUp() override {
        NftForwardingTest::SetUp();
        if (!IsSkipped()) {
            bridge("fdb add 02:00:00:00:00:01 dev swp2 master static\n");
        }
    }

    void install_first() {
        plane->install(3, 1, kPortRule);
        ASSERT_TRUE(becomes_known("02:00:00:00:00:01"));
        EXPECT_EQ(sink.take(), Lines{"done 3"});
    }

    void expect_only_unknown_counted(ForwardingId id) {
        const uint64_t before = packets(id);
        send_frames("p-swp1", kHost, 50);
        send_frames("p-swp1", kUnknown, 2);
        EXPECT_TRUE(wait_for([&] { return packets(id) >= before + 2; }));
        settle();
        EXPECT_EQ(packets(id), before + 2);
    }

    const Lines refused = {
        "FORWARDING-3-REFUSED: A rule of storm-loop-detect cannot be installed: Too many open "
        "files. Storms are not found there."};
};

TEST_F(NftShortage, KnownAddressesAndChainsStay) {
    install_first();
    const std::string before = output_of("nft -a list chain netdev lda port1.3 | grep chain");
    {
        const NoDescriptors none;
        plane->port_changed(1);
        settle();
    }
    EXPECT_TRUE(is_known("02:00:00:00:00:01"));
    EXPECT_EQ(output_of("nft -a list chain netdev lda port1.3 | grep chain"), before);
    expect_only_unknown_counted(3);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(NftShortage, RuleIsReplacedByAnother) {
    install_first();
    plane->install(4, std::nullopt, kSwitchRule);
    run_until_committed();
    sink.take();
    {
        const NoDescriptors none;
        plane->remove(3);
        plane->install(5, 1, kPortRule);
        settle();
        EXPECT_EQ(sink.take(), Lines{"done 5"});
    }
    EXPECT_EQ(output_of("nft list chain netdev lda port1.3"), "");
    expect_only_unknown_counted(5);
    EXPECT_EQ(platform.log.lines(), Lines{});
}

// Each round leaves one descriptor more, so that another call is the first to fail.
TEST_F(NftShortage, FirstRuleWaitsForDescriptors) {
    for (unsigned spare = 0; spare < 5; ++spare) {
        find_bridge();
        make_plane(FdbMirror::kReceiveBuffer);
        const size_t said = platform.log.lines().size();
        {
            const NoDescriptors none(spare);
            plane->install(3, 1, kPortRule);
            settle();
            if (spare < 4) {
                EXPECT_EQ(sink.take(), Lines{}) << "with " << spare;
                EXPECT_EQ(platform.log.lines().size(), said + 1) << "with " << spare;
            }
        }
        settle();
        EXPECT_EQ(sink.take(), Lines{"done 3"}) << "with " << spare;
        EXPECT_TRUE(becomes_known("02:00:00:00:00:01"));
        plane->close();
    }
    EXPECT_EQ(platform.log.lines().at(0), refused.at(0));
}

TEST_F(NftShortage, SocketThatWasLostIsOpenedAgainLater) {
    install_first();
    send_frames("p-swp1", kUnknown, 7);
    ASSERT_TRUE(wait_for([&] { return packets(3) == 7; }));
    test::g_nft.no_socket = true;
    test::g_nft.lost_answers = 1;  // the socket is closed with them
    ASSERT_TRUE(wait_for([] { return test::g_nft.lost_answers == 0; }));
    plane->install(4, 2, kPortRule);
    ASSERT_TRUE(wait_for([&] { return !platform.log.lines().empty(); }));
    settle();
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_EQ(platform.log.lines(), refused) << "once";
    test::g_nft.no_socket = false;
    ASSERT_TRUE(wait_for([&] { return !sink.lines.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"done 4"});
    EXPECT_TRUE(is_known("02:00:00:00:00:01"));
    expect_only_unknown_counted(3);
    EXPECT_EQ(packets(3), 9u) << "counting goes on where it was";
    EXPECT_EQ(platform.log.lines(), refused) << "nothing was put back";
}

TEST_F(NftShortage, RemovedTableIsRestoredLater) {
    install_first();
    test::g_nft.no_socket = true;
    test::g_nft.lost_answers = 1;
    ASSERT_TRUE(wait_for([] { return test::g_nft.lost_answers == 0; }));
    nft("flush ruleset\n");
    plane->install(4, 2, kPortRule);
    ASSERT_TRUE(wait_for([&] { return !platform.log.lines().empty(); }));
    settle();
    EXPECT_EQ(platform.log.lines(), refused);
    test::g_nft.no_socket = false;
    ASSERT_TRUE(wait_for([&] { return !sink.lines.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"done 4"});
    EXPECT_EQ(platform.log.lines(),
              (Lines{refused.at(0),
                     "FORWARDING-4-RESTORED: The rules of storm-loop-detect were changed from "
                     "outside and are restored."}));
    expect_only_unknown_counted(3);
}

}  // namespace
}  // namespace qv
