// The saved configuration: replay between the hooks, saves of every change, faulty files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_file.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/journal.h"
#include "platform/cli/tarn_commands.h"
#include "qv/cli.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;
using qv::test::read_text;
using qv::test::write_text;

using Lines = std::vector<std::string>;

Lines g_events;

uint32_t start_hook(uint32_t word) {
    g_events.push_back("start " + std::to_string(word));
    return word;
}

void end_hook() {
    g_events.push_back("end");
}

int record(cli_pcdb* pcdb) {
    g_events.push_back(std::string(pcdb->mode) + " " + std::to_string(pcdb->ifx) + " " +
                       (pcdb->prefix & CLI_PREFIX_NO ? "no " : "") + pcdb->word[0]);
    return 0;
}

const std::string kPorts =
    "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";

class SavedConfig : public ::testing::Test {
 protected:
    SavedConfig() {
        g_events.clear();
        cli_add_param_reload_start_hook(start_hook);
        cli_add_param_reload_end_hook(end_hook);
        const cli_node* line = qv::cli::any_word("WORD", "", qv::cli::end_of_line(record));
        qv::cli::attach(CLI_CHAIN_CONFIG, qv::cli::keyword("global", "", line), "test");
        qv::cli::attach(CLI_CHAIN_INTERFACE, qv::cli::keyword("local", "", line), "test");
    }
    Lines log() const { return rig.platform.log.lines(); }

    // Writes a configuration as an earlier process saved it.
    void was_saved(const std::string& text) {
        write_text(rig.saved(), qv::cli::seal_config(text + "end\n", 0));
    }
    // The configuration in the file, without its end; an invalid one unchanged.
    std::string saved_text() const {
        const auto config = qv::cli::unseal_config(read_text(rig.saved()));
        constexpr std::string_view kEnd = "end\n";
        return config.intact ? config.text.substr(0, config.text.size() - kEnd.size())
                             : "not valid: " + read_text(rig.saved());
    }
    std::string type_in_config(const std::string& line) {
        rig.session.mode = "config";
        std::string output = rig.type(line);
        rig.session.mode = "exec";
        return output;
    }

    qv::test::CliRig rig;
};

ino_t file_number(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(SavedConfig, ReplayRunsTheLinesInOrderBetweenTheHooks) {
    was_saved(" global one\n\ninterface swp2\n local two\n shutdown\n!\n! a word\n global three\n");
    cli_client_ready();
    EXPECT_TRUE(g_events.empty()) << "the replay belongs to the loop";
    rig.platform.run_ready();
    EXPECT_EQ(g_events,
              (Lines{"start 0", "config 0 one", "interface 102 two", "config 0 three", "end"}));
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(log(), Lines{});
}

TEST_F(SavedConfig, LaterAnnouncementRunsTheHooksWithoutTheReplay) {
    was_saved("global one\n");
    rig.announce_ready();
    rig.announce_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "config 0 one", "end", "start 0", "end"}));
}

TEST_F(SavedConfig, MissingFileIsNotAnError) {
    rig.announce_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "end"}));
    EXPECT_EQ(log(), Lines{});
}

TEST_F(SavedConfig, BadLineIsReportedWithItsNumberAndTheRestApplied) {
    was_saved(
        "global one\nfrobnicate now\n\ninterface swp1\n shutdwn\n local two\n!\n"
        "tarn error-recover interval 5\nglobal \x01\nglobal three\n");
    rig.announce_ready();
    EXPECT_EQ(g_events,
              (Lines{"start 0", "config 0 one", "interface 101 two", "config 0 three", "end"}));
    const std::string file = "CLI-3-REPLAY: " + rig.saved();
    EXPECT_EQ(
        log(),
        (Lines{file + ": line 2: \"frobnicate now\": % Unknown command: 'frobnicate'.",
               file + ": line 5: \"shutdwn\": % Unknown command: 'shutdwn'.",
               file + ": line 8: \"tarn error-recover interval 5\": % Number out of range: '5' "
                      "(30-86400).",
               file + ": line 9: \"global \\x01\": % Line contains control characters."}));
}

