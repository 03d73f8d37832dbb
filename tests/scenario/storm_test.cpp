// Storms on the switch, from the first flooded frame to the recovery, and rules that fail.
#include <gtest/gtest.h>

#include <sstream>

#include "storm_detect.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"
#include "tests/support/golden/golden.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

SwitchRig::Options with_ports(unsigned ports) {
    SwitchRig::Options options;
    options.ports = ports;
    return options;
}

// The rows of "debug lda storm-detect", columns separated by one blank.
Lines records(SwitchRig& rig) {
    std::istringstream table(rig.type("debug lda storm-detect"));
    std::string row;
    std::getline(table, row);
    Lines rows;
    while (std::getline(table, row)) {
        std::istringstream columns(row);
        std::string text;
        for (std::string column; columns >> column;) {
            text += (text.empty() ? "" : " ") + column;
        }
        rows.push_back(text);
    }
    return rows;
}

const Lines kFound = {"LOOP_DETECT-3-ERROR: Detected loop error on interface swp1."};
const Lines kRecovered = {"LOOP_DETECT-3-RECOVER: Interface swp1 recovered from loop error."};

const Lines kWatched = {"tarn port loop-detect warning", "storm-loop-detect enable"};
const Lines kShut = {"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"};

TEST(Storm, IsDetectedAtTheThirdPollShutRecoveredAndCleared) {
    SwitchRig rig(with_ports(1));
    rig.type({"configure terminal", "loop-detect shutdown-recover-time 90", "end"});
    rig.set_policy("shutdown access-mode");
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 0 0 0 0 0 0 normal"});
    rig.type("test storm swp1 10000");
    rig.advance(3s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 20000 1280000 0 0 0 1 normal"});
    rig.advance(4s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 60000 3840000 1 0 0 2 normal"});
    rig.advance(4s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 100000 6400000 2 0 0 3 normal"});
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.advance(4s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 140000 8960000 3 0 0 4 loop"});
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(rig.take_executed(), Lines{"interface 1: shutdown \r\n"});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
    EXPECT_EQ(rig.take_notifications(),
              (Lines{notified("swp1", "2", "1", "1"), notified("swp1", "1", "1", "1")}));
    EXPECT_EQ(rig.section("swp1"), kShut);

    // The port is shut and quiet: ten polls later the storm is over, and the port waits for its
    // recovery.
    rig.advance(36s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 150000 9600000 0 9 0 13 loop"});
    rig.advance(4s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 150000 9600000 0 0 0 14 normal"});
    rig.type("test storm swp1 0");
    rig.advance(60s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 1: errdisable recovery \r\n", "interface 1: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp1"), kWatched);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(), kRecovered);
    EXPECT_EQ(rig.entry("swp1"), "none");
}

TEST(Storm, TrafficAtTheRateIsNoStorm) {
    SwitchRig rig(with_ports(1));
    rig.set_policy("shutdown access-mode");
    rig.type("test storm swp1 8000");
    rig.advance(120s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.type("test storm swp1 8001");
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
}

TEST(Storm, UnderWarningIsReportedAndClearedAfterTenQuietPollsAndTheClearInterval) {
    SwitchRig rig(with_ports(1));
    rig.set_policy("");
    rig.type("test storm swp1 20000");
    rig.advance(300s);
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 3u);
    rig.type("test storm swp1 0");
    rig.advance(99s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(5s);
    EXPECT_EQ(rig.take_log(), kRecovered);
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 1);
}

TEST(Storm, RateChangeEndsTheLoopAndRestartsDetection) {
    SwitchRig rig(with_ports(1));
    rig.set_policy("");
    rig.type("test storm swp1 20000");
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
    rig.type(
        {"configure terminal", "interface swp1", "storm-loop-rate ratelimit 1000 burst 32", "end"});
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 1000 32 0 0 0 0 0 0 normal"});
    rig.advance(4s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 1000 32 340000 21760000 1 0 0 1 normal"});
    rig.advance(8s);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 1000 32 500000 32000000 3 0 0 3 loop"});
    // A known loop: it returned before the clear interval was over.
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(120s);
    EXPECT_EQ(rig.take_log(), Lines{});
    // Above the storm: the loop ends with the old rule.
    rig.type({"configure terminal", "interface swp1", "storm-loop-rate ratelimit 30000"});
    rig.advance(59s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(1s);
    EXPECT_EQ(rig.take_log(), kRecovered);
}

TEST(Storm, RefusedShutdownIsRetriedWithTheRepetition) {
    SwitchRig rig(with_ports(1));
    rig.set_policy("shutdown access-mode");
    rig.type("test refuse % Not now");
    rig.type("test storm swp1 20000");
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(rig.take_executed(), Lines{"interface 1: shutdown \r\n"});
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 8000 1024 280000 17920000 4 0 0 4 loop"});
    rig.advance(72s);
    EXPECT_EQ(rig.take_executed(), Lines{"interface 1: shutdown \r\n"});
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.section("swp1"), kShut);
}

TEST(Storm, OnAPortWithDetectionEnabledByTheOperatorIsReportedWithoutAPolicy) {
    SwitchRig rig(with_ports(1));
    rig.type({"configure terminal", "interface swp1", "storm-loop-detect enable", "end",
              "test storm swp1 20000"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.section("swp1"), Lines{"storm-loop-detect enable"});
}

// Detection outlives its port: the port that comes back with its number is watched at once.
TEST(Storm, OnAPortDeletedAndAddedAgainMeanwhileIsFound) {
    SwitchRig rig(with_ports(2));
    rig.set_policy("");
    rig.type("test storm swp1 20000");
    rig.advance(8s);
    rig.type("test port delete swp1");
    EXPECT_EQ(records(rig), Lines{"2 swp2 2 8000 1024 0 0 0 0 0 2 normal"});
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(storm_port_num, 2U);
    rig.type({"test port add swp1", "test storm swp1 20000"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(rig.section("swp1"), kWatched);
}

TEST(Storm, OnSeveralPortsIsComparedWithTheRateOfEach) {
    SwitchRig rig(with_ports(3));
    rig.set_policy("");
    rig.type({"configure terminal", "interface swp2", "storm-loop-rate ratelimit 30000",
              "interface swp3", "storm-loop-rate ratelimit 100", "end", "test storm swp1 9000",
              "test storm swp2 20000", "test storm swp3 200"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(),
              (Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3.",
                     "LOOP_DETECT-3-ERROR: Detected loop error on interface swp1."}));
}

TEST(Storm, PluggedLoopIsFoundWithoutTheProbes) {
    SwitchRig rig(with_ports(2));
    rig.set_policy("shutdown access-mode");
    rig.type({"configure terminal", "no tarn enable", "end", "test loop plug swp1 swp2"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(),
              (Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp2.",
                     "LOOP_DETECT-3-ERROR: Detected loop error on interface swp1."}));
    EXPECT_EQ(rig.section("swp1"), kShut);
    EXPECT_EQ(rig.section("swp2"), kShut);
}

TEST(Storm, PortThatHearsItselfIsFoundByTheProbesAlone) {
    SwitchRig rig(with_ports(1));
    rig.set_policy("");
    rig.type({"configure terminal", "no tarn enable", "end", "test loop plug swp1 swp1"});
    rig.advance(120s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.type({"configure terminal", "tarn enable"});
    rig.advance(5s);
    EXPECT_EQ(rig.take_log(), kFound);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 0);
}

// ---- Rules that fail ----

// Types detection on a port while the plane is scripted to fail.
struct StormRuleFailure : testing::Test {
    SwitchRig rig{with_ports(1)};

    void watch() {
        rig.trace();
        rig.type({"configure terminal", "interface swp1", "storm-loop-rate ratelimit 5000",
                  "storm-loop-detect enable", "end", "write"});
        rig.take_log();
    }
};

const Lines kPortWatched = {"storm-loop-detect enable", "storm-loop-rate ratelimit 5000"};

TEST_F(StormRuleFailure, FailedApplyRemovesThePortFromDetection) {
    rig.type("test forwarding fail apply 2");
    watch();
    EXPECT_EQ(rig.section("swp1"), kPortWatched);
    rig.take_log();
    rig.advance(1s);
    expect_golden("storm/port_rule_refused", rig.take_log());
    EXPECT_EQ(rig.section("swp1"), Lines{});
    EXPECT_EQ(records(rig), Lines{});
    EXPECT_EQ(storm_port_num, 0U);
}

TEST_F(StormRuleFailure, FailedSharedRuleRemovesNoPort) {
    rig.type("test forwarding fail apply 1");
    watch();
    rig.advance(1s);
    expect_golden("storm/shared_rule_refused", rig.take_log());
    EXPECT_EQ(rig.section("swp1"), kPortWatched);
    rig.type({"debug lda syslog level 0", "test storm swp1 10000"});
    rig.forget();
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
}

// The shared rule is installed first, then the port's. When an object fails, the rule that needs it
// is lost, and with the port's rule the port's setting.
TEST_F(StormRuleFailure, RuleFailsWithItsAcl) {
    rig.type("test forwarding fail acl 2");
    watch();
    rig.advance(1s);
    expect_golden("storm/acl_refused", rig.take_log());
    EXPECT_EQ(rig.section("swp1"), Lines{});
    EXPECT_EQ(storm_port_num, 0U);
}

TEST_F(StormRuleFailure, RuleFailsWithItsEntry) {
    rig.type("test forwarding fail entry 2");
    watch();
    rig.advance(1s);
    EXPECT_EQ(rig.section("swp1"), Lines{});
    EXPECT_EQ(storm_port_num, 0U);
}

TEST_F(StormRuleFailure, LateFailureIsHandledWhenItArrives) {
    rig.type({"test forwarding delay 10", "test forwarding fail apply 2"});
    watch();
    rig.type({"debug lda syslog level 0", "test storm swp1 10000"});
    rig.advance(10s);
    EXPECT_EQ(rig.section("swp1"), kPortWatched);
    EXPECT_EQ(records(rig), Lines{"1 swp1 1 5000 1024 0 0 0 0 0 2 normal"});
    rig.advance(1s);
    EXPECT_EQ(rig.section("swp1"), Lines{});
    EXPECT_EQ(records(rig), Lines{});
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(), Lines{});
}

TEST_F(StormRuleFailure, LostRuleEndsTheLoop) {
    watch();
    rig.type({"debug lda syslog level 0", "test storm swp1 10000"});
    rig.advance(16s);
    EXPECT_EQ(rig.take_log(), kFound);
    rig.type("test forwarding lose swp1");
    EXPECT_EQ(rig.section("swp1"), Lines{});
    EXPECT_EQ(records(rig), Lines{});
    rig.advance(59s);
    EXPECT_EQ(rig.take_log(), Lines{});
    rig.advance(1s);
    EXPECT_EQ(rig.take_log(), kRecovered);
    // Typing it again watches the port again.
    rig.type({"configure terminal", "interface swp1", "storm-loop-detect enable"});
    rig.advance(17s);
    EXPECT_EQ(rig.take_log(), kFound);
}

}  // namespace
}  // namespace qv::test
