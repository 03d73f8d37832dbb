// The saved configuration: replay between the hooks, saving on announcements, trouble with files.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_file.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/tarn_commands.h"
#include "qv/cli.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;
using qv::test::read_text;
using qv::test::write_text;

std::vector<std::string> g_events;

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
    std::vector<std::string> log() const { return rig.platform.log.lines(); }

    qv::test::CliRig rig;
};

TEST_F(SavedConfig, ReplayRunsTheLinesInOrderBetweenTheHooks) {
    write_text(
        rig.saved(),
        " global one\n\ninterface swp2\n local two\n shutdown\n!\n! a word\n global three\n");
    cli_client_ready();
    EXPECT_TRUE(g_events.empty()) << "the replay belongs to the loop";
    rig.platform.run_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "config 0 one", "interface 102 two",
                                                  "config 0 three", "end"}));
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(log(), std::vector<std::string>{});
}

TEST_F(SavedConfig, LaterAnnouncementRunsTheHooksWithoutTheReplay) {
    write_text(rig.saved(), "global one\n");
    rig.announce_ready();
    rig.announce_ready();
    EXPECT_EQ(g_events,
              (std::vector<std::string>{"start 0", "config 0 one", "end", "start 0", "end"}));
}

TEST_F(SavedConfig, MissingFileIsNoTrouble) {
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "end"}));
    EXPECT_EQ(log(), std::vector<std::string>{});
}

TEST_F(SavedConfig, BadLineIsReportedWithItsNumberAndTheRestApplied) {
    write_text(rig.saved(),
               "global one\nfrobnicate now\n\ninterface swp1\n shutdwn\n local two\n!\n"
               "tarn error-recover interval 5\nglobal \x01\nglobal three");
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "config 0 one", "interface 101 two",
                                                  "config 0 three", "end"}));
    const std::string file = "CLI-3-REPLAY: " + rig.saved();
    EXPECT_EQ(log(),
              (std::vector<std::string>{
                  file + ": line 2: \"frobnicate now\": % Unknown command: 'frobnicate'.",
                  file + ": line 5: \"shutdwn\": % Unknown command: 'shutdwn'.",
                  file + ": line 8: \"tarn error-recover interval 5\": % Number out of range: '5' "
                         "(30-86400).",
                  file + ": line 9: \"global \x01\": % Line contains control characters."}));
}

TEST_F(SavedConfig, GlobalLineAfterASectionThatNothingEndsIsTaken) {
    write_text(rig.saved(), "interface swp1\nlocal one\nglobal two\ninterface swp2\nlocal three\n");
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "interface 101 one", "config 0 two",
                                                  "interface 102 three", "end"}));
}

TEST_F(SavedConfig, LinesOfAPortThatIsNotThereWaitForItAndStaySaved) {
    write_text(rig.saved(),
               "interface swp9\n local nine\n tarn port loop-detect warning\n!\nend\n");
    rig.announce_ready();
    EXPECT_EQ(log(), std::vector<std::string>{"CLI-3-REPLAY: " + rig.saved() +
                                              ": line 1: interface swp9 does not exist; its lines "
                                              "wait for it."});
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "end"}));
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(read_text(rig.saved()),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n"
              "interface swp9\n local nine\n tarn port loop-detect warning\n!\nend\n");

    rig.hardware.add("swp9", 109);
    rig.platform.run_ready();
    EXPECT_EQ(g_events.back(), "interface 109 nine");
    EXPECT_TRUE(qv::cli::tarn_port_enabled(109));
    rig.type("write");
    EXPECT_TRUE(read_text(rig.saved())
                    .ends_with("interface swp9\n tarn port loop-detect warning\n!\nend\n"));
}

TEST_F(SavedConfig, WaitingLinesAreTakenByAPortThatGetsTheName) {
    write_text(rig.saved(), "interface swp9\n local nine\n!\nend\n");
    rig.announce_ready();
    qv::Port renamed = *rig.model.find(104U);
    renamed.name = "swp9";
    rig.model.port_changed(renamed);
    rig.platform.run_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "end", "interface 104 nine"}));
}