TEST_F(SavedConfig, GlobalLineAfterASectionThatNothingEndsIsTaken) {
    was_saved("interface swp1\nlocal one\nglobal two\ninterface swp2\nlocal three\n");
    rig.announce_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "interface 101 one", "config 0 two",
                               "interface 102 three", "end"}));
}

TEST_F(SavedConfig, LinesOfAPortThatIsNotThereWaitForItAndStaySaved) {
    was_saved("interface swp9\n local nine\n tarn port loop-detect warning\n!\n");
    rig.announce_ready();
    EXPECT_EQ(log(), Lines{"CLI-3-REPLAY: " + rig.saved() +
                           ": line 1: interface swp9 does not exist; its lines "
                           "wait for it."});
    EXPECT_EQ(g_events, (Lines{"start 0", "end"}));
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(saved_text(),
              kPorts + "interface swp9\n local nine\n tarn port loop-detect warning\n!\n");

    rig.hardware.add("swp9", 109);
    rig.platform.run_ready();
    EXPECT_EQ(g_events.back(), "interface 109 nine");
    EXPECT_TRUE(qv::cli::tarn_port_enabled(109));
    rig.type("write");
    EXPECT_EQ(saved_text(), kPorts + "interface swp9\n tarn port loop-detect warning\n!\n");
}

TEST_F(SavedConfig, WaitingLinesAreTakenByAPortThatGetsTheName) {
    was_saved("interface swp9\n local nine\n!\n");
    rig.announce_ready();
    qv::Port renamed = *rig.model.find(104U);
    renamed.name = "swp9";
    rig.model.port_changed(renamed);
    rig.platform.run_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "end", "interface 104 nine"}));
}

TEST_F(SavedConfig, LineOfTheSwitchsOwnProgramsIsSaved) {
    rig.announce_ready();
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = 101;
    cli_execute_cmd_buf_fd(session, "shutdown", &mode, nullptr, nullptr);
    ::close(session);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "interface swp1\n no shutdown\n" + kPorts.substr(15))
        << "nobody claims that it holds the port";
}

TEST_F(SavedConfig, PartlyRefusedLineIsSavedForItsEffect) {
    rig.announce_ready();
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    rig.type("tarn port loop-detect warning");
    rig.type("switchport mode hybrid");
    rig.session = {};
    EXPECT_EQ(rig.type("write"), "");
    rig.hardware.refusal = "Device or resource busy";
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("config").copy(mode.name, sizeof mode.name - 1);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "default interface swp1", &mode, nullptr, nullptr),
              1);
    ::close(session);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "interface swp1\n switchport mode hybrid\n" + kPorts.substr(15));
}

TEST_F(SavedConfig, LineInTheFirstModeChangesNothingToBeSaved) {
    rig.announce_ready();
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("exec").copy(mode.name, sizeof mode.name - 1);
    rig.platform.run_for(1s);
    const ino_t written = file_number(rig.saved());
    std::filesystem::remove(rig.saved());
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "show version", &mode, nullptr, nullptr), 0);
    ::close(session);
    rig.platform.run_for(1s);
    EXPECT_NE(written, 0U);
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
}

TEST_F(SavedConfig, AnnouncementWithoutAChangeWritesNothing) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const ino_t written = file_number(rig.saved());
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(file_number(rig.saved()), written);
    type_in_config("tarn enable");
    rig.platform.run_for(1s);
    EXPECT_NE(file_number(rig.saved()), written);
}

TEST_F(SavedConfig, NothingIsSavedBeforeTheReplay) {
    was_saved("global one\n");
    const std::string before = read_text(rig.saved());
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(rig.type("write"), "% Not saved: the saved configuration is not applied yet.\n");
    EXPECT_EQ(read_text(rig.saved()), before);
}

