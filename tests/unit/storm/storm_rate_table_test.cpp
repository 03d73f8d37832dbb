// The rate command, every case: is there a setting, is detection enabled, set or remove, are the
// numbers the defaults. Each row has the requests to the plane and the lists afterwards.
#include "tests/unit/storm/storm_fixture.h"

namespace {

struct Row {
    const char* name;
    bool existing;  // a setting of 5000/64
    bool enabled;
    bool set;
    uint32_t rate;
    uint32_t burst;
    Lines calls;  // requested rule changes, and the service calls they cause
    const char* rates;
    const char* enabled_after;
    const char* installed;  // rate/burst of the detection record, empty for none
};

Lines asked(const std::string& text) {
    return {fake::info("storm_set_rate_burst", "phyid = 65 , " + text)};
}

const Row kRows[] = {
    {"ExistingEnabledRemoveDefaults", true, true, false, 8000, 1024,
     asked("rate = 8000, burst = 1024, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "8000/1024"),
     "", "1", "8000/1024"},
    {"ExistingEnabledRemoveOthers", true, true, false, 6000, 200,
     asked("rate = 8000, burst = 1024, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "8000/1024"),
     "", "1", "8000/1024"},
    {"ExistingDisabledRemoveDefaults", true, false, false, 8000, 1024,
     asked("rate = 8000, burst = 1024, is_add = 0"), "", "", ""},
    {"ExistingDisabledRemoveOthers", true, false, false, 6000, 200,
     asked("rate = 6000, burst = 200, is_add = 0"), "", "", ""},
    {"ExistingDisabledSetDefaults", true, false, true, 8000, 1024, {}, "1:8000/1024", "", ""},
    {"ExistingDisabledSetOthers", true, false, true, 6000, 200, {}, "1:6000/200", "", ""},
    {"ExistingEnabledSetDefaults", true, true, true, 8000, 1024,
     asked("rate = 8000, burst = 1024, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "8000/1024"),
     "", "1", "8000/1024"},
    {"ExistingEnabledSetOthers", true, true, true, 6000, 200,
     asked("rate = 6000, burst = 200, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "6000/200"),
     "1:6000/200", "1", "6000/200"},
    {"ExistingEnabledSetDefaultRateAndAnotherBurst", true, true, true, 8000, 200,
     asked("rate = 8000, burst = 200, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "8000/200"),
     "1:8000/200", "1", "8000/200"},
    {"ExistingEnabledSetAnotherRateAndDefaultBurst", true, true, true, 6000, 1024,
     asked("rate = 6000, burst = 1024, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "6000/1024"),
     "1:6000/1024", "1", "6000/1024"},
    {"ExistingEnabledSetTheSame", true, true, true, 5000, 64,
     asked("rate = 5000, burst = 64, is_add = 1") +
         Lines{fake::info("storm_set_rate_burst", "the same rate = 5000 and burst = 64")},
     "1:5000/64", "1", "5000/64"},
    {"NoneEnabledSetDefaultRateAndNoBurst", false, true, true, 8000, 0,
     asked("rate = 8000, burst = 0, is_add = 1") +
         Lines{fake::info("storm_set_rate_burst", "the same rate = 8000 and burst = 1024")},
     "1:8000/0", "1", "8000/1024"},
    {"NoneEnabledRemoveDefaults", false, true, false, 8000, 1024, {}, "", "1", "8000/1024"},
    {"NoneEnabledRemoveOthers", false, true, false, 6000, 200, {}, "", "1", "8000/1024"},
    {"NoneDisabledRemoveDefaults", false, false, false, 8000, 1024, {}, "", "", ""},
    {"NoneDisabledRemoveOthers", false, false, false, 6000, 200, {}, "", "", ""},
    {"NoneDisabledSetDefaults", false, false, true, 8000, 1024, {}, "1:8000/1024", "", ""},
    {"NoneDisabledSetOthers", false, false, true, 6000, 200, {}, "1:6000/200", "", ""},
    {"NoneEnabledSetDefaults", false, true, true, 8000, 1024, {}, "", "1", "8000/1024"},
    {"NoneEnabledSetOthers", false, true, true, 6000, 200,
     asked("rate = 6000, burst = 200, is_add = 1") + port_rule_removed("101") +
         port_rule_installed("101", "6000/200"),
     "1:6000/200", "1", "6000/200"},
};

// Rule changes and service calls, without the other log lines and the look-ups.
Lines changes() {
    Lines lines;
    for (const std::string& line : fake::take_calls()) {
        if (line.starts_with("fp_") || line.starts_with("zlog 40 storm_set_rate_burst ")) {
            lines.push_back(line);
        }
    }
    return lines;
}

std::string installed(const storm_port_info* info) {
    return info == nullptr ? "" : std::to_string(info->rate) + "/" + std::to_string(info->burst);
}

class StormRateCommand : public RunningStormTest, public ::testing::WithParamInterface<Row> {};

TEST_P(StormRateCommand, FollowsTheTable) {
    const Row& row = GetParam();
    if (row.existing) {
        storm_set_burst_limit(1, 5000, 64, true);
    }
    if (row.enabled) {
        storm_set(1, true);
    }
    fake::clear_calls();
    storm_set_burst_limit(1, row.rate, row.burst, row.set);
    EXPECT_EQ(changes(), row.calls);
    EXPECT_EQ(rates(), row.rates);
    EXPECT_EQ(enabled(), row.enabled_after);
    EXPECT_EQ(installed(record(101)), row.installed);
}

INSTANTIATE_TEST_SUITE_P(Rows, StormRateCommand, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