TEST_F(SavedConfig, AnnouncedChangeIsSavedAfterAMomentForItsCommands) {
    rig.announce_ready();
    rig.session.mode = "config";
    rig.type("tarn enable");
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
    EXPECT_EQ(cli_syn_config_notify(), 0);
    EXPECT_FALSE(std::filesystem::exists(rig.saved())) << "the announcement itself never waits";
    rig.platform.run_for(4ms);
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
    rig.platform.run_for(1ms);
    EXPECT_EQ(read_text(rig.saved()),
              " tarn enable\n"
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\nend\n");
}

int g_generations = 0;
int count_generation(cli_pcdb*) {
    ++g_generations;
    return 0;
}

TEST_F(SavedConfig, FloodOfAnnouncementsIsServedOnceAtOnceAndOnceLater) {
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("counted", "",
                         qv::cli::print_config(count_generation, qv::cli::end_of_line(record))),
        "test");
    rig.announce_ready();
    for (int i = 0; i < 10000; ++i) {
        cli_client_c2p_reform();
        cli_syn_config_notify();
        if (i % 100 == 0) {
            rig.platform.run_ready();
        }
    }
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(49ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(1ms);
    EXPECT_EQ(g_generations, 2);
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
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("asking", "",
                         qv::cli::print_config(ask_while_generating, qv::cli::end_of_line(record))),
        "test");
    rig.announce_ready();
    cli_client_c2p_reform();
    rig.platform.run_ready();
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
    g_clock = &rig.platform.manual_clock;
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::keyword("slow", "",
                         qv::cli::print_config(generate_slowly, qv::cli::end_of_line(record))),
        "test");
    rig.announce_ready();
    cli_client_c2p_reform();
    rig.platform.run_ready();
    EXPECT_EQ(g_generations, 1);
    cli_client_c2p_reform();
    rig.platform.run_for(199ms);
    EXPECT_EQ(g_generations, 1);
    rig.platform.run_for(1ms);
    EXPECT_EQ(g_generations, 2);
}

TEST_F(SavedConfig, LineOfTheSwitchsOwnProgramsIsSaved) {
    rig.announce_ready();
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = 101;
    cli_execute_cmd_buf_fd(session, "shutdown", &mode, nullptr, nullptr);
    ::close(session);
    rig.platform.run_for(5ms);
    EXPECT_TRUE(read_text(rig.saved()).starts_with("interface swp1\n shutdown\n!\n"));
}

TEST_F(SavedConfig, LineRefusedInPartIsSavedForWhatItDid) {
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
    EXPECT_TRUE(read_text(rig.saved())
                    .starts_with("interface swp1\n switchport mode hybrid\n!\ninterface swp2\n"));
}

TEST_F(SavedConfig, LineInTheFirstModeChangesNothingToBeSaved) {
    rig.announce_ready();
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("exec").copy(mode.name, sizeof mode.name - 1);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "show version", &mode, nullptr, nullptr), 0);
    ::close(session);
    rig.platform.run_for(1s);
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
}

ino_t file_number(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(SavedConfig, AnnouncementWithoutAChangeWritesNothing) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const ino_t written = file_number(rig.saved());
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(file_number(rig.saved()), written);
    rig.session.mode = "config";
    rig.type("tarn enable");
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_NE(file_number(rig.saved()), written);
}

TEST_F(SavedConfig, NothingIsSavedBeforeTheReplay) {
    write_text(rig.saved(), "global one\n");
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(rig.type("write"), "% Not saved: the saved configuration is not in force yet.\n");
    EXPECT_EQ(read_text(rig.saved()), "global one\n");
}

