// The requests to the forwarding-plane service, byte for byte.
#include <cstring>
#include <vector>

#include "tests/unit/storm/storm_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <class Object>
Bytes bytes_of(const Object& object) {
    const auto* begin = reinterpret_cast<const uint8_t*>(&object);
    return Bytes(begin, begin + sizeof object);
}

// "loop_detection_app" in 32 bytes, then little-endian words.
Bytes named(const Bytes& rest) {
    constexpr char kName[32] = "loop_detection_app";
    Bytes bytes(kName, kName + sizeof kName);
    for (const uint8_t byte : rest) {
        bytes.push_back(byte);
    }
    return bytes;
}

Bytes value_of(const fp_item& item) {
    return Bytes(item.value, item.value + item.length);
}

bool rest_is_zero(const fp_item& item) {
    const std::string name = item.name;
    for (size_t n = name.size(); n < sizeof item.name; ++n) {
        if (item.name[n] != 0) {
            return false;
        }
    }
    for (size_t n = item.length; n < sizeof item.value; ++n) {
        if (item.value[n] != 0) {
            return false;
        }
    }
    return true;
}

class StormBytes : public RunningStormTest {};

TEST_F(StormBytes, AclKeyCarriesFlagsOnlyOnCreation) {
    storm_enable_by_fp(8000, 1024, 0x01020304);
    EXPECT_EQ(bytes_of(fake::fp_created_key()), named({4, 3, 2, 1, 4, 1, 0, 0}));
    const Bytes plain = named({4, 3, 2, 1, 0, 0, 0, 0});
    EXPECT_EQ(bytes_of(fake::fp_entry_key()), plain);
    EXPECT_EQ(bytes_of(fake::fp_apply_key()), plain);
    storm_del_storm_fp(0x01020304);
    EXPECT_EQ(bytes_of(fake::fp_unapplied_key()), plain);
    EXPECT_EQ(bytes_of(fake::fp_entry_delete_key()), plain);
    EXPECT_EQ(bytes_of(fake::fp_deleted_key()), plain);
}

TEST_F(StormBytes, PortApplyPoint) {
    storm_enable_by_fp(8000, 1024, 0x01020304);
    const Bytes point = named({4, 3, 2, 1, 2, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(bytes_of(fake::fp_point()), point);
    storm_del_mpls_fp();
    storm_del_storm_fp(0x01020304);
    EXPECT_EQ(bytes_of(fake::fp_point()), point);
}

TEST_F(StormBytes, SharedApplyPoint) {
    storm_del_mpls_fp();
    EXPECT_EQ(bytes_of(fake::fp_point()), named({0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes_of(fake::fp_unapplied_key()), named({0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(StormBytes, PortEntryMatches) {
    storm_enable_by_fp(8000, 1024, 101);
    const auto& items = fake::fp_entry_items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_STREQ(items[0].name, "l2_da_hit");
    EXPECT_EQ(items[0].item_class, 1u);
    EXPECT_EQ(value_of(items[0]), (Bytes{0}));
    EXPECT_STREQ(items[1].name, "l3_uc");
    EXPECT_EQ(items[1].item_class, 1u);
    EXPECT_EQ(value_of(items[1]), (Bytes{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(StormBytes, PortApplyActions) {
    storm_enable_by_fp(0x00010203, 0x04050607, 101);
    const auto& items = fake::fp_apply_items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_STREQ(items[0].name, "meter");
    EXPECT_EQ(items[0].item_class, 2u);
    Bytes meter(48, 0);
    const Bytes rate = {3, 2, 1, 0, 0, 0, 0, 0};
    const Bytes burst = {7, 6, 5, 4};
    std::copy(rate.begin(), rate.end(), meter.begin());
    std::copy(burst.begin(), burst.end(), meter.begin() + 24);
    EXPECT_EQ(value_of(items[0]), meter);
    EXPECT_STREQ(items[1].name, "counter");
    EXPECT_EQ(items[1].item_class, 2u);
    EXPECT_EQ(value_of(items[1]), (Bytes{0, 0, 0, 0}));
    EXPECT_STREQ(items[2].name, "fwd");
    EXPECT_EQ(items[2].item_class, 2u);
    EXPECT_EQ(value_of(items[2]), (Bytes{0x00, 0x06, 0xff}));
}

TEST_F(StormBytes, SharedEntryMatchAndEmptyApply) {
    fake::fail_nth("fp_entry_alloc", 2);  // that of the port rule
    storm_set_rate_burst(1, 8000, 1024, true);
    ASSERT_EQ(fake::fp_entry_items().size(), 1u);
    const fp_item& item = fake::fp_entry_items()[0];
    EXPECT_STREQ(item.name, "etype");
    EXPECT_EQ(item.item_class, 1u);
    EXPECT_EQ(value_of(item), (Bytes{0x47, 0x88, 0xff, 0xff}));
    EXPECT_TRUE(fake::fp_apply_items().empty());
}

TEST_F(StormBytes, ItemsAreZeroBeyondNameAndValue) {
    storm_enable_by_fp(8000, 1024, 101);
    EXPECT_EQ(sizeof(fp_item), 268u);
    for (const fp_item& item : fake::fp_entry_items()) {
        EXPECT_TRUE(rest_is_zero(item)) << item.name;
    }
    for (const fp_item& item : fake::fp_apply_items()) {
        EXPECT_TRUE(rest_is_zero(item)) << item.name;
    }
}

TEST_F(StormBytes, VerdictMessage) {
    storm_loop_msg msg;
    memset(&msg, 0xee, sizeof msg);
    EXPECT_EQ(storm_constuct_info(&msg, 101, 1), 0);
    EXPECT_EQ(bytes_of(msg), (Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