// The loop runs on between the VLAN modes and the rest of a replay.
TEST_F(SavedConfig, EndDuringTheReplayLeavesTheFileAlone) {
    was_saved("global one\ninterface swp1\n switchport mode hybrid\n shutdown\n!\n");
    const std::string before = read_text(rig.saved());
    cli_client_ready();
    rig.platform.loop().post([] {
        // Before the rest, after the modes.
        qv::platform().loop().post([] { qv::cli::config_keeper()->saver().save_last(); });
        EXPECT_EQ(g_events, Lines{"start 0"});
        qv::cli::config_keeper()->saver().save_last();
    });
    rig.platform.run_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "config 0 one", "end"}));
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "interface swp1\n switchport mode hybrid\n shutdown\n!\n" +
                                kPorts.substr(std::string("interface swp1\n!\n").size()));
    EXPECT_NE(before, read_text(rig.saved()));
}

TEST_F(SavedConfig, RemovedFileIsSavedAgain) {
    rig.announce_ready();
    type_in_config("tarn enable");
    rig.platform.run_for(60s);
    const std::string whole = saved_text();
    EXPECT_EQ(whole, "tarn enable\n" + kPorts);
    std::filesystem::remove(rig.saved());
    std::filesystem::remove(rig.saved() + ".journal");
    rig.platform.run_for(6s);
    EXPECT_EQ(saved_text(), whole);
    EXPECT_TRUE(std::filesystem::exists(rig.saved() + ".journal"));
    EXPECT_EQ(log(), Lines{"CLI-4-SAVE: " + rig.saved() +
                           " was removed; the configuration is saved again."});
}

// As for a port that is created again: its driver learns late that it was up in between.
TEST_F(SavedConfig, ShutdownIsSavedDespiteALateReportThatThePortWasUp) {
    rig.announce_ready();
    rig.hardware.set_admin(101, false);
    rig.hardware.before_change = [this] {
        rig.hardware.before_change = nullptr;
        rig.hardware.set_admin(101, true);
    };
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    EXPECT_EQ(rig.type("shutdown"), "");
    rig.platform.run_for(60s);
    EXPECT_EQ(saved_text(), "interface swp1\n shutdown\n" + kPorts.substr(15));
}

TEST_F(SavedConfig, RemovedJournalIsCreatedAgainByTheNextShutdown) {
    rig.announce_ready();
    rig.platform.run_for(60s);
    std::filesystem::remove(rig.saved() + ".journal");
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    EXPECT_EQ(rig.type("shutdown"), "");
    const auto records = qv::cli::read_journal(rig.saved() + ".journal");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].section.port, "swp1");
    EXPECT_EQ(records[0].section.lines[0].text, "shutdown");
}

TEST_F(SavedConfig, FullDiskLeavesTheOldFileAndIsReportedOnceAndRetried) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const std::string old = read_text(rig.saved());
    std::optional<qv::test::FullDisk> full(10);
    type_in_config("tarn enable");
    rig.platform.run_for(1s);
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(read_text(rig.saved()), old);
    EXPECT_FALSE(std::filesystem::exists(rig.saved() + ".new"));
    EXPECT_EQ(log(), Lines{"CLI-3-SAVE: The configuration cannot be saved to " + rig.saved() +
                           ": File too large."});

    full.reset();
    rig.platform.run_for(30s);
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts);
}

TEST_F(SavedConfig, WriteReportsWhyItCannotSave) {
    rig.announce_ready();
    std::filesystem::create_directory(rig.saved());
    EXPECT_EQ(rig.type("write"), "% Not saved: Is a directory.\n");
    EXPECT_EQ(rig.code, 1);
}

TEST_F(SavedConfig, FileThatCannotBeReadIsLeftAlone) {
    std::filesystem::create_directory(rig.saved());
    rig.announce_ready();
    ASSERT_EQ(log().size(), 1U);
    EXPECT_EQ(log()[0], "CLI-3-REPLAY: The saved configuration " + rig.saved() +
                            " cannot be read and is left alone: Invalid argument.");
    EXPECT_EQ(g_events, (Lines{"start 0", "end"}));
    std::filesystem::remove(rig.saved());
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
    EXPECT_EQ(rig.type("write"), "") << "asked for, it is replaced";
    EXPECT_TRUE(std::filesystem::exists(rig.saved()));
}

