// Tests who shut which port: the journal and the saved configuration at every moment, and their use
// at a start. A program plays the agent: it holds ports shut and says so in the running
// configuration.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/journal.h"
#include "platform/cli/port_sections.h"
#include "qv/bridge.h"
#include "qv/cli.h"
#include "tests/unit/cli/held_ports.h"

namespace {

using namespace std::chrono_literals;
using qv::test::write_text;
using Lines = std::vector<std::string>;

using qv::test::g_held;
using qv::test::g_refuses;

class PortSectionsTest : public qv::test::HeldPorts {};

TEST_F(PortSectionsTest, ShutdownIsInTheJournalBeforeThePortGoesDown) {
    start();
    g_held.insert(102);
    std::string at_change = "not called";
    rig.hardware.before_change = [&] {
        at_change = last_record();
    };
    EXPECT_EQ(program(102, "shutdown"), 0);
    EXPECT_EQ(at_change, "swp2: shutdown, loop-detect apply shutdown-port,");
    EXPECT_FALSE(up(102));
}

TEST_F(PortSectionsTest, RecoveryIsInTheJournalBeforeThePortGoesUp) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    g_held.clear();
    std::string at_change = "not called";
    rig.hardware.before_change = [&] {
        at_change = last_record();
    };
    EXPECT_EQ(program(102, "no shutdown"), 0);
    EXPECT_EQ(at_change, "swp2: no shutdown,");
    EXPECT_TRUE(up(102));
}

TEST_F(PortSectionsTest, HeldPortOpenedByAnOperatorStillBelongsToTheProgram) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    operator_types(102, "no shutdown");
    EXPECT_EQ(last_record(), "swp2: loop-detect apply shutdown-port,");
}

TEST_F(PortSectionsTest, SectionIsPendingUntilItIsInForceItself) {
    start();
    const qv::Port& port = *rig.model.find(101);
    qv::cli::PortSections sections;
    const uint64_t first =
        sections.set_pending({"swp1", 0, {{0, "tarn port loop-detect warning"}}});
    const uint64_t second = sections.set_pending({"swp1", 0, {{0, "shutdown"}}});
    EXPECT_FALSE(sections.is_pending("swp1", first));
    sections.clear_pending("swp1", first);
    EXPECT_TRUE(sections.is_pending("swp1", second));
    EXPECT_EQ(sections.saved(port).lines.at(0).text, "shutdown");
    sections.clear_pending("swp1", second);
    EXPECT_FALSE(sections.is_pending("swp1", second));
    EXPECT_EQ(sections.saved(port).lines.size(), 0U);
}

// The driver learns of the removal from the refused request.
TEST_F(PortSectionsTest, PortRemovedWhileItIsShutAgainKeepsItsShutdown) {
    was_saved("interface swp1\n shutdown\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.hardware.remove(101);
        rig.hardware.refusal = "No such device";
    };
    start();
    rig.hardware.refusal.clear();
    rig.hardware.add("swp1", 201);
    rig.platform.run_for(2s);
    EXPECT_FALSE(up(201));
}

TEST_F(PortSectionsTest, GlobalLinesPrecedeTheSectionThatNeedsThemInTheJournal) {
    start();
    rig.session.mode = "config";
    rig.type("tarn enable");
    g_held.insert(102);
    program(102, "shutdown");
    const auto records = qv::cli::read_journal(rig.saved() + ".journal");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(text_of(records[0]), ": tarn enable,");
    EXPECT_EQ(text_of(records[1]), "swp2: shutdown, loop-detect apply shutdown-port,");
    program(103, "shutdown");
    EXPECT_EQ(qv::cli::read_journal(rig.saved() + ".journal").size(), 3U) << "once is enough";
    rig.platform.run_for(1s);
    program(104, "shutdown");
    const auto next = qv::cli::read_journal(rig.saved() + ".journal");
    ASSERT_EQ(next.size(), 2U) << "the global lines are saved";
    EXPECT_EQ(text_of(next[0]), "swp2: shutdown, loop-detect apply shutdown-port,");
    EXPECT_TRUE(next[0].saved);
    EXPECT_EQ(text_of(next[1]), "swp4: no shutdown,");
}

