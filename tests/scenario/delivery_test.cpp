// Command lines that are refused, fail or cannot be executed at all, and a flood of them.
#include <gtest/gtest.h>

#include "lda_msg.h"
#include "platform/driver/embedded/scripted_faults.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

const Lines kFeatureLines{"tarn port loop-detect warning", "storm-loop-detect enable"};
const Lines kHeldLines{"shutdown", "tarn port loop-detect warning",
                       "loop-detect apply shutdown-port", "storm-loop-detect enable"};
const Lines kShut{"interface 3: shutdown \r\n"};
const Lines kRecovery{"interface 3: errdisable recovery \r\n", "interface 3: no shutdown  \r\n"};

TEST(CommandDelivery, RefusedShutdownKeepsTheMarkAndIsRetriedWithTheNextReport) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type("test refuse % Not on this port");
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), kShut);
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    EXPECT_EQ(rig.entry("swp3"), "policy=1 src_port=1");
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), kShut);
    EXPECT_EQ(rig.section("swp3"), kHeldLines);
}

TEST(CommandDelivery, RecoveryContinuesWhenItsFirstLineFails) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    cli::refuse_next_line("errdisable recovery", "", -1);
    rig.advance(300s);
    EXPECT_EQ(rig.take_executed(), kRecovery);
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
}

TEST(CommandDelivery, RecoveryThatFailsSilentlyIsNotRetried) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.forget();
    rig.type("debug lda syslog level 1");
    cli::refuse_next_line("no shutdown", "", -1);
    rig.advance(300s);
    EXPECT_EQ(rig.take_executed(), kRecovery);
    EXPECT_EQ(rig.take_delivery_log(),
              Lines{"LDA-6-ERROR: <lda_loop_cmd_execute> cli_execute_cmd_buf fail:cmd=no shutdown  "
                    "\r\n, ret=-1"});
    rig.advance(600s);
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"shutdown", "tarn port loop-detect warning", "storm-loop-detect enable"}));
}

TEST(CommandDelivery, RefusedRecoveryIsRetriedUntilItSucceeds) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    rig.report(3, 0, 3);
    rig.forget();
    for (int attempt = 0; attempt < 3; ++attempt) {
        cli::refuse_next_line("no shutdown", "% Still in error", 0);
        rig.advance(300s);
        EXPECT_EQ(rig.take_executed(), kRecovery);
        EXPECT_EQ(rig.section("swp3"), kHeldLines);
    }
    rig.advance(300s);
    EXPECT_EQ(rig.take_executed(), kRecovery);
    EXPECT_EQ(rig.section("swp3"), kFeatureLines);
}

TEST(CommandDelivery, SessionThatCannotBeOpenedDropsTheShutdown) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.type({"debug lda syslog level 1", "test fail-sessions 1"});
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.take_delivery_log(),
              Lines{"LDA-6-ERROR: <cli_exec_shutdown> LDA cli_sub_create_session fail, fd=-1"});
    // The port keeps its mark, and the next repeated report shuts it.
    EXPECT_EQ(rig.section("swp3"),
              (Lines{"tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.take_executed(), kShut);
}

TEST(CommandDelivery, SessionThatCannotBeOpenedDropsTheFeatures) {
    SwitchRig::Options options;
    options.ports = 1;
    SwitchRig rig(options);
    rig.type({"debug lda syslog level 1", "test fail-sessions 1", "configure terminal",
              "loop-detect enable"});
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.take_delivery_log(),
              Lines{"LDA-6-ERROR: <lda_loop_cmd_enable> LDA cli_sub_create_session fail, fd=-1"});
    EXPECT_EQ(rig.running_config(), "loop-detect enable\ninterface swp1\n!\n");
}

TEST(CommandDelivery, FailedFeatureLineDoesNotStopTheOthers) {
    SwitchRig::Options options;
    options.ports = 2;
    SwitchRig rig(options);
    cli::refuse_next_line("tarn port", "", -1);
    rig.type({"configure terminal", "loop-detect enable"});
    EXPECT_EQ(rig.take_executed().size(), 6U);
    EXPECT_EQ(rig.section("swp1"), Lines{"storm-loop-detect enable"});
    EXPECT_EQ(rig.section("swp2"), kFeatureLines);
}

TEST(CommandDelivery, TenThousandReportsMakeOneMarkAndTenThousandShutdowns) {
    constexpr size_t kReports = 10'000;
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.on_main([&] {
        const uint8_t record[] = {0x2a, 0x02, 0x08, 0x03, 0x30, 0x01, 0x38, 0x01, 0x40, 0x03};
        for (size_t i = 0; i < kReports; ++i) {
            rig.store().put(4, "p_bridge.tarn_loop_info/ifx=3", record);
        }
    });
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."});
    EXPECT_EQ(rig.take_notifications(),
              (Lines{notified("swp3", "2", "1", "1"), notified("swp3", "1", "1", "1")}));
    EXPECT_EQ(rig.take_executed(), Lines(kReports, "interface 3: shutdown \r\n"));
    // Two pairs for the change of the mark, one for each repeated report.
    EXPECT_EQ(rig.take_announcements().size(), 2 * (kReports + 1));
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(rig.section("swp3"), kHeldLines);

    rig.report(3, 0, 3);
    rig.advance(300s);
    EXPECT_EQ(rig.take_executed(), kRecovery);
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error."});
}

TEST(CommandDelivery, LastOfManyChangesDecidesThePortsState) {
    SwitchRig rig;
    rig.set_policy("");
    rig.on_main([&] {
        const uint8_t loop[] = {0x2a, 0x02, 0x08, 0x03, 0x30, 0x01, 0x38, 0x01, 0x40, 0x03};
        const uint8_t quiet[] = {0x2a, 0x02, 0x08, 0x03, 0x30, 0x01, 0x40, 0x03};
        for (int i = 0; i < 5'000; ++i) {
            rig.store().put(4, "p_bridge.tarn_loop_info/ifx=3", loop);
            rig.store().put(4, "p_bridge.tarn_loop_info/ifx=3", quiet);
        }
    });
    EXPECT_EQ(rig.take_log(), Lines{"LOOP_DETECT-3-ERROR: Detected loop error on interface swp3."});
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.advance(60s);
    EXPECT_EQ(rig.take_log(),
              Lines{"LOOP_DETECT-3-RECOVER: Interface swp3 recovered from loop error."});
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
}

}  // namespace
}  // namespace qv::test
