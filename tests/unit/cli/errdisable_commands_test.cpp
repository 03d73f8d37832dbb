// "show errdisable", "show errdisable recovery", "clear errdisable", and the reasons in "show
// interfaces status".
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/cli/errdisable_fixture.h"
#include "tests/unit/cli/operator_session.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

constexpr char kHeading[] =
    "Port             Cause Source     Other port       VLAN  Since               Recovery/s "
    "Last day Probe\n";
constexpr char kRecoveryHeading[] =
    "Recovery time: 300 s\n\n"
    "Port             Recovery/s At the latest       Rule             Refused\n";

// Real time is virtual time, and neither passes.
class StandingClock final : public Clock {
 public:
    explicit StandingClock(Clock& real) : real_(real) {}
    Time now() const override { return real_.now(); }
    Duration real_time_until(Time t) const override { return t - real_.now(); }

 private:
    Clock& real_;
};

// ---- show errdisable ----

TEST_F(Errdisable, HeldPortIsShownWithItsLoop) {
    EXPECT_EQ(rig.type("show errdisable"), kHeading);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 10}, true);
    held.loop_found("swp1");
    hold(101);
    EXPECT_EQ(rig.type("show errdisable"),
              std::string(kHeading) +
                  "swp1             loop  tarn       swp2             10    2026-01-31 23:00:00 "
                  "300        1        still looped\n");
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 10}, false);
    pass(40s);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop tarn swp2 10 2026-01-31 23:00:00 260 1 -");
    bring_back(101);
    EXPECT_EQ(rig.type("show errdisable"), kHeading);
}

TEST_F(Errdisable, AnswerIsAVersionedObject) {
    held.probe_reports({.ifx = 102, .src_ifx = 101, .vid = 10}, true);
    held.loop_found("swp1");
    hold(101);
    g_held.insert(103);
    change(103, [](Port& port) { port.admin_up = false; });
    EXPECT_EQ(rig.type("show errdisable | json"),
              R"({"version":1,"ports":[{"port":"swp1","cause":"loop","sources":["tarn"],)"
              R"("other_port":"swp2","vlan":10,"since":"2026-01-31 23:00:00","recovers_in_s":300,)"
              R"("shut_last_day":1,"probe":"still looped"},)"
              R"({"port":"swp3","cause":"loop","sources":[],"other_port":null,"vlan":null,)"
              R"("since":null,"recovers_in_s":null,"shut_last_day":0,"probe":null}]})"
              "\n");
    EXPECT_EQ(
        rig.type("show errdisable recovery | json"),
        R"({"version":1,"recovery_time_s":300,"ports":[{"port":"swp1","recovers_in_s":300,)"
        R"("recovers_at":null,"rule":null,"refused":null},{"port":"swp3","recovers_in_s":null,)"
        R"("recovers_at":null,"rule":null,"refused":null}]})"
        "\n");
}

TEST_F(Errdisable, OnlyMarkedPortsThatAreDownAreHeld) {
    operator_types(101, "shutdown");
    program(102, "shutdown");
    g_held.insert(103);
    EXPECT_EQ(rig.type("show errdisable"), kHeading);
    hold(104);
    EXPECT_NE(row("show errdisable", "swp4"), "");
    operator_types(104, "no shutdown");
    EXPECT_EQ(rig.type("show errdisable"), kHeading) << "opened, though the mark is still there";
}

TEST_F(Errdisable, LoopThatNoProbeProvesIsAStorm) {
    held.loop_found("swp1");
    hold(101);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:00:00 300 1 -");
    pass(1s);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop storm - - 2026-01-31 23:00:00 299 1 -");
    held.probe_reports({.ifx = 101, .src_ifx = 101, .vid = 4095}, true);
    EXPECT_EQ(row("show errdisable", "swp1"),
              "swp1 loop tarn+storm swp1 - 2026-01-31 23:00:00 299 1 still looped");
}

TEST_F(Errdisable, ProbeThatIsRecordedALittleLaterIsTheSource) {
    held.loop_found("swp2");
    hold(102);
    pass(0s);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 1}, true);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 1}, false);
    pass(2s);
    EXPECT_EQ(row("show errdisable", "swp2"), "swp2 loop tarn swp1 1 2026-01-31 23:00:00 298 1 -");
}

