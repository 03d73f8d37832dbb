#include "services/tarnd/service.h"

#include <gtest/gtest.h>

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

PBridge__TarnConfig config(uint32_t enabled, uint32_t recover_s, uint32_t interval_ms) {
    PBridge__TarnConfig record = P_BRIDGE__TARN_CONFIG__INIT;
    record.enabled = enabled;
    record.error_recover_interval_s = recover_s;
    record.probe_interval_ms = interval_ms;
    record.priority = 128;
    return record;
}

TEST(Service, SettingsAreThoseOfTheRecord) {
    EXPECT_EQ(settings_of(config(1, 90, 250)),
              (Settings{.enabled = true, .interval = milliseconds(250), .recover = seconds(90)}));
    EXPECT_EQ(settings_of(config(0, 0, 1000)), Settings{});
}

TEST(Service, CutAndPriorityAreThoseOfTheRecord) {
    PBridge__TarnConfig record = config(1, 0, 1000);
    record.cut_one = 1;
    record.priority = 0;
    EXPECT_EQ(settings_of(record), (Settings{.enabled = true, .cut_one = true, .priority = 0}));
    record.priority = 255;
    EXPECT_EQ(settings_of(record).priority, 255);
    record.priority = 256;
    EXPECT_EQ(settings_of(record).priority, 128);
}

TEST(Service, TheRoleFollowsTheVlanMode) {
    EXPECT_EQ(role_of(1), Role::kAccess);
    EXPECT_EQ(role_of(7), Role::kHybrid);
    EXPECT_EQ(role_of(2), Role::kTrunk);
    EXPECT_EQ(role_of(0), Role::kTrunk);  // unknown: last
}

TEST(Service, AGuardOutOfRangeIsNone) {
    PBridge__TarnPort record = P_BRIDGE__TARN_PORT__INIT;
    for (const uint32_t guard_ms : {0u, 14u, 600'001u, 4'294'967'295u}) {
        record.guard_ms = guard_ms;
        EXPECT_EQ(guard_of(record), milliseconds(0)) << guard_ms;
    }
    for (const uint32_t guard_ms : {15u, 30u, 600'000u}) {
        record.guard_ms = guard_ms;
        EXPECT_EQ(guard_of(record), milliseconds(guard_ms));
    }
}

TEST(Service, VlansThatAreOutOfRangeOrOutOfOrderAreLeftOut) {
    PBridge__TarnPort record = P_BRIDGE__TARN_PORT__INIT;
    EXPECT_EQ(vlans_of(record), nullptr);
    std::vector<uint32_t> vlans{0, 4095, 65537};
    record.vlans = vlans.data();
    record.n_vlans = vlans.size();
    EXPECT_EQ(vlans_of(record), nullptr);
    vlans = {1, 7, 7, 3, 4094, 4095, 4294967295};
    record.vlans = vlans.data();
    record.n_vlans = vlans.size();
    ASSERT_NE(vlans_of(record), nullptr);
    EXPECT_EQ(*vlans_of(record), (std::vector<uint16_t>{1, 7, 4094}));
}

TEST(Service, AnIntervalOutOfRangeIsTheDefault) {
    for (const uint32_t interval_ms : {0u, 99u, 10001u, 4294967295u}) {
        EXPECT_EQ(settings_of(config(1, 0, interval_ms)).interval, milliseconds(1000));
    }
    EXPECT_EQ(settings_of(config(1, 0, 100)).interval, milliseconds(100));
    EXPECT_EQ(settings_of(config(1, 0, 10000)).interval, milliseconds(10000));
}

}  // namespace
}  // namespace qv::tarnd
