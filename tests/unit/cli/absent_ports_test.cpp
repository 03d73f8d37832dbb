// State kept for a port that leaves: lines, owner of a shutdown, VLAN mode, requests to bring it
// up.
#include <string>

#include "platform/cli/config_keeper.h"
#include "platform/cli/port_sections.h"
#include "platform/cli/running_config.h"
#include "qv/bridge.h"
#include "tests/unit/cli/held_ports.h"

namespace {

using namespace std::chrono_literals;
using qv::cli::ConfigSection;
using qv::cli::PortSections;
using qv::cli::ShutBy;
using qv::test::g_held;

ConfigSection section(const std::string& port, const std::vector<std::string>& lines) {
    ConfigSection made;
    made.port = port;
    for (const std::string& line : lines) {
        made.lines.push_back({0, line});
    }
    return made;
}

TEST(AbsentPorts, NoShutdownUndoesOnlyTheAdminLinesOfItsPort) {
    PortSections sections;
    sections.keep(section("swp2", {"switchport mode trunk", "shutdown", "shutdown-timer 5",
                                   "loop-detect apply shutdown-port"}),
                  102);
    sections.keep(section("swp3", {"shutdown"}), 103);
    ConfigSection led_to;
    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_TRUE(sections.accept_no_shutdown(102, "no shutdown", led_to));
        EXPECT_EQ(qv::cli::section_text(led_to),
                  "interface swp2\n switchport mode trunk\n no shutdown\n shutdown-timer 5\n!\n");
    }
    EXPECT_TRUE(sections.accept_no_shutdown(103, "no shutdown", led_to));
    EXPECT_EQ(qv::cli::section_text(led_to), "interface swp3\n no shutdown\n!\n");
    EXPECT_EQ(sections.kept_text(),
              "interface swp2\n switchport mode trunk\n no shutdown\n shutdown-timer 5\n!\n"
              "interface swp3\n no shutdown\n!\n");
}

TEST(AbsentPorts, OtherLinesAndPortsOfAFileHaveNoWishes) {
    PortSections sections;
    sections.keep(section("swp2", {"shutdown"}), 102);
    sections.keep(section("swp3", {"shutdown"}));
    ConfigSection untouched;
    EXPECT_FALSE(sections.accept_no_shutdown(102, "shutdown", untouched));
    EXPECT_FALSE(sections.accept_no_shutdown(0, "no shutdown", untouched));
    EXPECT_FALSE(sections.accept_no_shutdown(104, "no shutdown", untouched));
    EXPECT_EQ(untouched.port, "");
    EXPECT_EQ(sections.kept_text(), "interface swp2\n shutdown\n!\ninterface swp3\n shutdown\n!\n");
}

TEST(AbsentPorts, NoShutdownForAPortThatLeftUnderTwoNamesFindsTheLastOne) {
    PortSections sections;
    sections.keep(section("swp2", {"shutdown"}), 102);
    sections.keep(section("uplink", {"shutdown"}), 102);
    ConfigSection led_to;
    EXPECT_TRUE(sections.accept_no_shutdown(102, "no shutdown", led_to));
    EXPECT_EQ(sections.kept_text(),
              "interface swp2\n shutdown\n!\ninterface uplink\n no shutdown\n!\n");
}

TEST(AbsentPorts, LongestAbsentPortIsDroppedWhateverItsName) {
    PortSections sections;
    constexpr size_t kLimit = 4096;
    sections.keep(section("b", {"shutdown"}));
    sections.keep(section("c", {"shutdown"}));
    sections.keep(section("b", {"no shutdown"}));  // absent again
    for (size_t port = 2; port < kLimit; ++port) {
        sections.keep(section("a" + std::to_string(port), {"shutdown"}));
    }
    EXPECT_TRUE(sections.kept("c")) << "as many as are kept";
    sections.keep(section("d", {"shutdown"}));
    EXPECT_FALSE(sections.kept("c"));
    EXPECT_TRUE(sections.kept("b"));
    EXPECT_TRUE(sections.kept("a2"));
    EXPECT_TRUE(sections.kept("d"));
}

class LeavingPort : public qv::test::HeldPorts {
 protected:
    const qv::Port& swp2() const { return *rig.model.find(102U); }
    void in_mode(uint32_t mode) {
        change(102, [mode](qv::Port& port) { port.mode = mode; });
    }
    PortSections sections;
};

TEST_F(LeavingPort, ThatIsUpHasNoShutdownWhoeverShutItBefore) {
    sections.set_shut_by(102, ShutBy::kOperator);
    EXPECT_EQ(qv::cli::section_text(sections.saved(swp2())), "interface swp2\n!\n");
}

TEST_F(LeavingPort, WithoutLinesIsNotKept) {
    sections.leave(swp2(), SWPORT_MODE_ACCESS);
    EXPECT_FALSE(sections.kept("swp2"));
}

TEST_F(LeavingPort, KeepsTheOwnerOfItsShutdown) {
    change(102, [](qv::Port& port) { port.admin_up = false; });
    sections.set_shut_by(102, ShutBy::kOperator);
    sections.leave(swp2(), SWPORT_MODE_ACCESS);
    EXPECT_EQ(sections.kept_text(), "interface swp2\n shutdown\n!\n");
    EXPECT_EQ(sections.shut_by(102), ShutBy::kNobody) << "the index may be another port's next";
}

TEST_F(LeavingPort, HasTheModeOfBeforeOnlyWhereItHasNoneNow) {
    in_mode(SWPORT_MODE_TRUNK);
    sections.leave(swp2(), SWPORT_MODE_HYBRID);
    EXPECT_EQ(sections.kept_text(), "interface swp2\n switchport mode trunk\n!\n");
}

