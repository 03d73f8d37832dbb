// The changes of ports that are reported to a forwarding plane.
#include "platform/client/port_follower.h"

#include <vector>

#include <gtest/gtest.h>

#include "platform/driver/embedded/embedded_switch.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using Ids = std::vector<uint32_t>;

struct PortFollowerTest : testing::Test {
    PortFollowerTest() { model.add_observer(follower); }

    // The plane's calls since the change before.
    Ids reported() {
        test::run_ready(loop, platform.manual_clock);
        return std::exchange(ids, {});
    }

    test::TestPlatform platform;
    EventLoop loop{platform.manual_clock};
    EmbeddedSwitch driver{loop, 0};
    PortModel model{driver};
    Ids ids;
    PortFollower follower{[this](uint32_t phyid) {
        ids.push_back(phyid);
    }};
    Port port{.ifx = 7, .phyid = 3, .name = "swp3"};
};

TEST_F(PortFollowerTest, AddedAndRemovedPortsAreFollowed) {
    model.port_added(port);
    EXPECT_EQ(reported(), Ids{3});
    model.port_removed(7);
    EXPECT_EQ(reported(), Ids{3});
}

TEST_F(PortFollowerTest, RenamedPortIsFollowed) {
    model.port_added(port);
    reported();
    port.name = "uplink";
    model.port_changed(port);
    EXPECT_EQ(reported(), Ids{3});
}

TEST_F(PortFollowerTest, PortWithAnotherIdIsFollowedUnderBoth) {
    model.port_added(port);
    reported();
    port.phyid = 5;
    model.port_changed(port);
    EXPECT_EQ(reported(), (Ids{3, 5}));
}

}  // namespace
}  // namespace qv