TEST_F(PortSectionsTest, SaveEmptiesTheJournal) {
    start();
    operator_types(102, "shutdown");
    EXPECT_EQ(last_record(), "swp2: shutdown,");
    rig.platform.run_for(1s);
    EXPECT_EQ(last_record(), "none");
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

TEST_F(PortSectionsTest, JournalKnowsOfAHeldPortAsLongAsItIsHeld) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(last_record(), "swp2: shutdown, loop-detect apply shutdown-port,");
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    g_held.clear();
    program(102, "no shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(last_record(), "none");
}

TEST_F(PortSectionsTest, PortThatWaitsForItsRecoveryIsSavedWithNoShutdown) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    g_held.clear();
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
    program(102, "no shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), "");
}

TEST_F(PortSectionsTest, OperatorsShutdownStillBelongsToTheOperator) {
    start();
    operator_types(102, "shutdown");
    program(102, "shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

TEST_F(PortSectionsTest, OperatorTakesAShutdownOver) {
    start();
    program(102, "shutdown");
    operator_types(102, "shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

TEST_F(PortSectionsTest, ShutdownThatTheSwitchRefusesHasNoOwner) {
    start();
    rig.hardware.refusal = "Operation not permitted";
    program(102, "shutdown");
    rig.hardware.refusal.clear();
    EXPECT_TRUE(up(102));
    qv::Port port = *rig.model.find(102U);
    port.admin_up = false;
    rig.model.port_changed(port);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), "") << "shut from outside afterwards";
}

TEST_F(PortSectionsTest, PortOpenedFromOutsideIsNoLongerTheProgramsShutdown) {
    start();
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    port.admin_up = true;
    rig.model.port_changed(port);
    port.admin_up = false;
    rig.model.port_changed(port);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), "");
}

// The kernel takes a device down before it removes it.
TEST_F(PortSectionsTest, PortThatGoesDownBeforeItsRemovalWasNeverShut) {
    start();
    operator_types(102, "tarn port loop-detect warning");
    qv::Port port = *rig.model.find(102U);
    port.admin_up = false;
    rig.model.port_changed(port);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, ProgramOwnsAShutdownOfAPortThatWasTakenDownFromOutside) {
    start();
    qv::Port port = *rig.model.find(102U);
    port.admin_up = false;
    rig.model.port_changed(port);
    program(102, "shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
}

// ---- After a crash ----

TEST_F(PortSectionsTest, RecordsTakeThePlaceOfTheSavedSections) {
    was_saved(
        "tarn error-recover interval 90\ninterface swp1\n tarn port loop-detect warning\n!\n"
        "interface swp2\n shutdown\n!\n",
        5);
    was_journalled(
        5, {{"", {"tarn enable"}}, {"swp2", {"switchport mode trunk"}}, {"swp3", {"shutdown"}}});
    start();
    EXPECT_EQ(rig.type("show running-config"),
              "tarn enable\ninterface swp1\n tarn port loop-detect warning\n!\n"
              "interface swp2\n switchport mode trunk\n!\ninterface swp3\n shutdown\n!\n"
              "interface swp4\n!\n");
    EXPECT_EQ(rig.platform.log.lines(), Lines{});
}

TEST_F(PortSectionsTest, RecordsThatTheSavedFileIncludesAreOld) {
    was_saved("interface swp2\n shutdown\n!\n", 6);
    was_journalled(4, {{"swp2", {}}, {"swp3", {"shutdown"}}});  // 5 and 6
    start();
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(up(103));
}

// The file of a process that held swp2 shut, saved that and then died.
void held_and_saved(const std::string& path) {
    const qv::cli::ConfigSection held{
        "swp2", 0, {{0, "shutdown"}, {0, "loop-detect apply shutdown-port"}}};
    qv::cli::Journal journal(path);
    ASSERT_EQ(journal.open(0), "");
    ASSERT_EQ(journal.append(held), "");
    journal.forget(1, {held});
}

const std::string kClaimed =
    "CLI-4-CLAIMED: Interface swp2 was held shut, and the saved configuration does not say so: "
    "'loop-detect apply shutdown-port' is applied again.";

TEST_F(PortSectionsTest, HeldPortIsClaimedWhenTheSavedFileIsLost) {
    rig.hardware.set_admin(102, false);
    held_and_saved(rig.saved() + ".journal");
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_FALSE(up(102));
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    EXPECT_EQ(rig.platform.log.lines(), Lines{kClaimed});
}

TEST_F(PortSectionsTest, HeldPortIsClaimedWhenTheSavedFileIsOfAnotherSwitch) {
    rig.hardware.set_admin(102, false);
    was_saved("interface swp2\n switchport mode trunk\n!\n", 1000);
    held_and_saved(rig.saved() + ".journal");
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(saved("swp2"),
              " switchport mode trunk\n shutdown\n loop-detect apply shutdown-port\n");
}

TEST_F(PortSectionsTest, SavedFileHasTheLastWordOnAHeldPort) {
    rig.hardware.set_admin(102, false);
    // Written by hand after the process had ended.
    write_text(rig.saved(), "tarn enable\ninterface swp2\n no shutdown\n!\nend\n");
    held_and_saved(rig.saved() + ".journal");
    start();
    EXPECT_TRUE(g_held.empty());
    EXPECT_TRUE(up(102));
}

TEST_F(PortSectionsTest, OperatorsShutdownInTheSavedFileIsNotClaimed) {
    rig.hardware.set_admin(102, false);
    write_text(rig.saved(), "interface swp2\n shutdown\n!\nend\n");
    held_and_saved(rig.saved() + ".journal");
    start();
    EXPECT_TRUE(g_held.empty());
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

TEST_F(PortSectionsTest, HeldPortThatIsUpMeanwhileIsNotClaimed) {
    held_and_saved(rig.saved() + ".journal");
    start();
    EXPECT_TRUE(up(102));
    EXPECT_TRUE(g_held.empty());
    EXPECT_EQ(rig.platform.log.lines(), Lines{});
}

TEST_F(PortSectionsTest, PortThatWasOnItsWayUpIsBroughtUp) {
    rig.hardware.set_admin(102, false);
    was_saved("interface swp2\n shutdown\n loop-detect apply shutdown-port\n!\n", 1);
    was_journalled(1, {{"swp2", {"no shutdown"}}});
    start();
    EXPECT_TRUE(up(102));
    EXPECT_TRUE(g_held.empty());
    EXPECT_EQ(saved("swp2"), "");
}

TEST_F(PortSectionsTest, HeldPortBelongsToTheProgramAfterTwoCrashes) {
    rig.hardware.set_admin(102, false);  // as the last process left it
    was_saved("interface swp2\n shutdown\n loop-detect apply shutdown-port\n!\n");
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    // The program releases the port. The saved file must then bring it up after another crash.
    g_held.clear();
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
}

TEST_F(PortSectionsTest, UnclaimedHeldPortIsBroughtUp) {
    rig.hardware.set_admin(102, false);
    g_refuses = true;
    was_saved("interface swp2\n shutdown\n loop-detect apply shutdown-port\n!\n");
    start();
    EXPECT_TRUE(up(102));
    EXPECT_EQ(
        rig.platform.log.lines(),
        Lines{"CLI-4-RELEASED: Interface swp2 was held shut and nobody claims it any more: it "
              "is brought up."});
}

TEST_F(PortSectionsTest, OperatorsShutdownIsReplayed) {
    was_saved("interface swp2\n shutdown\n!\n");
    start();
    EXPECT_FALSE(up(102));
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

// A driver reads pending notifications of other ports when it changes one.
TEST_F(PortSectionsTest, PortRemovedDuringItsReplayGetsItsWholeSectionWhenItReturns) {
    rig.hardware.set_admin(102, false);
    was_saved(
        "interface swp2\n shutdown\n tarn port loop-detect warning\n"
        " loop-detect apply shutdown-port\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(102);
    };
    start();
    EXPECT_EQ(rig.model.find(102U), nullptr);
    const std::string whole =
        " shutdown\n tarn port loop-detect warning\n loop-detect apply shutdown-port\n";
    EXPECT_EQ(saved("swp2"), whole);
    rig.hardware.add("swp2", 202);
    rig.platform.run_for(1s);
    EXPECT_TRUE(g_held.contains(202));
    EXPECT_EQ(saved("swp2"), whole);
}

TEST_F(PortSectionsTest, PortThatIsBackBetweenTheModesAndTheRestHasItsModeAgain) {
    was_saved("interface swp2\n switchport mode hybrid\n tarn port loop-detect warning\n!\n");
    cli_client_ready();
    rig.platform.loop().post([&] {  // after the modes, before the rest
        rig.hardware.remove(102);
        rig.hardware.add("swp2", 202);
    });
    rig.platform.run_for(1s);
    EXPECT_EQ(rig.model.find(202U)->mode, SWPORT_MODE_HYBRID);
    EXPECT_EQ(saved("swp2"), " switchport mode hybrid\n tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, PortRemovedAndAddedDuringItsReplayGetsItsWholeSection) {
    rig.hardware.set_admin(102, false);
    was_saved("interface swp2\n shutdown\n loop-detect apply shutdown-port\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        const qv::Port port = *rig.model.find(102U);
        rig.model.port_removed(102);
        rig.model.port_added(port);
    };
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_FALSE(up(102));
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
}

TEST_F(PortSectionsTest, PortRemovedDuringTheReplayOfAnotherKeepsItsSection) {
    was_saved("interface swp2\n tarn port loop-detect warning\n!\ninterface swp3\n shutdown\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(102);
    };
    start();
    EXPECT_EQ(rig.model.find(102U), nullptr);
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, PortRemovedDuringTheReleaseOfAnotherIsReleasedWhenItReturns) {
    rig.hardware.set_admin(102, false);
    rig.hardware.set_admin(103, false);
    g_refuses = true;
    const std::string held = " shutdown\n loop-detect apply shutdown-port\n!\n";
    was_saved("interface swp2\n" + held + "interface swp3\n" + held);
    int changes = 0;
    rig.hardware.before_change = [&] {
        // The first two are the lines of the sections, the third is the release of swp2.
        if (++changes == 3) {
            rig.model.port_removed(103);
        }
    };
    start();
    EXPECT_EQ(changes, 3);
    EXPECT_TRUE(up(102));
    EXPECT_EQ(saved("swp3"), " no shutdown\n");
}

// ---- Ports that leave ----

TEST_F(PortSectionsTest, PortThatLeavesKeepsItsSectionAndGetsItBack) {
    start();
    operator_types(102, "switchport mode hybrid");
    operator_types(102, "tarn port loop-detect warning");
    g_held.insert(102);
    program(102, "shutdown");
    rig.model.port_left_bridge(102);  // removes its VLAN mode
    g_held.clear();                   // the program re-judges it: it is in no VLAN
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"),
              " switchport mode hybrid\n no shutdown\n tarn port loop-detect warning\n");

    rig.hardware.add("swp2", 202);
    rig.platform.run_for(1s);
    EXPECT_EQ(rig.model.find(202U)->mode, SWPORT_MODE_HYBRID);
    EXPECT_EQ(saved("swp2"), " switchport mode hybrid\n tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, HeldPortThatLeavesIsHeldWhenItIsBack) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    rig.hardware.remove(102);
    g_held.clear();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    rig.hardware.add("swp2", 202);
    rig.platform.run_for(1s);
    EXPECT_TRUE(g_held.contains(202));
    EXPECT_FALSE(up(202));
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
}

// A signal may end the process in the same round of the loop.
TEST_F(PortSectionsTest, SectionOfAPortThatIsBackIsSavedBeforeItIsInForce) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    rig.hardware.remove(102);
    g_held.clear();
    rig.platform.run_for(1s);

    port.ifx = 202;
    rig.model.port_added(port);
    qv::cli::config_keeper()->saver().save_last();
    const std::string whole = " shutdown\n loop-detect apply shutdown-port\n";
    EXPECT_EQ(saved("swp2"), whole);
    EXPECT_FALSE(g_held.contains(202)) << "not in force yet";
}

TEST_F(PortSectionsTest, SectionOfAPortThatReturnsBrieflyStays) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    rig.hardware.remove(102);
    g_held.clear();
    port.ifx = 202;
    rig.model.port_added(port);
    rig.model.port_removed(202);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n loop-detect apply shutdown-port\n");
    port.ifx = 203;
    rig.hardware.add("swp2", 203);
    rig.platform.run_for(1s);
    EXPECT_TRUE(g_held.contains(203));
}

// Its clients have dropped their state, which its lines restore.
TEST_F(PortSectionsTest, SectionOfARenamedPortIsSavedBeforeItIsInForce) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    port.name = "uplink";
    rig.model.port_changed(port);
    g_held.clear();
    qv::cli::config_keeper()->saver().save_last();
    EXPECT_EQ(saved("uplink"), " shutdown\n loop-detect apply shutdown-port\n");
}

TEST_F(PortSectionsTest, WishForAPortThatHasLeftIsCarriedOutWhenItIsBack) {
    start();
    operator_types(102, "tarn port loop-detect warning");
    g_held.insert(102);
    program(102, "shutdown");
    rig.hardware.remove(102);
    g_held.clear();
    EXPECT_EQ(program(102, "no shutdown  \r\n"), 0) << "not refused: it will be done";
    EXPECT_EQ(last_record(), "swp2: no shutdown, tarn port loop-detect warning,");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n tarn port loop-detect warning\n");
    rig.hardware.add("swp2", 202);
    rig.hardware.set_admin(202, false);  // as it left
    rig.platform.run_for(1s);
    EXPECT_TRUE(up(202));
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, WishIsTakenForAPortThatWasBackForAMoment) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    rig.hardware.remove(102);
    port.ifx = 202;
    rig.model.port_added(port);
    rig.model.port_removed(202);
    rig.platform.run_for(1s);
    EXPECT_EQ(program(202, "no shutdown"), 0);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
}

TEST_F(PortSectionsTest, WishForARenamedPortOutlivesTheLinesThatWereOnTheirWay) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    qv::Port port = *rig.model.find(102U);
    port.name = "uplink";
    rig.model.port_changed(port);  // its lines must be executed again
    rig.model.port_removed(102);
    EXPECT_EQ(program(102, "no shutdown"), 0);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("uplink"), " no shutdown\n");
}

