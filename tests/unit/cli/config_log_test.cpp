// The log of configuration lines: which lines are logged, and how.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/operator_session.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using qv::test::write_text;
using Lines = std::vector<std::string>;

class ConfigLog : public ::testing::Test {
 protected:
    ConfigLog() {
        using namespace qv::cli;
        attach(
            CLI_CHAIN_CONFIG,
            keyword("note", "", rest_of_line("TEXT", "", end_of_line([](cli_pcdb*) { return 0; }))),
            "test");
    }
    Lines log() const { return qv::test::logged(rig.platform.log, "CLI-6-CONFIG: "); }

    qv::test::CliRig rig;
    qv::test::OperatorSession ann{"ann", 1234, 812};
};

TEST_F(ConfigLog, NamesPlaceUserAndProcessOfEachLine) {
    for (const char* line :
         {"configure terminal", "  tarn   enable ", "interface swp1", "shutdown", "no shut", "exit",
          "interface range swp1-2, swp4", "switchport mode trunk", "end"}) {
        EXPECT_EQ(ann.type(line), "") << line;
    }
    EXPECT_EQ(log(),
              (Lines{"CLI-6-CONFIG: \"tarn enable\" by ann (uid 1234, pid 812)",
                     "CLI-6-CONFIG: \"interface swp1; shutdown\" by ann (uid 1234, pid 812)",
                     "CLI-6-CONFIG: \"interface swp1; no shut\" by ann (uid 1234, pid 812)",
                     "CLI-6-CONFIG: \"interface range swp1-2,swp4; switchport mode trunk\" by "
                     "ann (uid 1234, pid 812)"}));
}

TEST_F(ConfigLog, LeavesOutLinesThatChangeNothing) {
    for (const char* line :
         {"show version", "terminal monitor", "configure terminal", "! comment", "", "nonsense",
          "tarn", "tarn error-recover interval 5", "interface swp1", "exit", "end"}) {
        ann.type(line);
    }
    EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigLog, SaysThatALineWasRefused) {
    ann.type("configure terminal");
    ann.type("interface swp1");
    rig.hardware.refusal = "Device or resource busy";
    EXPECT_EQ(ann.type("shutdown"), "% Device or resource busy\n");
    ann.type("interface range swp1-2");
    ann.type("shutdown");
    EXPECT_EQ(
        log(),
        (Lines{"CLI-6-CONFIG: \"interface swp1; shutdown\" by ann (uid 1234, pid 812): refused",
               "CLI-6-CONFIG: \"interface range swp1-2; shutdown\" by ann (uid 1234, pid 812): "
               "refused on at least one port"}));
}

TEST_F(ConfigLog, LeavesOutProgramsAndTheReplay) {
    write_text(rig.saved(), "tarn enable\ninterface swp2\n shutdown\n!\nend\n");
    rig.announce_ready();
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = 101;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown \r\n", &mode, nullptr, nullptr), 0);
    ::close(session);
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
    EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigLog, EscapesBytesThatCouldDisguiseALine) {
    ann.type("configure terminal");
    EXPECT_EQ(ann.type("note x\" by root (uid 0)\\ \xc2\xa0 \xe2\x80\xae\tz"), "");
    EXPECT_EQ(log(),
              Lines{R"(CLI-6-CONFIG: "note x\" by root (uid 0)\\ \xc2\xa0 \xe2\x80\xae z" by ann )"
                    "(uid 1234, pid 812)"});
}

TEST_F(ConfigLog, LongLineLeavesRoomForItsUser) {
    using namespace qv::cli;
    const cli_node* words = end_of_line([](cli_pcdb*) { return 0; });
    std::string typed = "words";
    std::string word;
    while (word.size() + 3 < CLI_WORD_BYTES) {
        word += "\xe2\x80\xae";
    }
    for (int n = 0; n < 4; ++n) {
        words = any_word("WORD", "", words);
        typed += " " + word;
    }
    attach(CLI_CHAIN_CONFIG, keyword("words", "", words), "words");
    ann.type("configure terminal");
    EXPECT_EQ(ann.type(typed), "");
    ASSERT_EQ(log().size(), 1U);
    const std::string line = log().front();
    EXPECT_TRUE(line.starts_with("CLI-6-CONFIG: \"words \\xe2\\x80"));
    EXPECT_TRUE(line.ends_with("...\" by ann (uid 1234, pid 812)")) << line;
}

TEST_F(ConfigLog, NamesThePortOfAWishWhosePortHasLeft) {
    ann.type("configure terminal");
    ann.type("interface swp1");
    ann.type("shutdown");
    rig.announce_ready();
    rig.hardware.remove(101);
    EXPECT_EQ(ann.type("no shutdown"),
              "The interface does not exist; it will be brought up when it returns.\n");
    EXPECT_EQ(log().back(),
              "CLI-6-CONFIG: \"interface swp1; no shutdown\" by ann (uid 1234, pid 812)");
}

TEST_F(ConfigLog, HasReplacementsAndConfirmationsAsOneLineEach) {
    // The file is read with this user's rights.
    qv::test::OperatorSession self{"self", ::geteuid(), 99};
    const std::string by = "\" by self (uid " + std::to_string(::geteuid()) + ", pid 99)";
    const std::string file = rig.folder.file("new");
    write_text(file, "tarn enable\ninterface swp1\n shutdown\n!\nend\n");
    EXPECT_EQ(self.type("configure replace " + file + " list").substr(0, 2), "+ ");
    EXPECT_EQ(self.type("configure replace " + file + " confirm 5"), "");
    EXPECT_EQ(self.type("configure confirm"), "");
    rig.hardware.refusal = "the port is burnt";
    write_text(file, "end\n");
    self.type("configure replace " + file);
    EXPECT_EQ(log(),
              (Lines{"CLI-6-CONFIG: \"configure replace " + file + " confirm 5" + by,
                     "CLI-6-CONFIG: \"configure confirm" + by,
                     "CLI-6-CONFIG: \"configure replace " + file + by + ": some lines refused"}));
}

TEST_F(ConfigLog, UserWithoutANameIsANumber) {
    EXPECT_EQ(qv::cli::describe({4321, 1, {}, 77}), "uid 4321 (pid 77)");
}

TEST_F(ConfigLog, UserOfASocketIsTheOneTheKernelNames) {
    qv::test::WireClient client(rig.platform.settings.cli_socket);
    client.send("{\"exec\": \"shutdown\", \"mode\": \"interface\", \"ifx\": 103}\n");
    rig.platform.run_ready();
    const passwd* const user = ::getpwuid(::geteuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(log(), Lines{"CLI-6-CONFIG: \"interface swp3; shutdown\" by " +
                           std::string(user->pw_name) + " (uid " + std::to_string(::geteuid()) +
                           ", pid " + std::to_string(::getpid()) + ")"});
}

}  // namespace