TEST_F(SavedConfig, FullDiskLeavesTheOldFileAndIsReportedOnceAndRetried) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const std::string old = read_text(rig.saved());
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit full = before;
    full.rlim_cur = 10;
    setrlimit(RLIMIT_FSIZE, &full);

    rig.session.mode = "config";
    rig.type("tarn enable");
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(read_text(rig.saved()), old);
    EXPECT_FALSE(std::filesystem::exists(rig.saved() + ".new"));
    EXPECT_EQ(log(), std::vector<std::string>{"CLI-3-SAVE: The configuration cannot be saved to " +
                                              rig.saved() + ": File too large."});

    setrlimit(RLIMIT_FSIZE, &before);
    rig.platform.run_for(30s);
    EXPECT_EQ(read_text(rig.saved()), " tarn enable\n" + old);
}

TEST_F(SavedConfig, WriteTellsWhyItCannotSave) {
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
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "end"}));
    std::filesystem::remove(rig.saved());
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_FALSE(std::filesystem::exists(rig.saved()));
    EXPECT_EQ(rig.type("write"), "") << "asked for, it is replaced";
    EXPECT_TRUE(std::filesystem::exists(rig.saved()));
}

TEST(ConfigFile, SectionsKeepNumbersAndLoseIndentation) {
    const auto sections =
        qv::cli::parse_config(" a b\r\n\ninterface swp1\n  c\n!\nd\ninterface range swp1-2\n");
    ASSERT_EQ(sections.size(), 3U);
    EXPECT_EQ(sections[0].port, "");
    EXPECT_EQ(sections[0].lines[0].text, "a b");
    EXPECT_EQ(sections[1].port, "swp1");
    EXPECT_EQ(sections[1].number, 3);
    EXPECT_EQ(sections[1].lines[0].number, 4);
    EXPECT_EQ(sections[1].lines[0].text, "c");
    EXPECT_EQ(sections[2].lines.size(), 2U);
    EXPECT_EQ(sections[2].lines[1].text, "interface range swp1-2");
}

TEST_F(SavedConfig, AnnouncedChangeIsStagedAtOnceAndCommittedAMomentLater) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const std::string old = read_text(rig.saved());
    rig.session.mode = "config";
    rig.type("tarn enable");
    cli_syn_config_notify();
    rig.platform.run_ready();
    EXPECT_EQ(read_text(rig.saved()), old);
    EXPECT_EQ(read_text(rig.saved() + ".new"), " tarn enable\n" + old);
    rig.platform.run_for(5ms);
    EXPECT_EQ(read_text(rig.saved()), " tarn enable\n" + old);
    const std::string next = read_text(rig.saved() + ".new");
    EXPECT_EQ(next + "\n", " tarn enable\n" + old) << "laid out for the next change, not complete";
}

TEST_F(SavedConfig, WriteTakesTheChangeThatWasStagedAlong) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const std::string old = read_text(rig.saved());
    rig.session.mode = "config";
    rig.type("tarn enable");
    cli_syn_config_notify();
    rig.platform.run_ready();
    rig.session.mode = "exec";
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(read_text(rig.saved()), " tarn enable\n" + old);
    // What is laid out for the next change must not be taken for the one that was staged.
    rig.platform.run_for(1s);
    EXPECT_EQ(read_text(rig.saved()), " tarn enable\n" + old);
    EXPECT_EQ(log(), std::vector<std::string>{});
}

TEST_F(SavedConfig, ChangesAreStagedOverWhatWasLaidOutForThem) {
    rig.announce_ready();
    rig.session.mode = "config";
    const std::string ports =
        "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\nend\n";
    const auto saved_after = [&](const char* line) {
        rig.type(line);
        cli_syn_config_notify();
        rig.platform.run_for(1s);
        return read_text(rig.saved());
    };
    EXPECT_EQ(saved_after("tarn enable"), " tarn enable\n" + ports);
    EXPECT_EQ(saved_after("no tarn enable"), ports);
    EXPECT_EQ(saved_after("tarn enable"), " tarn enable\n" + ports);
}