TEST_F(PortSectionsTest, NoShutdownIsAcceptedForAPortRemovedDuringItsReplay) {
    rig.hardware.set_admin(102, false);
    was_saved(
        "interface swp2\n shutdown\n tarn port loop-detect warning\n"
        " loop-detect apply shutdown-port\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(102);
    };
    start();
    EXPECT_EQ(program(102, "no shutdown"), 0);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n tarn port loop-detect warning\n");
}

TEST_F(PortSectionsTest, OtherLinesForAPortThatHasLeftAreRefused) {
    start();
    g_held.insert(102);
    rig.hardware.remove(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(program(102, "shutdown"), -1);
    EXPECT_EQ(program(999, "no shutdown"), -1);
    EXPECT_EQ(saved("swp2"), " loop-detect apply shutdown-port\n");
}

TEST_F(PortSectionsTest, DefaultInterfaceForgetsAPortThatIsGone) {
    start();
    operator_types(102, "tarn port loop-detect warning");
    rig.hardware.remove(102);
    rig.session.mode = "config";
    EXPECT_EQ(rig.type("default interface swp2"), "");
    EXPECT_EQ(rig.type("default interface swp2"), "% Unknown interface: 'swp2'.\n");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), "none");
}

TEST_F(PortSectionsTest, AbsentPortsAreInTheRunningConfiguration) {
    start();
    operator_types(104, "tarn port loop-detect warning");
    rig.hardware.remove(104);
    EXPECT_EQ(rig.type("show running-config"),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\n"
              "interface swp4\n tarn port loop-detect warning\n!\n");
}