TEST_F(SavedConfig, EveryTypedLineIsSavedWithinASecond) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    type_in_config("tarn enable");
    EXPECT_EQ(saved_text(), kPorts) << "the command itself never waits";
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts);
    rig.session.mode = "interface";
    rig.session.ifx = 102;
    rig.type("shutdown");
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(),
              "tarn enable\ninterface swp1\n!\ninterface swp2\n shutdown\n!\ninterface swp3\n!\n"
              "interface swp4\n!\n");
}

int g_generations = 0;
int count_generation(cli_pcdb*) {
    ++g_generations;
    return 0;
}

TEST_F(SavedConfig, FloodOfAnnouncementsIsServedAFewTimes) {
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("counted", "",
                         qv::cli::print_config(count_generation, qv::cli::end_of_line(record))),
        "test");
    rig.announce_ready();
    rig.platform.run_for(1s);
    g_generations = 0;
    for (int i = 0; i < 10000; ++i) {
        cli_client_c2p_reform();
        cli_syn_config_notify();
        if (i % 100 == 0) {
            rig.platform.run_for(1ms);
        }
    }
    rig.platform.run_for(99ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(10s);
    EXPECT_EQ(g_generations, 2);
}

int ask_while_generating(cli_pcdb*) {
    if (++g_generations == 1) {
        cli_client_c2p_reform();
    }
    return 0;
}

TEST_F(SavedConfig, RequestMadeDuringARoundStartsAnother) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    g_generations = 0;
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("asking", "",
                         qv::cli::print_config(ask_while_generating, qv::cli::end_of_line(record))),
        "test");
    cli_client_c2p_reform();
    rig.platform.run_for(100ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(1s);
    EXPECT_EQ(g_generations, 2);
}

qv::test::ManualClock* g_clock = nullptr;
int generate_slowly(cli_pcdb*) {
    g_clock->advance(20ms);
    return ++g_generations;
}

TEST_F(SavedConfig, RoundThatTakesLongIsFollowedByTenTimesAsLongAPause) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    g_clock = &rig.platform.manual_clock;
    g_generations = 0;
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("slow", "",
                         qv::cli::print_config(generate_slowly, qv::cli::end_of_line(record))),
        "test");
    cli_client_c2p_reform();
    rig.platform.run_for(100ms);
    EXPECT_EQ(g_generations, 1);
    cli_client_c2p_reform();
    rig.platform.run_for(199ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(1ms);
    EXPECT_EQ(g_generations, 2);
}

TEST_F(SavedConfig, ManyPortsAreGeneratedAFewAtATime) {
    rig.announce_ready();
    for (uint32_t ifx = 1000; ifx < 1500; ++ifx) {
        rig.hardware.add("eth" + std::to_string(ifx), ifx);
    }
    rig.platform.run_for(1s);
    const std::string text = saved_text();
    EXPECT_TRUE(text.starts_with(kPorts + "interface eth1000\n!\n")) << text.substr(0, 200);
    EXPECT_TRUE(text.ends_with("interface eth1499\n!\n"));
    EXPECT_EQ(qv::cli::parse_config(text).size(), 1U + 2U * 504);
}

TEST_F(SavedConfig, PortAddedBetweenTwoSlicesIsSavedToo) {
    rig.announce_ready();
    for (uint32_t ifx = 1000; ifx < 1200; ++ifx) {
        rig.hardware.add("eth" + std::to_string(ifx), ifx);
    }
    rig.platform.run_for(1s);
    bool added = false;
    qv::cli::ConfigSaver& saver = qv::cli::config_keeper()->saver();
    saver.request();
    rig.platform.manual_clock.advance(100ms);
    // One turn takes 64 ports; the port below is added when its index has been passed.
    rig.platform.loop().post([&] {
        rig.hardware.add("late", 50);
        rig.model.port_changed(*rig.model.find(50U));
        added = true;
    });
    rig.platform.run_ready();
    EXPECT_TRUE(added);
    EXPECT_NE(saved_text().find("interface late\n!\n"), std::string::npos);
}

