// All messages and actions of the agent during the life of one loop, compared whole with the files
// of tests/golden/transcript.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "app_debug.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"
#include "tests/support/golden/golden.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

SwitchRig::Options two_ports() {
    SwitchRig::Options options;
    options.ports = 2;
    return options;
}

// The platform decides when it generates the running configuration. The agent's lines about that
// are the subject of one test and are left out of the others.
Lines without_generation(Lines lines) {
    std::erase_if(lines, [](const std::string& line) {
        constexpr std::string_view kGenerating[] = {
            "LDA-6-INFO: <cfg_lda_cli_warning_command> enter",
            "LDA-6-INFO: <lda_policy_set> enter type=1, pcdb=16",
            "LDA-6-INFO: <lda_policy_set> su=",
            "LDA-6-INFO: <cfg_lda_cli_apply_shutdown_command",
        };
        return std::any_of(std::begin(kGenerating), std::end(kGenerating),
                           [&](std::string_view start) { return line.starts_with(start); });
    });
    return lines;
}

// The part that a golden file shows under `heading`; nothing for no lines.
Lines part(const std::string& heading, const Lines& lines) {
    if (lines.empty()) {
        return {};
    }
    Lines result = {heading + ":"};
    std::transform(lines.begin(), lines.end(), std::back_inserter(result), quoted);
    return result;
}

// The log lines given, and everything else that the agent has caused since the last call.
Lines transcript(SwitchRig& rig, const Lines& log) {
    return together({
        part("log", log),
        part("delivery log", rig.take_delivery_log()),
        part("executed", rig.take_executed()),
        part("announced", rig.take_announcements()),
        part("notified", rig.take_notifications()),
    });
}

Lines transcript(SwitchRig& rig) {
    return transcript(rig, without_generation(rig.take_log()));
}

TEST(Transcript, StartWithTwoPorts) {
    SwitchRig::Options options = two_ports();
    options.prepare = [] {
        g_dbg_slog_level = 2;
    };
    SwitchRig rig(options);
    const Lines log = rig.take_log();
    expect_golden("transcript/start", transcript(rig, log));
}

TEST(Transcript, PolicyCommandEnablesBothDetectionsOnEveryPort) {
    SwitchRig rig(two_ports());
    rig.type("no storm-loop-detect enable");  // a mode too early: refused, changes nothing
    rig.trace();
    EXPECT_EQ(rig.type({"configure terminal", "loop-detect enable shutdown access-mode"}), "");
    Lines log = without_generation(rig.take_log());
    ASSERT_GE(log.size(), 8U);
    log.resize(8);  // after these the switch runs the lines of the delivery thread
    expect_golden("transcript/policy_command", transcript(rig, log));
    EXPECT_EQ(rig.stored_policy(), 2);
}

TEST(Transcript, NewLoopUnderShutdownAccess) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.trace();
    rig.report(1, 1, 1);
    expect_golden("transcript/fresh_loop", transcript(rig));
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
}

TEST(Transcript, RepeatedReportShutsAgainWithoutNotification) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(1s);
    rig.trace();
    rig.report(1, 1, 1);
    expect_golden("transcript/repeated_loop", transcript(rig));
}

TEST(Transcript, RecoveryTickRecoversThePort) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(298s);  // one second before the thirtieth tick
    rig.trace();
    rig.advance(2s);
    expect_golden("transcript/recovery", transcript(rig));
    // The loop is still there: the port stays in the table.
    rig.advance(600s);
    EXPECT_EQ(rig.take_notifications(), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
}

TEST(Transcript, RefusedRecoveryKeepsTheMarkAndIsRetriedAtTheNextRecovery) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(298s);
    rig.trace();
    rig.type({"test refuse not now", "test refuse % Port is on fire"});
    rig.advance(2s);
    expect_golden("transcript/refused_recovery", transcript(rig));
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));

    rig.advance(298s);
    EXPECT_EQ(rig.take_executed(), Lines{});
    rig.advance(2s);
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 1: errdisable recovery \r\n", "interface 1: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
}

TEST(Transcript, QuietPortIsClearedAMinuteAfterItsRecovery) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.trace();
    rig.report(1, 0, 1);
    EXPECT_EQ(without_generation(rig.take_log()),
              traced({
                  "<lda_tarn_mom_subscribe_callback> recv mom msg, cmd[1]",
                  "<lda_tarn_mom_subscribe_callback> recv tarn msg, ifx[1] vid[1] "
                  "is_loop[0] src_ifx[1]",
              }));
    rig.advance(300s);
    rig.forget();
    rig.advance(58s);
    EXPECT_EQ(without_generation(rig.take_log()), Lines{});
    EXPECT_EQ(rig.entry("swp1"), "policy=1 src_port=1");
    rig.advance(2s);
    expect_golden("transcript/clear", transcript(rig));
    EXPECT_EQ(rig.entry("swp1"), "none");
}

TEST(Transcript, GenerationVisitsEveryLineAndLogsTheMarksOfThePorts) {
    SwitchRig rig(two_ports());
    rig.set_policy("shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(60s);
    rig.trace();
    rig.running_config();
    const Lines log = rig.take_log();
    expect_golden("transcript/generation", transcript(rig, log));
}

TEST(Transcript, NotificationsOfALoopAreShownWithTheirLeaves) {
    SwitchRig rig(two_ports());
    EXPECT_EQ(rig.type("show notifications"), "No notification has been sent.\n");
    rig.set_policy("shutdown access-mode");
    rig.report(2, 1, 2);
    std::istringstream text(rig.type("show notifications"));
    std::string shown;
    for (std::string line; std::getline(text, line);) {
        const bool time = line.size() == std::string_view("2026-01-31 23:59:59.123").size() &&
                          line[4] == '-' && line[19] == '.';
        shown += (time ? "TIME" : line) + "\n";
    }
    EXPECT_EQ(shown,
              "TIME\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/notify-type = 2\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/vid = 0\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/policy = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/src-port = 1\n"
              "TIME\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/notify-type = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/vid = 0\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/policy = 1\n"
              "    /qv-loop-detect-server-notification:loop-detect-state/loop-notify/"
              "notify-entry[name='swp2']/src-port = 1\n");
}

}  // namespace
}  // namespace qv::test
