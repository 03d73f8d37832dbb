// Starts: which saved lines and records win, the order in which programs are notified, and what is
// written while lines are replayed.
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/tarn_commands.h"
#include "qv/bridge.h"
#include "qv/cli.h"
#include "tests/unit/cli/held_ports.h"

namespace {

using namespace std::chrono_literals;
using qv::test::g_held;
using qv::test::g_refuses;
using qv::test::read_text;
using qv::test::write_text;
using Lines = std::vector<std::string>;

const std::string kHeld = "loop-detect apply shutdown-port";

class HeldReplay : public qv::test::HeldPorts {
 protected:
    Lines log() const { return rig.platform.log.lines(); }
    void was_down(uint32_t ifx) { rig.hardware.set_admin(ifx, false); }
};

// ---- The journal's records ----

TEST_F(HeldReplay, GlobalRecordRunsBeforeTheSavedSections) {
    was_saved("interface swp2\n shutdown\n!\n", 5);
    was_journalled(5, {{"", {"tarn enable"}}});
    std::optional<bool> enabled;
    rig.hardware.before_change = [&] {
        enabled = qv::cli::tarn_enabled();
    };
    start();
    EXPECT_EQ(enabled, true);
}

TEST_F(HeldReplay, SavedHeldLineAloneExplainsAShutdown) {
    was_down(102);
    was_saved("interface swp2\n " + kHeld + "\n!\n", 1000);
    was_journalled(0, {{"swp2", {"shutdown", kHeld}}});
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(log(), Lines{});
}

TEST_F(HeldReplay, NewestRecordSaysWhetherAPortWasHeld) {
    was_down(102);
    was_saved("", 1000);
    was_journalled(0, {{"swp2", {"shutdown", kHeld}}, {"swp2", {"no shutdown"}}});
    start();
    EXPECT_TRUE(g_held.empty());
    EXPECT_EQ(log(), Lines{});
}

TEST_F(HeldReplay, SavedShutdownOfAnotherPortExplainsNothing) {
    was_down(102);
    was_saved("interface swp3\n shutdown\n!\n", 1000);
    was_journalled(0, {{"swp2", {"shutdown", kHeld}}});
    start();
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_EQ(log(), Lines{"CLI-4-CLAIMED: Interface swp2 was held shut, and the saved "
                           "configuration does not say so: 'loop-detect apply shutdown-port' is "
                           "applied again."});
}

TEST_F(HeldReplay, OldShutdownThatNoProgramHeldIsNotClaimed) {
    was_down(102);
    was_saved("", 1000);
    was_journalled(0, {{"swp2", {"shutdown"}}});
    start();
    EXPECT_TRUE(g_held.empty());
    EXPECT_EQ(saved("swp2"), "");
    EXPECT_EQ(log(), Lines{});
}

TEST_F(HeldReplay, RecordsContinueAfterTheNumberInTheSavedFile) {
    was_saved("tarn enable\n", 5);
    start();
    operator_types(102, "shutdown");
    const auto records = qv::cli::read_journal(rig.saved() + ".journal");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].number, 6U) << "the next start leaves out what is not newer than the file";
}

TEST_F(HeldReplay, RefusedRecordWithoutASavedFileIsReportedAndNothingIsKept) {
    was_journalled(0, {{"swp2", {"frobnicate"}}});
    start();
    EXPECT_EQ(log(), Lines{"CLI-3-REPLAY: " + rig.saved() +
                           ": \"frobnicate\": % Unknown command: 'frobnicate'."});
    EXPECT_EQ(saved("swp2"), "");
}

TEST_F(HeldReplay, RecordOfAnAbsentPortIsReportedWithoutALineNumber) {
    was_journalled(0, {{"swp9", {"shutdown"}}});
    start();
    EXPECT_EQ(log(), Lines{"CLI-3-REPLAY: " + rig.saved() +
                           ": interface swp9 does not exist; its lines wait for it."});
}

TEST_F(HeldReplay, GlobalLinesOfAFileWithoutASealAreJournalledAgain) {
    write_text(rig.saved(), "tarn enable\ninterface swp1\n!\nxx");
    rig.announce_ready();
    program(102, "shutdown");
    const auto records = qv::cli::read_journal(rig.saved() + ".journal");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(text_of(records[0]), ": tarn enable,");
    EXPECT_EQ(text_of(records[1]), "swp2: no shutdown,");
}

int print_two_lines(cli_pcdb*) {
    cli_printf("first\r\nsecond\n");
    return 0;
}
int refuse_silently(cli_pcdb*) {
    return 1;
}

