#include "services/tarnd/bridge_view.h"

#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sodium.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

namespace qv::tarnd {
namespace {

constexpr uint32_t kBridge = 5;

struct MessageFree {
    void operator()(nl_msg* message) const { nlmsg_free(message); }
};
using Message = std::unique_ptr<nl_msg, MessageFree>;

Message link_message(int type, unsigned char family, uint32_t ifx, bool up) {
    Message message(nlmsg_alloc_simple(type, 0));
    ifinfomsg info{};
    info.ifi_family = family;
    info.ifi_index = static_cast<int>(ifx);
    info.ifi_flags = up ? IFF_UP | IFF_RUNNING : 0;
    nlmsg_append(message.get(), &info, sizeof info, NLMSG_ALIGNTO);
    return message;
}

Message bridge_link(const char* name) {
    Message message = link_message(RTM_NEWLINK, AF_UNSPEC, kBridge, true);
    nla_put_string(message.get(), IFLA_IFNAME, name);
    nlattr* const info = nla_nest_start(message.get(), IFLA_LINKINFO);
    nla_put_string(message.get(), IFLA_INFO_KIND, "bridge");
    nla_nest_end(message.get(), info);
    return message;
}

Message member_link(uint32_t ifx, bool up, uint8_t state, uint32_t master = kBridge) {
    Message message = link_message(RTM_NEWLINK, AF_UNSPEC, ifx, up);
    nla_put_string(message.get(), IFLA_IFNAME, "swp");
    nla_put_u32(message.get(), IFLA_MASTER, master);
    nlattr* const info = nla_nest_start(message.get(), IFLA_LINKINFO);
    nla_put_string(message.get(), IFLA_INFO_SLAVE_KIND, "bridge");
    nlattr* const data = nla_nest_start(message.get(), IFLA_INFO_SLAVE_DATA);
    nla_put_u8(message.get(), IFLA_BRPORT_STATE, state);
    nla_nest_end(message.get(), data);
    nla_nest_end(message.get(), info);
    return message;
}

// The bridge's own message about its side of the port.
Message port_message(uint32_t ifx, uint8_t state) {
    Message message = link_message(RTM_NEWLINK, AF_BRIDGE, ifx, true);
    nlattr* const port = nla_nest_start(message.get(), IFLA_PROTINFO | NLA_F_NESTED);
    nla_put_u8(message.get(), IFLA_BRPORT_STATE, state);
    nla_nest_end(message.get(), port);
    return message;
}

struct Hands final : ProberOutputs {
    bool send(uint32_t ifx, uint16_t /*vid*/, const Frame&) override {
        sent.push_back(ifx);
        return true;
    }
    int cut(uint32_t, bool) override { return 0; }
    int guard(uint32_t, bool) override { return 0; }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kElsewhere) {
            elsewhere.insert(report.ifx);
        } else if (report.kind == Report::Kind::kNotElsewhere) {
            elsewhere.erase(report.ifx);
        }
        return true;
    }
    std::vector<uint32_t> sent;
    std::set<uint32_t> elsewhere;
};

struct BridgeViewTest : testing::Test {
    BridgeViewTest() {
        EXPECT_GE(sodium_init(), 0);
        Settings settings;
        settings.enabled = true;
        prober.configure(settings, now);
        for (const uint32_t ifx : {11, 12, 13}) {
            prober.configure_port(ifx, true, false, now);
        }
        view.begin_dump();
        take(bridge_link("br0"));
        take(member_link(11, true, BR_STATE_FORWARDING));
        take(member_link(12, true, BR_STATE_FORWARDING));
        view.end_dump(now);
    }

    void take(const Message& message) { view.take(nlmsg_hdr(message.get()), now); }

    // The ports that send within two seconds.
    std::vector<uint32_t> probed() {
        hands.sent.clear();
        const Time end = now + std::chrono::seconds(2);
        while (prober.next() <= end) {
            now = std::max(now, prober.next());
            prober.run(now);
        }
        now = end;
        std::sort(hands.sent.begin(), hands.sent.end());
        hands.sent.erase(std::unique(hands.sent.begin(), hands.sent.end()), hands.sent.end());
        return hands.sent;
    }

    using Ports = std::vector<uint32_t>;

    Time now{std::chrono::seconds(100)};
    Hands hands;
    Prober prober{{.bridge = 1, .source = {}, .key = {}, .first_sequence = 1}, hands};
    BridgeView view{"br0", prober};
};