TEST_F(SavedConfig, WriteSavesAtOnceAndIncludesThePendingChange) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    type_in_config("tarn enable");
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts);
    const ino_t written = file_number(rig.saved());
    rig.platform.run_for(1s);
    EXPECT_EQ(file_number(rig.saved()), written) << "nothing is left to be saved";
}

TEST_F(SavedConfig, StartupConfigurationShowsTheTimeOfItsSaveAndFailures) {
    rig.announce_ready();
    type_in_config("tarn enable");
    rig.platform.run_for(1s);
    timespec times[2] = {{.tv_sec = 1000000000, .tv_nsec = 0},
                         {.tv_sec = 1000000000, .tv_nsec = 0}};
    setenv("TZ", "UTC", 1);
    ASSERT_EQ(::utimensat(AT_FDCWD, rig.saved().c_str(), times, 0), 0);
    EXPECT_EQ(rig.type("show startup-config"),
              "! Last saved 2001-09-09 01:46:40\ntarn enable\n" + kPorts + "end\n");
    std::filesystem::create_directory(rig.saved() + ".new");
    type_in_config("no tarn enable");
    rig.platform.run_for(1s);
    EXPECT_EQ(
        rig.type("show startup-config"),
        "! Last saved 2001-09-09 01:46:40\n! Changes since then cannot be saved: File exists\n"
        "tarn enable\n" +
            kPorts + "end\n");
}

TEST_F(SavedConfig, FileCutOffIsReportedAndItsLastLineNotTaken) {
    write_text(rig.saved(), "global one\nglobal two\nglobal thr");
    rig.announce_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "config 0 one", "config 0 two", "end"}));
    EXPECT_EQ(log(),
              Lines{"CLI-3-REPLAY: The saved configuration " + rig.saved() +
                    " has no valid seal (cut off, damaged or written by hand): its last line "
                    "is not applied. A copy is kept as " +
                    rig.saved() + ".damaged."});
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), kPorts);
    EXPECT_EQ(read_text(rig.saved() + ".damaged"), "global one\nglobal two\nglobal thr");
}

TEST_F(SavedConfig, DamagedFileThatCannotBeCopiedIsLeftAlone) {
    write_text(rig.saved(), "global one\nglobal tw");
    std::filesystem::create_directories(rig.saved() + ".damaged/full");
    rig.announce_ready();
    rig.platform.run_for(1s);
    EXPECT_EQ(read_text(rig.saved()), "global one\nglobal tw");
    EXPECT_EQ(
        log(),
        (Lines{"CLI-3-REPLAY: No copy of the saved configuration can be kept as " + rig.saved() +
                   ".damaged: Invalid argument. The file is left alone until \"write\" is "
                   "typed.",
               "CLI-3-REPLAY: The saved configuration " + rig.saved() +
                   " has no valid seal (cut off, damaged or written by hand): its last "
                   "line is not applied."}));
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(saved_text(), kPorts);
}

TEST_F(SavedConfig, RoundThatTakesVeryLongIsFollowedByHalfASecondsPause) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    g_clock = &rig.platform.manual_clock;
    g_generations = 0;
    qv::cli::attach(CLI_CHAIN_CONFIG,
                    qv::cli::keyword("very-slow", "",
                                     qv::cli::print_config(
                                         [](cli_pcdb*) {
                                             g_clock->advance(200ms);
                                             return ++g_generations;
                                         },
                                         qv::cli::end_of_line(record))),
                    "test");
    cli_client_c2p_reform();
    rig.platform.run_for(100ms);
    EXPECT_EQ(g_generations, 1);
    cli_client_c2p_reform();
    rig.platform.run_for(499ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(1ms);
    EXPECT_EQ(g_generations, 2);
}

TEST_F(SavedConfig, FileWhoseLinesWereRefusedIsKeptToo) {
    was_saved("frobnicate\n");
    const std::string before = read_text(rig.saved());
    rig.announce_ready();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), kPorts);
    EXPECT_EQ(read_text(rig.saved() + ".damaged"), before);
}