TEST_F(HeldReplay, LineThatPrintsOrFailsIsReportedWithItsFirstLine) {
    using namespace qv::cli;
    attach(CLI_CHAIN_CONFIG, keyword("prints", "", end_of_line(print_two_lines)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("fails", "", end_of_line(refuse_silently)), "test");
    was_saved("prints\nfails\n");
    start();
    const std::string at = "CLI-3-REPLAY: " + rig.saved() + ": line ";
    EXPECT_EQ(log(), (Lines{at + "1: \"prints\": first", at + "2: \"fails\": "}));
}

TEST_F(HeldReplay, LongLineIsShownInPart) {
    was_saved("x" + std::string(300, 'y') + "\n");
    start();
    EXPECT_EQ(log(),
              Lines{"CLI-3-REPLAY: " + rig.saved() + ": line 1: \"x" + std::string(199, 'y') +
                    "\": % Unknown command: 'x" + std::string(39, 'y') + "...'."});
}

TEST_F(HeldReplay, FiftyReportsNeedNoSum) {
    std::string text;
    for (int line = 0; line < 49; ++line) {
        text += "x\n";
    }
    was_saved(text + "interface swp9\n shutdown\n!\n");
    start();
    ASSERT_EQ(log().size(), 50U);
    EXPECT_EQ(log()[49], "CLI-3-REPLAY: " + rig.saved() +
                             ": line 50: interface swp9 does not exist; its lines wait for it.");
}

// ---- Files ----

TEST_F(HeldReplay, ConfigurationThatIsAsItWasSavedIsNotWrittenAgain) {
    was_saved(
        "tarn enable\ninterface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\n"
        "interface swp4\n!\n");
    const auto written = std::filesystem::last_write_time(rig.saved());
    const auto before = std::filesystem::hard_link_count(rig.saved());
    std::filesystem::create_hard_link(rig.saved(), rig.saved() + ".same");
    start();
    EXPECT_EQ(std::filesystem::last_write_time(rig.saved()), written);
    EXPECT_EQ(std::filesystem::hard_link_count(rig.saved()), before + 1) << "replaced";
}

TEST_F(HeldReplay, CopyOfADamagedFileReplacesAnOlderOne) {
    write_text(rig.saved() + ".damaged", "of another year");
    write_text(rig.saved(), "tarn enable\nshu");
    start();
    EXPECT_EQ(read_text(rig.saved() + ".damaged"), "tarn enable\nshu");
}

// ---- While lines are replayed ----

TEST_F(HeldReplay, ReplayedShutdownIsNotJournalledAgain) {
    was_saved("interface swp2\n shutdown\n!\n");
    std::string at_change = "not called";
    rig.hardware.before_change = [&] {
        at_change = last_record();
    };
    start();
    EXPECT_EQ(at_change, "none");
    EXPECT_FALSE(up(102));
}

TEST_F(HeldReplay, ShutdownBetweenTheModesAndTheRestIsJournalled) {
    was_saved("interface swp2\n switchport mode hybrid\n shutdown\n!\n");
    cli_client_ready();
    std::string record = "not called";
    rig.platform.loop().post([&] {  // after the modes, before the rest
        EXPECT_TRUE(up(102));
        program(103, "shutdown");
        record = last_record();
    });
    rig.platform.run_for(1s);
    EXPECT_EQ(record, "swp3: no shutdown,");
    EXPECT_FALSE(up(102));
}

TEST_F(HeldReplay, ProgramMayHoldAPortAfterTheLine) {
    was_down(102);
    was_saved("interface swp2\n shutdown\n " + kHeld + "\n!\n");
    qv::test::g_take = [&](uint64_t ifx) {
        rig.platform.loop().post([ifx] { g_held.insert(ifx); });
    };
    start();
    EXPECT_EQ(log(), Lines{});
    EXPECT_FALSE(up(102));
    EXPECT_EQ(saved("swp2"), " shutdown\n " + kHeld + "\n");
}

TEST_F(HeldReplay, HeldPortOpenedMeanwhileIsNotReleased) {
    g_refuses = true;
    was_saved("interface swp2\n " + kHeld + "\n!\n");
    start();
    EXPECT_TRUE(up(102));
    EXPECT_EQ(log(), Lines{});
}

TEST_F(HeldReplay, HeldPortThatAnOperatorTookOverIsNotReleased) {
    was_down(102);
    g_refuses = true;
    was_saved("interface swp2\n " + kHeld + "\n!\n");
    cli_client_ready();
    rig.platform.loop().post([&] { operator_types(102, "shutdown"); });
    rig.platform.run_for(1s);
    EXPECT_FALSE(up(102));
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(saved("swp2"), " shutdown\n");
}

TEST_F(HeldReplay, ShutdownOfAHeldSectionBelongsToTheProgramFromTheFirstLineOn) {
    was_down(102);
    was_saved("interface swp2\n " + kHeld + "\n!\n");
    start();
    g_held.clear();
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n") << "brought back after a crash";
}

TEST_F(HeldReplay, ModeChangedByAnySectionMakesTheRestWait) {
    was_saved("interface swp2\n switchport mode hybrid\n!\ninterface swp3\n shutdown\n!\n");
    cli_client_ready();
    std::optional<bool> waited;
    rig.platform.loop().post([&] { waited = up(103); });
    rig.platform.run_for(1s);
    EXPECT_EQ(waited, true);
    EXPECT_FALSE(up(103));
}

TEST_F(HeldReplay, ModeIsSetOnceAndAnUnknownModeReportedOnce) {
    was_saved("switchport mode nonsense\ninterface swp2\n switchport mode hybird\n!\n");
    start();
    const std::string at = "CLI-3-REPLAY: " + rig.saved() + ": line ";
    EXPECT_EQ(log(), (Lines{at + "3: \"switchport mode hybird\": % Unknown command: 'hybird'.",
                            at + "1: \"switchport mode nonsense\": % Unknown command: "
                                 "'switchport'."}));
}

std::vector<std::string> g_hooks;
uint32_t at_start(uint32_t word) {
    g_hooks.push_back(qv::cli::tarn_enabled() ? "start, enabled" : "start");
    return word;
}
void at_end() {
    g_hooks.push_back(qv::cli::tarn_enabled() ? "end, enabled" : "end");
}

TEST_F(HeldReplay, AnnouncementDuringAReplayIsServedAfterIt) {
    cli_add_param_reload_start_hook(at_start);
    cli_add_param_reload_end_hook(at_end);
    was_saved("tarn enable\ninterface swp2\n switchport mode hybrid\n!\n");
    cli_client_ready();
    cli_client_ready();
    rig.platform.run_for(1s);
    EXPECT_EQ(g_hooks, (Lines{"start", "end, enabled", "start, enabled", "end, enabled"}));
}

TEST_F(HeldReplay, PortRemovedDuringItsReplayMissesTheRestOfItsLines) {
    was_saved("interface swp2\n shutdown\n frobnicate\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(102);
    };
    start();
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(saved("swp2"), " shutdown\n frobnicate\n");
}

TEST_F(HeldReplay, PortRemovedDuringTheReplayOfAnotherDoesNotInterruptIt) {
    was_saved("interface swp2\n shutdown\n tarn port loop-detect warning\n!\n");
    int changes = 0;
    rig.hardware.before_change = [&] {
        if (++changes == 1) {
            rig.model.port_removed(103);
        }
    };
    start();
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(qv::cli::tarn_port_enabled(102));
    EXPECT_EQ(changes, 1) << "its lines run once";
}

TEST_F(HeldReplay, PortRemovedAfterItsSectionDoesNotInterruptIt) {
    was_saved(
        "interface swp2\n tarn port loop-detect warning\n!\ntarn enable\n"
        "interface swp3\n shutdown\n!\n");
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(102);
        rig.hardware.add("swp2", 202);
    };
    start();
    EXPECT_TRUE(qv::cli::tarn_port_enabled(202));
    EXPECT_EQ(saved("swp2"), " tarn port loop-detect warning\n");
}

