#include "platform/driver/linux/rtnl_link.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

namespace qv {
namespace {

using Bytes = std::vector<unsigned char>;

void append(Bytes& bytes, const void* data, size_t size) {
    const auto* const first = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        bytes.push_back(first[i]);
    }
}

Bytes attribute(uint16_t type, const Bytes& payload) {
    const rtattr header{.rta_len = static_cast<uint16_t>(sizeof(rtattr) + payload.size()),
                        .rta_type = type};
    Bytes bytes;
    append(bytes, &header, sizeof header);
    append(bytes, payload.data(), payload.size());
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

Bytes text(const char* value) {
    Bytes bytes;
    append(bytes, value, std::strlen(value) + 1);
    return bytes;
}

template <typename Number>
Bytes number(Number value) {
    Bytes bytes;
    append(bytes, &value, sizeof value);
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    append(left, right.data(), right.size());
    return left;
}

// An RTM_* message about link `index`.
Bytes message(uint16_t type, const Bytes& attributes, int index = 7, unsigned flags = IFF_UP,
              unsigned char family = AF_UNSPEC) {
    ifinfomsg info{};
    info.ifi_family = family;
    info.ifi_index = index;
    info.ifi_flags = flags;
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + sizeof info + attributes.size());
    header.nlmsg_type = type;
    Bytes bytes;
    append(bytes, &header, sizeof header);
    append(bytes, &info, sizeof info);
    return bytes + attributes;
}

std::optional<LinkMessage> parse(Bytes bytes) {
    return parse_link(reinterpret_cast<nlmsghdr*>(bytes.data()));
}

Bytes member_attributes() {
    const Bytes port = attribute(IFLA_BRPORT_NO, number<uint16_t>(3));
    const Bytes info = attribute(IFLA_INFO_KIND, text("veth")) +
                       attribute(IFLA_INFO_SLAVE_KIND, text("bridge")) +
                       attribute(IFLA_INFO_SLAVE_DATA, port);
    return attribute(IFLA_IFNAME, text("swp1")) + attribute(IFLA_MASTER, number<uint32_t>(5)) +
           attribute(IFLA_LINKINFO, info);
}

TEST(RtnlLink, MemberOfABridgeIsDecoded) {
    const auto link = parse(message(RTM_NEWLINK, member_attributes(), 7, IFF_UP | IFF_RUNNING));
    ASSERT_TRUE(link);
    const LinkMessage expected{.ifx = 7,
                               .removed = false,
                               .name = "swp1",
                               .kind = "veth",
                               .master = 5,
                               .bridge_port = 3,
                               .admin_up = true,
                               .oper_up = true};
    EXPECT_EQ(*link, expected);
}

TEST(RtnlLink, StatesAreReadAmongOtherFlags) {
    constexpr unsigned kOthers = IFF_BROADCAST | IFF_PROMISC | IFF_NOARP | IFF_MULTICAST;
    const auto states = [](unsigned flags) {
        const auto link = parse(message(RTM_NEWLINK, member_attributes(), 7, flags));
        return link ? std::string(link->admin_up ? "up" : "down") + (link->oper_up ? " on" : " off")
                    : "refused";
    };
    EXPECT_EQ(states(kOthers), "down off");
    EXPECT_EQ(states(kOthers | IFF_UP), "up off");
    EXPECT_EQ(states(kOthers | IFF_UP | IFF_RUNNING), "up on");
    EXPECT_EQ(states(IFF_RUNNING), "down on");
}

TEST(RtnlLink, LinkWithoutAMasterOrKindIsAPlainDevice) {
    const auto link = parse(message(RTM_NEWLINK, attribute(IFLA_IFNAME, text("eth0"))));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "eth0");
    EXPECT_EQ(link->kind, "");
    EXPECT_EQ(link->master, 0u);
    EXPECT_EQ(link->bridge_port, 0u);
}

TEST(RtnlLink, DeletionNeedsOnlyTheIndex) {
    const auto link = parse(message(RTM_DELLINK, {}));
    ASSERT_TRUE(link);
    EXPECT_TRUE(link->removed);
    EXPECT_EQ(link->ifx, 7u);
}

TEST(RtnlLink, NotesOfTheBridgeAreNotAboutTheLink) {
    EXPECT_FALSE(parse(message(RTM_DELLINK, {}, 7, 0, AF_BRIDGE)));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, member_attributes(), 7, 0, AF_BRIDGE)));
}

TEST(RtnlLink, OtherMessagesAndBadIndexesAreRefused) {
    EXPECT_FALSE(parse(message(RTM_NEWADDR, member_attributes())));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, member_attributes(), 0)));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, member_attributes(), -1)));
}

TEST(RtnlLink, WirelessEventDoesNotLookLikeLeavingTheBridge) {
    const Bytes event = attribute(IFLA_IFNAME, text("wl0")) + attribute(IFLA_WIRELESS, text("x"));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, event)));
}

TEST(RtnlLink, PortNumberOfAnotherKindOfMasterIsNotRead) {
    const Bytes info =
        attribute(IFLA_INFO_SLAVE_KIND, text("bond")) +
        attribute(IFLA_INFO_SLAVE_DATA, attribute(IFLA_BRPORT_NO, number<uint16_t>(3)));
    const auto link = parse(message(
        RTM_NEWLINK, attribute(IFLA_IFNAME, text("eth0")) + attribute(IFLA_LINKINFO, info)));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->bridge_port, 0u);
}

TEST(RtnlLink, FieldsOfTheWrongSizeAreRefused) {
    const Bytes name = attribute(IFLA_IFNAME, text("swp1"));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, {})));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, attribute(IFLA_IFNAME, {'s', 'w', 'p'}))));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, attribute(IFLA_IFNAME, text("a-name-too-long-by1")))));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, name + attribute(IFLA_MASTER, number<uint16_t>(5)))));
    const Bytes info = attribute(IFLA_INFO_SLAVE_KIND, text("bridge")) +
                       attribute(IFLA_INFO_SLAVE_DATA, attribute(IFLA_BRPORT_NO, Bytes{3}));
    EXPECT_FALSE(parse(message(RTM_NEWLINK, name + attribute(IFLA_LINKINFO, info))));
}

TEST(RtnlLink, EveryShorterMessageIsReadWithinItsLength) {
    const Bytes whole = message(RTM_NEWLINK, member_attributes());
    for (size_t length = sizeof(nlmsghdr); length < whole.size(); ++length) {
        // A block of exactly this size, so that a sanitizer sees any byte read beyond it.
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        cut.shrink_to_fit();
        const auto shorter = static_cast<uint32_t>(length);
        std::memcpy(cut.data(), &shorter, sizeof shorter);
        const auto link = parse(cut);
        const bool complete = link && link->bridge_port == 3;
        EXPECT_FALSE(complete) << length;
    }
}

}  // namespace
}  // namespace qv