// ---- The time to the recovery ----

TEST_F(Errdisable, RecoveryTimeIsTheConfiguredOneRoundedUpToATick) {
    hold(101);
    const std::vector<std::pair<std::string, std::string>> cases{
        {"loop-detect shutdown-recover-time 90", "90"},
        {"loop-detect shutdown-recover-time 91", "100"},
        {"loop-detect shutdown-recover-time 100", "100"},
        {"loop-detect enable", "300"}};
    for (const auto& [setting, seconds] : cases) {
        g_setting = setting;
        EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 " + seconds + " - - -");
    }
    pass(299s);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 1 - - -");
    pass(30s);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 0 2026-01-31 23:05:29 - -");
}

TEST_F(Errdisable, LatestTimeOfTheRecoveryIsWallTime) {
    StandingClock clock(rig.platform.manual_clock);
    rig.platform.clock_in_use = &clock;
    hold(101);
    EXPECT_EQ(rig.type("show errdisable recovery"),
              std::string(kRecoveryHeading) +
                  "swp1             300        2026-01-31 23:05:00 -                -\n");
    rig.platform.clock_in_use = &rig.platform.manual_clock;
}

TEST_F(Errdisable, LineThatIsRepeatedChangesNeitherTimeNorNumber) {
    hold(101);
    pass(100s);
    hold(101);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:00:00 200 1 -");
}

TEST_F(Errdisable, RefusedRecoveryCountsAgainFromTheRefusal) {
    hold(101);
    pass(300s);
    rig.hardware.refusal = "Device or resource busy";
    bring_back(101);
    pass(50s);
    EXPECT_EQ(rig.type("show errdisable recovery"),
              std::string(kRecoveryHeading) +
                  "swp1             250        -                   -                Device or "
                  "resource busy\n");
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:00:00 250 1 -");
    rig.hardware.refusal = "";
    bring_back(101);
    hold(101);
    EXPECT_EQ(row("show errdisable recovery", "swp1"), "swp1 300 - - -");
}

TEST_F(Errdisable, AgentCountsOnWhileAnOperatorOpensItsPort) {
    hold(101);
    pass(100s);
    operator_types(101, "no shutdown");
    pass(100s);
    hold(101);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:03:20 100 2 -");
}

TEST_F(Errdisable, PortThatReturnsUnderItsNameIsCountedAnew) {
    hold(101);
    pass(100s);
    rig.hardware.remove(101);
    rig.hardware.add("swp1", 201);
    hold(201);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:01:40 300 2 -");
}

TEST_F(Errdisable, RenamedPortIsStillShutSinceThen) {
    hold(101);
    pass(100s);
    rig.hardware.rename(101, "lan1");
    EXPECT_EQ(row("show errdisable", "lan1"), "lan1 loop - - - 2026-01-31 23:00:00 - 0 -");
    EXPECT_EQ(held.find("swp1"), nullptr);
    rig.platform.run_ready();
    EXPECT_EQ(row("show errdisable", "lan1"), "lan1 loop - - - 2026-01-31 23:00:00 300 0 -")
        << "its lines were executed again";
}

TEST_F(Errdisable, OnlyTheLastDayCounts) {
    hold(101);
    bring_back(101);
    *g_wall_time += 24h - 1s;
    hold(101);
    hold(102);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-02-01 22:59:59 300 2 -");
    *g_wall_time += 1s;
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-02-01 22:59:59 300 1 -");
}

// ---- clear errdisable ----

TEST_F(Errdisable, ClearRemovesTheMarkWithTheRightsOfTheOperator) {
    OperatorSession ann("ann", 1234, 812);
    hold(101);
    hold(102);
    EXPECT_EQ(ann.type("clear errdisable interface swp1"), "");
    EXPECT_EQ(ann.code, 0);
    EXPECT_EQ(g_held, (std::set<uint64_t>{102}));
    EXPECT_EQ(ann.state.mode, "exec");
    EXPECT_EQ(logged(rig.platform.log, "CLI-6-CONFIG"),
              Lines{"CLI-6-CONFIG: \"interface swp1; no loop-detect apply shutdown-port\" by ann "
                    "(uid 1234, pid 812)"});
}