TEST_F(SavedConfig, TwoHundredThousandBadLinesAreFiftyReportsAndASum) {
    std::string text;
    for (int i = 0; i < 200000; ++i) {
        text += "x\n";
    }
    was_saved(text);
    rig.announce_ready();
    const Lines lines = log();
    ASSERT_EQ(lines.size(), 51U);
    EXPECT_EQ(lines[49],
              "CLI-3-REPLAY: " + rig.saved() + ": line 50: \"x\": % Unknown command: 'x'.");
    EXPECT_EQ(lines[50], "CLI-3-REPLAY: " + rig.saved() + ": 200000 lines were refused in all.");
}

TEST_F(SavedConfig, ManySectionsOfAbsentPortsAreFiftyReportsAndASum) {
    std::string text = "x\n";
    for (int i = 0; i < 1000; ++i) {
        text += "interface gone" + std::to_string(i) + "\n shutdown\n!\n";
    }
    was_saved(text);
    rig.announce_ready();
    const Lines lines = log();
    ASSERT_EQ(lines.size(), 51U);
    EXPECT_EQ(lines[49], "CLI-3-REPLAY: " + rig.saved() +
                             ": line 146: interface gone48 does not exist; its lines wait for it.");
    EXPECT_EQ(lines[50], "CLI-3-REPLAY: " + rig.saved() +
                             ": 1 lines were refused and 1000 interfaces do not exist in all.");
}

// Accepts no work after its thread has ended, as at the end of the process.
class EndingBackground final : public qv::Background {
 public:
    void run(std::function<void()> work, qv::EventLoop::Task) override {
        EXPECT_FALSE(ended) << "nobody is there to do it";
        work();  // and the completion waits for a loop that never runs again
    }
    bool ended = false;
};

TEST_F(SavedConfig, LastSaveAnswersEverybodyAndNeedsNoBackground) {
    rig.announce_ready();
    const std::string path = rig.folder.file("last.conf");
    qv::cli::Journal journal(path + ".journal");
    const qv::cli::PortSections sections;
    EndingBackground background;
    qv::cli::ConfigSaver saver(rig.platform.loop(), background, path, journal, sections);
    saver.allow_autosave(true);
    Lines answers;
    saver.save([&](const std::string& reason) { answers.push_back("first" + reason); });
    saver.save([&](const std::string& reason) { answers.push_back("second" + reason); });
    background.ended = true;
    saver.save_last();
    EXPECT_EQ(answers, (Lines{"first", "second"}));
    EXPECT_TRUE(qv::cli::unseal_config(read_text(path)).intact);
}

TEST_F(SavedConfig, LeftoverOfADeadProcessIsNeverTakenForTheConfiguration) {
    was_saved("global one\n");
    write_text(rig.saved() + ".new", qv::cli::seal_config("global two\nend\n", 9));
    rig.announce_ready();
    EXPECT_EQ(g_events, (Lines{"start 0", "config 0 one", "end"}));
    rig.platform.run_for(1s);
    EXPECT_FALSE(std::filesystem::exists(rig.saved() + ".new"));
}

TEST_F(SavedConfig, RequestOnTheLoopsThreadWaitsForMoreUrgentWork) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("counted", "",
                         qv::cli::print_config(count_generation, qv::cli::end_of_line(record))),
        "test");
    g_generations = 0;
    rig.platform.loop().post([&] {
        cli_client_c2p_reform();
        rig.platform.loop().post([&] { rig.platform.manual_clock.advance(50ms); });
    });
    rig.platform.run_ready();
    rig.platform.run_for(99ms);
    EXPECT_EQ(g_generations, 0);
    rig.platform.run_for(1ms);
    EXPECT_EQ(g_generations, 1);
}

TEST_F(SavedConfig, LineOfTheFirstModeGeneratesNothing) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("counted", "",
                         qv::cli::print_config(count_generation, qv::cli::end_of_line(record))),
        "test");
    g_generations = 0;
    EXPECT_EQ(rig.type("show version"), "lda 0.1.0\n");
    rig.platform.run_for(1s);
    EXPECT_EQ(g_generations, 0);
    type_in_config("global one");
    rig.platform.run_for(1s);
    EXPECT_EQ(g_generations, 1);
}

}  // namespace
