// How the items of an entry and of an apply are read, and built.
#include "platform/client/fp_items.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace qv {
namespace {

using Bytes = std::vector<uint8_t>;

fp_item item(const char* name, uint32_t item_class, const Bytes& value) {
    fp_item made{};
    EXPECT_EQ(
        build_item(&made, name, item_class, value.data(), static_cast<uint32_t>(value.size())), 0);
    return made;
}

int read_match(const fp_item& match, ForwardingRule& rule) {
    fp_entry entry{};
    entry.item_num = 1;
    entry.item[0] = match;
    return read_matches(entry, rule);
}
int read_match(const char* name, const Bytes& value) {
    ForwardingRule rule{};
    return read_match(item(name, FP_ITEM_MATCH, value), rule);
}

int read_action(const char* name, const Bytes& value) {
    ForwardingRule rule{};
    fp_apply apply{};
    apply.item_num = 1;
    apply.item[0] = item(name, FP_ITEM_ACTION, value);
    return read_actions(apply, rule);
}

TEST(ForwardingItems, MatchesAreReadIntoTheRule) {
    ForwardingRule rule{};
    EXPECT_EQ(read_match(item("l3_uc", FP_ITEM_MATCH, {1, 0, 0, 0, 0, 0, 0, 0}), rule), 0);
    EXPECT_FALSE(rule.unknown_destination);
    EXPECT_EQ(read_match(item("l2_da_hit", FP_ITEM_MATCH, {0}), rule), 0);
    EXPECT_TRUE(rule.unknown_destination);
    EXPECT_EQ(read_match(item("etype", FP_ITEM_MATCH, {0x47, 0x88, 0xff, 0xff}), rule), 0);
    EXPECT_EQ(rule.ethertype, 0x8847);
}

TEST(ForwardingItems, MatchThatNoPlaneMakesIsNotSupported) {
    EXPECT_EQ(read_match("l2_da_hit", {1}), EOPNOTSUPP);
    EXPECT_EQ(read_match("l3_uc", {1, 0, 0, 0, 1, 0, 0, 0}), EOPNOTSUPP);
    EXPECT_EQ(read_match("l3_uc", {2, 0, 0, 0, 0, 0, 0, 0}), EOPNOTSUPP);
    EXPECT_EQ(read_match("etype", {0x47, 0x88, 0xff, 0x00}), EOPNOTSUPP);
    EXPECT_EQ(read_match("vlan", {1}), EOPNOTSUPP);
    EXPECT_EQ(read_action("redirect", {1}), EOPNOTSUPP);
}

TEST(ForwardingItems, ValueOfAnotherLengthIsInvalid) {
    EXPECT_EQ(read_match("l2_da_hit", {0, 0}), EINVAL);
    EXPECT_EQ(read_match("l3_uc", {1, 0, 0, 0, 0, 0, 0}), EINVAL);
    EXPECT_EQ(read_match("etype", {0x47, 0x88, 0xff, 0xff, 0}), EINVAL);
    EXPECT_EQ(read_action("meter", Bytes(47)), EINVAL);
    EXPECT_EQ(read_action("meter", Bytes(48)), 0);
    EXPECT_EQ(read_action("meter", Bytes(49)), EINVAL);
    EXPECT_EQ(read_action("counter", Bytes(3)), EINVAL);
    EXPECT_EQ(read_action("counter", Bytes(4)), 0);
    EXPECT_EQ(read_action("fwd", Bytes(2)), EINVAL);
    EXPECT_EQ(read_action("fwd", Bytes(3)), 0);
}

TEST(ForwardingItems, ItemThatIsNotWellFormedIsInvalid) {
    const fp_item good = item("l2_da_hit", FP_ITEM_MATCH, {0});
    ForwardingRule rule{};
    fp_item bad = good;
    bad.item_class = FP_ITEM_ACTION;
    EXPECT_EQ(read_match(bad, rule), EINVAL);
    bad = good;
    std::memset(bad.name, 'x', sizeof bad.name);  // and no terminator
    EXPECT_EQ(read_match(bad, rule), EINVAL);
    bad = item("unknown", FP_ITEM_MATCH, {});
    bad.length = FP_ITEM_VALUE_BYTES + 1;
    EXPECT_EQ(read_match(bad, rule), EINVAL);
    bad.length = FP_ITEM_VALUE_BYTES;
    EXPECT_EQ(read_match(bad, rule), EOPNOTSUPP) << "well formed, but nobody knows it";
    EXPECT_FALSE(rule.unknown_destination);
}

TEST(ForwardingItems, EightItemsAreReadAndNineAreInvalid) {
    fp_entry entry{};
    for (fp_item& each : entry.item) {
        each = item("l2_da_hit", FP_ITEM_MATCH, {0});
    }
    ForwardingRule rule{};
    entry.item_num = 9;
    EXPECT_EQ(read_matches(entry, rule), EINVAL);
    EXPECT_FALSE(rule.unknown_destination);
    entry.item_num = 8;
    EXPECT_EQ(read_matches(entry, rule), 0);
    EXPECT_TRUE(rule.unknown_destination);
    entry.item[7] = item("vlan", FP_ITEM_MATCH, {1});
    EXPECT_EQ(read_matches(entry, rule), EOPNOTSUPP) << "the last one counts as well";
}

TEST(ForwardingItems, BuiltItemHasItsArgumentsAndZeroes) {
    fp_item made;
    std::memset(&made, 0xee, sizeof made);
    const Bytes value = {1, 2, 3};
    ASSERT_EQ(build_item(&made, "counter", FP_ITEM_ACTION, value.data(), 3), 0);
    fp_item expected{};
    std::memcpy(expected.name, "counter", 7);
    expected.item_class = 2;
    expected.length = 3;
    expected.value[0] = 1;
    expected.value[1] = 2;
    expected.value[2] = 3;
    EXPECT_EQ(std::memcmp(&made, &expected, sizeof made), 0);
}

TEST(ForwardingItems, NameAndValueHaveTheirLimits) {
    fp_item made{};
    const Bytes value(229);
    EXPECT_EQ(build_item(&made, "counter", FP_ITEM_ACTION, value.data(), 228), 0);
    EXPECT_EQ(build_item(&made, "counter", FP_ITEM_ACTION, value.data(), 229), EINVAL);
    const std::string name(32, 'n');
    EXPECT_EQ(build_item(&made, name.c_str() + 1, FP_ITEM_ACTION, value.data(), 4), 0);
    EXPECT_EQ(build_item(&made, name.c_str(), FP_ITEM_ACTION, value.data(), 4), EINVAL);
}

}  // namespace
}  // namespace qv