TEST_F(LeavingPort, DoesNotSayThatItWasInTheDefaultMode) {
    operator_types(102, "tarn port loop-detect warning");
    in_mode(SWPORT_MODE_NONE);
    sections.leave(swp2(), SWPORT_MODE_ACCESS);
    EXPECT_EQ(sections.kept_text(), "interface swp2\n tarn port loop-detect warning\n!\n");
}

TEST_F(LeavingPort, KeepsItsModeThroughOtherChangesOutsideTheBridge) {
    start();
    operator_types(102, "switchport mode hybrid");
    rig.model.port_left_bridge(102);
    change(102, [](qv::Port& port) { port.oper_up = !port.oper_up; });
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " switchport mode hybrid\n");
}

TEST_F(LeavingPort, LosesTheModeOfBeforeOnceItHadAnother) {
    start();
    operator_types(102, "switchport mode hybrid");
    operator_types(102, "tarn port loop-detect warning");
    rig.model.port_left_bridge(102);
    in_mode(SWPORT_MODE_ACCESS);
    in_mode(SWPORT_MODE_NONE);
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
}

TEST_F(LeavingPort, LeavesItsModeToNoOtherPortOfItsIndex) {
    start();
    operator_types(102, "switchport mode hybrid");
    rig.model.port_left_bridge(102);
    rig.hardware.remove(102);
    rig.hardware.add("swp9", 102);
    in_mode(SWPORT_MODE_NONE);
    operator_types(102, "tarn port loop-detect warning");
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " switchport mode hybrid\n");
    EXPECT_EQ(saved("swp9"), " tarn port loop-detect warning\n");
}

TEST_F(LeavingPort, BeforeTheReplayLeavesNothing) {
    rig.hardware.set_mode(102, SWPORT_MODE_TRUNK);
    rig.hardware.remove(102);
    start();
    EXPECT_EQ(saved("swp2"), "none");
}

TEST_F(LeavingPort, HasItsWishSavedLongAfterItLeft) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    rig.hardware.remove(102);
    g_held.clear();
    rig.platform.run_for(10s);
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    EXPECT_EQ(program(102, "no shutdown"), 0);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
}

TEST_F(LeavingPort, HasAWishThatIsTypedWithMoreBlanks) {
    start();
    operator_types(102, "shutdown");
    rig.hardware.remove(102);
    EXPECT_EQ(program(102, "no  \t shutdown"), 0);
    EXPECT_EQ(last_record(), "swp2: no shutdown,");
}

TEST_F(LeavingPort, ComesUpLaterForAnOperatorInItsMode) {
    start();
    operator_types(102, "shutdown");
    rig.session.mode = "interface";
    rig.session.ifx = 102;
    rig.hardware.remove(102);
    EXPECT_EQ(rig.type("no shutdown"),
              "The interface does not exist; it will be brought up when it returns.\n");
    rig.hardware.add("swp2", 102);
    rig.hardware.set_admin(102, false);
    rig.platform.run_for(1s);
    EXPECT_TRUE(up(102));
}

// ---- Changes that no line makes ----

class Unasked : public qv::test::HeldPorts {
 protected:
    Unasked() {
        start();
        rig.platform.run_for(10s);
    }
    qv::cli::ConfigKeeper& keeper = *qv::cli::config_keeper();
};

TEST_F(Unasked, SectionsKeptAndForgottenAreSaved) {
    keeper.keep_section(section("swp9", {"shutdown"}));
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp9"), " shutdown\n");
    EXPECT_TRUE(keeper.forget_port("swp9"));
    EXPECT_FALSE(keeper.forget_port("swp9"));
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp9"), "none");
}

TEST_F(Unasked, NewPortIsSaved) {
    rig.hardware.add("swp9", 109);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp9"), "");
}

TEST_F(Unasked, NewNameOfAPortWithoutLinesIsSaved) {
    rig.hardware.rename(102, "uplink");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("uplink"), "");
    EXPECT_EQ(saved("swp2"), "none");
}

TEST_F(Unasked, ModeAndAdminStateSetFromOutsideAreSaved) {
    rig.hardware.set_mode(102, SWPORT_MODE_TRUNK);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " switchport mode trunk\n");
    operator_types(103, "shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp3"), " shutdown\n");
    rig.hardware.set_admin(103, true);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp3"), "");
}

TEST_F(Unasked, NewOwnerOfAShutdownIsSaved) {
    EXPECT_EQ(keeper.set_admin(102, false, true), "");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
    EXPECT_EQ(keeper.set_admin(102, false, false), "");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

// ---- Renames ----

// Clients learn a new name through the loop, and take the port for a new one from then on.
TEST_F(Unasked, RenamedPortIsHeldOnceTheProgramKnowsItsNewName) {
    g_held.insert(102);
    program(102, "shutdown");
    rig.hardware.rename(102, "uplink");
    rig.platform.loop().post([] { g_held.clear(); });
    rig.platform.run_for(1s);
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(saved("uplink"), " shutdown\n loop-detect apply shutdown-port\n");
}

TEST_F(Unasked, LinesOfARenamedPortFollowThoseKeptForItsName) {
    rig.hardware.set_mode(102, SWPORT_MODE_HYBRID);
    operator_types(102, "tarn port loop-detect warning");
    rig.hardware.remove(102);
    rig.hardware.set_mode(103, SWPORT_MODE_TRUNK);
    rig.hardware.rename(103, "swp2");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " switchport mode trunk\n tarn port loop-detect warning\n");
}

}  // namespace