TEST_F(BridgeViewTest, MembersThatForwardAreProbed) {
    EXPECT_EQ(probed(), (Ports{11, 12}));
}

TEST_F(BridgeViewTest, ABlockedPortIsNotProbed) {
    take(port_message(12, BR_STATE_BLOCKING));
    EXPECT_EQ(probed(), Ports{11});
    take(port_message(12, BR_STATE_FORWARDING));
    EXPECT_EQ(probed(), (Ports{11, 12}));
    take(member_link(11, true, BR_STATE_LEARNING));
    EXPECT_EQ(probed(), Ports{12});
}

TEST_F(BridgeViewTest, APortThatIsDownOrHasLeftIsNotProbed) {
    take(member_link(11, false, BR_STATE_FORWARDING));
    EXPECT_EQ(probed(), Ports{12});
    take(member_link(12, true, BR_STATE_FORWARDING, 77));
    EXPECT_EQ(probed(), Ports{});
    take(member_link(12, true, BR_STATE_FORWARDING));
    EXPECT_EQ(probed(), Ports{12});
    take(link_message(RTM_DELLINK, AF_UNSPEC, 12, false));
    EXPECT_EQ(probed(), Ports{});
}

TEST_F(BridgeViewTest, APortMissingFromANewDumpIsRemoved) {
    view.begin_dump();
    take(bridge_link("br0"));
    take(member_link(12, true, BR_STATE_FORWARDING));
    EXPECT_EQ(probed(), (Ports{11, 12}));
    view.end_dump(now);
    EXPECT_EQ(probed(), Ports{12});
}

TEST_F(BridgeViewTest, ABridgeThatIsRenamedOrDeletedHasNoPorts) {
    take(bridge_link("other"));
    EXPECT_EQ(probed(), Ports{});
    take(bridge_link("br0"));
    EXPECT_EQ(probed(), (Ports{11, 12}));
    take(link_message(RTM_DELLINK, AF_UNSPEC, kBridge, false));
    EXPECT_EQ(probed(), Ports{});
    EXPECT_EQ(view.bridge(), 0u);
}

TEST_F(BridgeViewTest, AnnouncementsOfLearnedAddressesAreDecoded) {
    Message message(nlmsg_alloc_simple(RTM_NEWNEIGH, 0));
    ndmsg neighbour{};
    neighbour.ndm_family = AF_BRIDGE;
    neighbour.ndm_ifindex = 11;
    neighbour.ndm_state = NUD_REACHABLE;
    nlmsg_append(message.get(), &neighbour, sizeof neighbour, NLMSG_ALIGNTO);
    const Mac address{0x02, 0, 0, 0, 0, 0x09};
    nla_put(message.get(), NDA_LLADDR, address.size(), address.data());
    nla_put_u32(message.get(), NDA_MASTER, kBridge);
    nla_put_u16(message.get(), NDA_VLAN, 3);
    const auto learned = parse_learned(nlmsg_hdr(message.get()));
    ASSERT_TRUE(learned);
    EXPECT_EQ(learned->bridge, kBridge);
    EXPECT_EQ(learned->ifx, 11u);
    EXPECT_EQ(learned->address, 0x0003020000000009u);

    static_cast<ndmsg*>(nlmsg_data(nlmsg_hdr(message.get())))->ndm_state = NUD_PERMANENT;
    EXPECT_FALSE(parse_learned(nlmsg_hdr(message.get())));
    EXPECT_FALSE(parse_learned(nlmsg_hdr(bridge_link("br0").get())));
}

TEST_F(BridgeViewTest, PortsOfOtherBridgesAreReported) {
    using Set = std::set<uint32_t>;
    take(member_link(13, true, BR_STATE_FORWARDING, 6));
    take(member_link(14, true, BR_STATE_FORWARDING, 6));
    EXPECT_EQ(hands.elsewhere, (Set{13, 14}));
    take(member_link(13, true, BR_STATE_FORWARDING));
    EXPECT_EQ(hands.elsewhere, Set{14});
    take(member_link(12, true, BR_STATE_FORWARDING, 6));
    EXPECT_EQ(hands.elsewhere, (Set{12, 14}));
    take(link_message(RTM_DELLINK, AF_UNSPEC, 14, false));
    EXPECT_EQ(hands.elsewhere, Set{12});
}

}  // namespace
}  // namespace qv::tarnd