// ---- Trouble ----

TEST_F(HeldReplay, SectionIsNotJournalledWithoutTheGlobalLinesThatItNeeds) {
    start();
    rig.platform.run_for(10s);
    const std::string trouble = "CLI-3-JOURNAL: The journal " + rig.saved() +
                                ".journal cannot be written: No space left on device. Until it "
                                "can, a crash may leave a port shut.";
    rig.session.mode = "config";
    rig.type("tarn enable");
    rig.type("tarn error-recover interval 90");
    {
        // Room for the record of a section, but not for that of the global lines.
        const qv::test::FullDisk full(60);
        program(102, "shutdown");
        EXPECT_EQ(last_record(), "none");
        EXPECT_EQ(log(), Lines{trouble});
        program(103, "shutdown");
        EXPECT_EQ(log(), Lines{trouble}) << "once is enough";
    }
    program(104, "shutdown");
    EXPECT_EQ(last_record(), "swp4: no shutdown,");
    rig.platform.run_for(10s);
    EXPECT_EQ(last_record(), "none");
    rig.session.mode = "config";
    rig.type("no tarn enable");
    const qv::test::FullDisk full(40);
    program(104, "no shutdown");
    EXPECT_EQ(log(), (Lines{trouble, trouble})) << "a new trouble";
}

TEST_F(HeldReplay, SwitchWithoutAFileKeepsNothing) {
    std::filesystem::current_path(rig.folder.path());
    // Must outlive the loop.
    auto& keeper = *new qv::cli::ConfigKeeper(rig.platform.loop(), rig.platform.background(), "");
    EXPECT_EQ(keeper.obstacle(), "no file is set for the saved configuration");
    keeper.request_replay();
    rig.platform.run_ready();
    EXPECT_EQ(keeper.obstacle(), "no file is set for the saved configuration");
    EXPECT_EQ(keeper.set_admin(102, false, true), "");
    rig.platform.run_for(60s);
    EXPECT_FALSE(std::filesystem::exists(".journal"));
    EXPECT_FALSE(std::filesystem::exists(".new"));
    EXPECT_EQ(log(), Lines{});
}

}  // namespace
