#include "platform/cli/vlan_list.h"

#include <gtest/gtest.h>

using qv::cli::parse_vlan_list;
using qv::cli::print_vlan_list;
using Vlans = std::vector<uint16_t>;

TEST(VlanList, NumbersAndRangesAreTakenInAnyOrderAndOnce) {
    EXPECT_EQ(parse_vlan_list("1"), Vlans{1});
    EXPECT_EQ(parse_vlan_list("4094"), Vlans{4094});
    EXPECT_EQ(parse_vlan_list("30,10-12,11"), (Vlans{10, 11, 12, 30}));
    EXPECT_EQ(parse_vlan_list("7-7"), Vlans{7});
    EXPECT_EQ(parse_vlan_list("1-4094")->size(), 4094U);
}

TEST(VlanList, OtherTextsAreNone) {
    for (const char* text : {"", "0", "4095", "65537", "10,", ",10", "10,,11", "12-10", "10-",
                             "-10", "1-2-3", "10 ", "a", "+1", "0x10"}) {
        EXPECT_EQ(parse_vlan_list(text), std::nullopt) << text;
    }
}

TEST(VlanList, NeighboursArePrintedAsARange) {
    EXPECT_EQ(print_vlan_list({1}), "1");
    EXPECT_EQ(print_vlan_list({1, 2, 3, 5, 7, 8, 4094}), "1-3,5,7-8,4094");
    EXPECT_EQ(print_vlan_list({}), "");
}