TEST_F(PortSectionsTest, OldestAbsentPortsAreDroppedBeyondTheLimit) {
    qv::cli::PortSections sections;
    for (size_t n = 0; n <= qv::cli::PortSections::kMaxKept; ++n) {
        sections.keep(
            {.port = "veth" + std::to_string(n), .number = 0, .lines = {{0, "shutdown"}}});
    }
    EXPECT_FALSE(sections.kept("veth0"));
    EXPECT_TRUE(sections.kept("veth1"));
    EXPECT_TRUE(sections.kept("veth" + std::to_string(qv::cli::PortSections::kMaxKept)));
}

// ---- Renames ----

TEST_F(PortSectionsTest, RenamedPortKeepsItsSection) {
    start();
    g_held.insert(102);
    program(102, "shutdown");
    rig.hardware.rename(102, "uplink");
    g_held.clear();  // the program takes it for a new port
    rig.platform.run_for(1s);
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(saved("uplink"), " shutdown\n loop-detect apply shutdown-port\n");
    EXPECT_EQ(saved("swp2"), "none");
}

// A port in the loop state keeps its old name for programs. A start that follows finds the new one.
TEST_F(PortSectionsTest, PortIsSavedUnderItsNewNameWhileProgramsKnowTheOldOne) {
    start();
    operator_types(102, "tarn port loop-detect warning");
    rig.platform.run_for(1s);
    rig.model.set_name_in_use([](const std::string&) { return true; });
    rig.hardware.rename(102, "uplink");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("uplink"), " tarn port loop-detect warning\n");
    EXPECT_EQ(saved("swp2"), "none");
}

}  // namespace