TEST_F(SavedConfig, FileLaidOutThatVanishesCostsOneRetry) {
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    const std::string saved = read_text(rig.saved());
    ASSERT_TRUE(std::filesystem::remove(rig.saved() + ".new"));
    rig.session.mode = "config";
    rig.type("tarn enable");
    cli_syn_config_notify();
    rig.platform.run_for(1s);
    EXPECT_EQ(read_text(rig.saved()), saved);
    EXPECT_EQ(log(), std::vector<std::string>{"CLI-3-SAVE: The configuration cannot be saved to " +
                                              rig.saved() + ": No such file or directory."});
    rig.platform.run_for(30s);
    EXPECT_EQ(read_text(rig.saved()), " tarn enable\n" + saved) << "tried again";
}

TEST_F(SavedConfig, WhatADeadProcessHadStagedIsReplayed) {
    write_text(rig.saved(), "global one\nend\n");
    write_text(rig.saved() + ".new", "global two\nend\n");
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "config 0 two", "end"}));
    EXPECT_EQ(read_text(rig.saved()), "global two\nend\n");
    EXPECT_EQ(read_text(rig.saved() + ".new"), "global two\nend") << "for the next change";
}

TEST_F(SavedConfig, WhatADeadProcessHadStagedInPartIsThrownAway) {
    write_text(rig.saved(), "global one\nend\n");
    write_text(rig.saved() + ".new", "global two\nglob");
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "config 0 one", "end"}));
    EXPECT_EQ(read_text(rig.saved()), "global one\nend\n");
    EXPECT_EQ(read_text(rig.saved() + ".new"), "global one\nend") << "for the next change";
}

TEST_F(SavedConfig, FileLaidOutByADeadProcessIsThrownAway) {
    write_text(rig.saved() + ".new", "global two\nend");
    rig.announce_ready();
    EXPECT_EQ(g_events, (std::vector<std::string>{"start 0", "end"}));
    EXPECT_FALSE(std::filesystem::exists(rig.saved() + ".new"));
}

TEST(ConfigFile, ShorterTextLeavesNothingOfTheLongerOne) {
    const qv::test::TestFolder folder;
    qv::cli::ConfigFile file(folder.file("f"));
    file.prepare("a long text\n");
    EXPECT_EQ(read_text(folder.file("f.new")), "a long text");
    ASSERT_EQ(file.stage("short\n"), "");
    EXPECT_EQ(read_text(folder.file("f.new")), "short\n");
    ASSERT_EQ(file.stage("longer again\n"), "");
    ASSERT_EQ(file.commit(), "");
    EXPECT_EQ(read_text(folder.file("f")), "longer again\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file("f.new")));
}

TEST(ConfigFile, WriteKeepsTheFileToItsOwnerAndGroup) {
    const qv::test::TestFolder folder;
    qv::cli::ConfigFile file(folder.file("f"));
    ASSERT_EQ(file.stage("text\n"), "");
    ASSERT_EQ(file.commit(), "");
    struct stat status {};
    ASSERT_EQ(::stat(folder.file("f").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0007, 0U);
    EXPECT_EQ(qv::cli::ConfigFile(folder.file("none/f")).stage("x"), "No such file or directory");
    EXPECT_EQ(file.commit(), "Bad file descriptor") << "nothing is staged";
}

TEST(ConfigFile, LinkInPlaceOfTheStagedFileIsNotFollowed) {
    const qv::test::TestFolder folder;
    write_text(folder.file("precious"), "precious");
    std::filesystem::create_symlink(folder.file("precious"), folder.file("f.new"));
    qv::cli::ConfigFile file(folder.file("f"));
    EXPECT_EQ(file.stage("text\n"), "Too many levels of symbolic links");
    EXPECT_EQ(read_text(folder.file("precious")), "precious");
}

TEST(ConfigFile, OnlyFilesAreRead) {
    const qv::test::TestFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("pipe")));
    EXPECT_FALSE(qv::cli::read_config_file(folder.path()));
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("none")));
    write_text(folder.file("f"), "one\ntwo");
    EXPECT_EQ(qv::cli::read_config_file(folder.file("f")), "one\ntwo");
}

}  // namespace