TEST_F(Errdisable, ClearRemovesTheMarkOfAPortThatIsOpen) {
    hold(101);
    operator_types(101, "no shutdown");
    EXPECT_EQ(rig.type("clear errdisable interface swp1"), "");
    EXPECT_EQ(g_held, std::set<uint64_t>{});
}

TEST_F(Errdisable, ClearIsRefusedForOtherPorts) {
    operator_types(101, "shutdown");
    EXPECT_EQ(rig.type("clear errdisable interface swp1"),
              "% Interface swp1 is not held shut by loop-detect.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_FALSE(up(101));
    EXPECT_EQ(rig.type("clear errdisable interface swp9"), "% Unknown interface: 'swp9'.\n");
    EXPECT_EQ(rig.code, 1);
}

TEST_F(Errdisable, RefusalOfTheLineIsReported) {
    hold(101);
    g_keeps = true;
    EXPECT_EQ(rig.type("clear errdisable interface swp1"),
              "% Interface swp1: the agent keeps it shut; see 'show logging'.\n");
    EXPECT_EQ(rig.code, 1);
    g_setting = "loop-detect shutdown-recover-time 90";
    EXPECT_EQ(rig.type("clear errdisable interface swp1"),
              "% Interface swp1: not possible while loop-detect is disabled.\n");
    OperatorSession ann("ann", 1234, 812);
    OperatorSession bob("bob", 1235, 900);
    EXPECT_EQ(bob.type("configure exclusive"), "");
    EXPECT_EQ(ann.type("clear errdisable interface swp1"),
              "% Interface swp1: The configuration is locked by bob (uid 1235, pid 900) since "
              "2026-01-31 23:00:00.\n");
    g_keeps = false;
    EXPECT_EQ(bob.type("do clear errdisable interface swp1"), "") << "has the lock";
    EXPECT_EQ(bob.state.mode, "config");
}

TEST_F(Errdisable, ClearAllRemovesEveryMark) {
    EXPECT_EQ(rig.type("clear errdisable all"), "");
    EXPECT_EQ(rig.code, 0);
    for (const uint32_t ifx : {101U, 103U, 104U}) {
        hold(ifx);
    }
    operator_types(104, "no shutdown");
    EXPECT_EQ(rig.type("clear errdisable all"), "");
    EXPECT_EQ(g_held, std::set<uint64_t>{});
    hold(101);
    hold(103);
    g_keeps = true;
    EXPECT_EQ(rig.type("clear errdisable all"),
              "% Interface swp1: the agent keeps it shut; see 'show logging'.\n"
              "% Interface swp3: the agent keeps it shut; see 'show logging'.\n");
    EXPECT_EQ(rig.code, 1);
}

TEST_F(Errdisable, ViewSessionsShowAndDoNotClear) {
    hold(101);
    rig.session.privileged = false;
    EXPECT_NE(row("show errdisable", "swp1"), "");
    EXPECT_EQ(rig.type("clear errdisable all"), "% Unknown command: 'clear'.\n");
    EXPECT_EQ(g_held, std::set<uint64_t>{101});
}

// ---- show interfaces status ----

TEST_F(Errdisable, ReasonOfEachShutdownIsInTheStates) {
    hold(101);
    operator_types(102, "shutdown");
    change(103, [](Port& port) { port.admin_up = false; });
    g_held.insert(104);
    EXPECT_EQ(rig.type("show interfaces status"),
              "Port             Index    Admin  Link  Mode    Aggregate        Reason\n"
              "swp1             101      down   up    access  -                loop-detect\n"
              "swp2             102      down   up    access  -                admin\n"
              "swp3             103      down   up    access  -\n"
              "swp4             104      up     up    access  -\n");
    operator_types(101, "shutdown");
    EXPECT_EQ(row("show interfaces status", "swp1"), "swp1 101 down up access - loop-detect");
}

}  // namespace
}  // namespace qv::test
