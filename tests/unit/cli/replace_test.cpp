// "configure replace": files that are refused as a whole, the difference, and the timed return.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/cli/caller.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/tarn_commands.h"
#include "platform/cli/walk.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using namespace std::chrono_literals;
using qv::test::write_text;

class Replace : public ::testing::Test {
 protected:
    void configure(const std::vector<std::string>& lines) {
        rig.session = {};
        rig.type("configure terminal");
        for (const std::string& line : lines) {
            EXPECT_EQ(rig.type(line), "") << line;
        }
        rig.session = {};
    }
    // Replaces the configuration by `text`.
    std::string replace(const std::string& text, const std::string& how = "") {
        write_text(file, text);
        return rig.type("configure replace " + file + how);
    }
    std::string refusal(const std::string& reason) { return "% " + file + ": " + reason + "\n"; }
    std::string running() { return rig.type("show running-config"); }
    std::string log() const {
        return rig.platform.log.lines().empty() ? "" : rig.platform.log.lines().back();
    }

    qv::test::CliRig rig;
    const std::string file = rig.folder.file("new");
};

constexpr const char* kPorts = "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\n";

TEST_F(Replace, LeavesExactlyTheLinesOfTheFile) {
    configure({"tarn enable", "tarn error-recover interval 90", "interface swp1", "shutdown",
               "interface swp2", "switchport mode trunk", "tarn port loop-detect warning"});
    const std::string target =
        "tarn error-recover interval 120\n"
        "interface swp1\n!\n"
        "interface swp2\n switchport mode hybrid\n!\n"
        "interface swp3\n shutdown\n!\n"
        "interface swp4\n!\n";
    EXPECT_EQ(replace(target + "end\n"), "");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(running(), target);
}

TEST_F(Replace, RefusesAWholeFileAndChangesNothing) {
    configure({"tarn enable", "interface swp1", "shutdown"});
    const std::string before = running();
    const std::string missing = refusal("The line 'end' is missing: the file is not whole.");
    EXPECT_EQ(replace(""), missing);
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(replace("tarn error-recover interval 120\n"), missing);
    EXPECT_EQ(replace("tarn error-recover interval 120\nendless\n"), missing);
    EXPECT_EQ(replace("tarn error-recover interval 120\n\nroot:x:0:0\nend\n"),
              refusal("line 3: Unknown command: 'root:x:0:0'."));
    EXPECT_EQ(replace("tarn error-recover interval 29\nend\n"),
              refusal("line 1: Number out of range: '29' (30-86400)."));
    EXPECT_EQ(replace("interface swp2\n shutdown\n shutdow now\n!\nend\n"),
              refusal("line 3: Unknown command: 'now'."));
    EXPECT_EQ(replace("switchport mode trunk\nend\n"),
              refusal("line 1: Unknown command: 'switchport'."));
    EXPECT_EQ(replace("tarn error-recover interval 120\nend\nshutdown\n"),
              refusal("line 3: Nothing but comments may follow the line 'end'."));
    EXPECT_EQ(replace("tarn\x01 enable\nend\n"),
              refusal("line 1: Line contains control characters."));
    EXPECT_EQ(replace("tarn " + std::string(1020, 'x') + "\nend\n"),
              refusal("line 1: Line too long."));
    EXPECT_EQ(running(), before);
}

// Such lines would move the session in which the next ones run.
TEST_F(Replace, RefusesLinesThatDoNotConfigure) {
    for (const char* line : {"interface range swp1-2", "interfac swp1", "configure terminal"}) {
        EXPECT_NE(replace(std::string(line) + "\nend\n").find("line 1: Unknown command"),
                  std::string::npos)
            << line;
    }
}

TEST_F(Replace, AcceptsCommentsAnywhereAndTheSealOfASavedFile) {
    EXPECT_EQ(replace("! one\ninterface swp1\n! two\n shutdown\n ! three\n switchport mode trunk\n"
                      "!\n\nend\n! four\n\n! five\n"),
              "");
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
    EXPECT_EQ(running().find("interface swp1\n switchport mode trunk\n shutdown\n!\n"), 0U);
    rig.announce_ready();
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(rig.type("configure replace " + rig.saved()), "");
    EXPECT_EQ(running().find("interface swp1\n switchport mode trunk\n shutdown\n!\n"), 0U);
}

TEST_F(Replace, AnEmptyConfigurationIsOneThatSaysSo) {
    configure({"tarn enable", "interface swp1", "shutdown"});
    EXPECT_EQ(replace("end\n"), "");
    EXPECT_EQ(running(), std::string(kPorts) + "interface swp4\n!\n");
}

TEST_F(Replace, UnderstandsShortKeywordsAndAnOpenSection) {
    configure({"interface swp1", "shutdown"});
    EXPECT_EQ(replace("interface swp1\n shut\n switch mode tr\ntarn error int 0120\r\nend\n"), "");
    EXPECT_EQ(running().find("tarn error-recover interval 120\ninterface swp1\n switchport mode "
                             "trunk\n shutdown\n!\n"),
              0U)
        << running();
    EXPECT_EQ(rig.type("configure replace " + file + " list"), "");
}

TEST_F(Replace, ListShowsTheDifferenceAndChangesNothing) {
    configure({"tarn enable", "interface swp1", "shutdown", "switchport mode trunk"});
    const std::string before = running();
    EXPECT_EQ(
        replace("tarn error-recover interval 120\ninterface swp1\n shutdown\n switchport mode "
                "hybrid\n!\ninterface swp2\n shutdown\n!\ninterface swp9\n shutdown\nend\n",
                " list"),
        "- tarn enable\n+ tarn error-recover interval 120\n"
        "interface swp1\n- switchport mode trunk\n+ switchport mode hybrid\n"
        "interface swp2\n+ shutdown\n"
        "interface swp9\n+ shutdown\n");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(running(), before);
    EXPECT_EQ(replace("", " list"), refusal("The line 'end' is missing: the file is not whole."));
    EXPECT_EQ(rig.code, 1);
}

TEST_F(Replace, SectionOfAnAbsentPortIsNamedKeptAndForgotten) {
    EXPECT_EQ(replace("tarn enable\ninterface swp9\n switchport mode trunk\n!\nend\n"),
              "line 2: interface swp9 does not exist; its lines wait for it.\n");
    EXPECT_EQ(rig.code, 0);
    EXPECT_TRUE(qv::cli::tarn_enabled());
    EXPECT_TRUE(running().ends_with("interface swp9\n switchport mode trunk\n!\n"));
    EXPECT_EQ(replace("tarn enable\nend\n", " list"), "interface swp9\n- switchport mode trunk\n");
    EXPECT_EQ(replace("tarn enable\nend\n"), "");
    EXPECT_TRUE(running().ends_with("interface swp4\n!\n"));
    EXPECT_EQ(replace("interface swp9\n bogus\n!\nend\n"),
              refusal("line 2: Unknown command: 'bogus'."));
}

// A driver reads pending notifications, even of this port, when it changes one.
TEST_F(Replace, PortRemovedDuringItsSectionKeepsTheSectionOfTheFile) {
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(101);
    };
    EXPECT_EQ(replace("interface swp1\n shutdown\n tarn port loop-detect warning\n!\nend\n"),
              "line 1: interface swp1 does not exist; its lines wait for it.\n");
    EXPECT_EQ(rig.code, 0);
    EXPECT_TRUE(
        running().ends_with("interface swp1\n shutdown\n tarn port loop-detect warning\n!\n"));
}

TEST_F(Replace, PortRemovedWhileItsLinesAreUndoneIsDropped) {
    rig.announce_ready();
    configure({"interface swp1", "shutdown", "tarn port loop-detect warning"});
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(101);
    };
    EXPECT_EQ(replace("end\n"), "");
    EXPECT_EQ(running(), "interface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

bool g_loose = true;

TEST_F(Replace, ContinuesAfterALineThatCannotBeUndone) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    const cli_node* print = print_config(
        [](cli_pcdb* pcdb) {
            c2p_printf(pcdb, 1, "stubborn");
            return 0;
        },
        end);
    attach(CLI_CHAIN_CONFIG, keyword("stubborn", "", print), "test");
    // And one after it, in the same section, that can.
    const cli_node* let_go = end_of_line([](cli_pcdb*) {
        g_loose = false;
        return 0;
    });
    const cli_node* print_loose = print_config(
        [](cli_pcdb* pcdb) {
            if (g_loose) {
                c2p_printf(pcdb, 1, "loose");
            }
            return 0;
        },
        with_no(let_go, end));
    attach(CLI_CHAIN_CONFIG, keyword("loose", "", print_loose), "test");
    configure({"interface swp1", "shutdown"});
    EXPECT_EQ(replace("interface swp1\n!\nend\n"), "% stubborn: cannot be undone.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_FALSE(g_loose);
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
}

TEST_F(Replace, ARefusedLineIsNamed) {
    rig.hardware.refusal = "the port is burnt";
    EXPECT_EQ(replace("interface swp2\n shutdown\n!\nend\n"),
              "% line 2: shutdown: % the port is burnt\n");
    EXPECT_EQ(rig.code, 1);
}

TEST_F(Replace, ReturnsUnlessItIsConfirmedInTime) {
    configure({"tarn enable", "interface swp1", "shutdown"});
    const std::string before = running();
    EXPECT_EQ(replace("interface swp1\n!\nend\n", " confirm 10"), "");
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
    rig.platform.run_for(10min - 1s);
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
    rig.platform.run_for(1s);
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
    EXPECT_EQ(running(), before);
    EXPECT_EQ(log(),
              "CLI-4-REVERT: The configuration was not confirmed in time: the one before is back.");
    EXPECT_EQ(rig.type("configure confirm"), "% There is nothing to confirm.\n");
    EXPECT_EQ(replace("end\n"), "") << "nothing waits any more";
}

TEST_F(Replace, StaysWhenItIsConfirmed) {
    configure({"interface swp1", "shutdown"});
    EXPECT_EQ(replace("end\n", " confirm 1440"), "");
    const std::regex busy(
        R"(% The configuration goes back at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d unless )"
        R"('configure confirm' is typed: it cannot be replaced before\.\n)");
    EXPECT_TRUE(std::regex_match(replace("end\n"), busy));
    EXPECT_TRUE(std::regex_match(replace("end\n", " confirm 1"), busy));
    EXPECT_EQ(rig.type("configure confirm"), "");
    EXPECT_EQ(rig.code, 0);
    rig.platform.run_for(25h);
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
    EXPECT_EQ(replace("end\n", " confirm 0"), "% Number out of range: '0' (1-1440).\n");
    EXPECT_EQ(replace("end\n", " confirm 1441"), "% Number out of range: '1441' (1-1440).\n");
}

TEST_F(Replace, ReturnsAfterAMinuteOfRealTimeOnAFastClock) {
    rig.platform.settings.speed = 10.0;
    configure({"interface swp1", "shutdown"});
    EXPECT_EQ(replace("end\n", " confirm 1"), "");
    rig.platform.run_for(599s);
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
    rig.platform.run_for(1s);
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
}

TEST_F(Replace, ReturnReportsThatSomeOfItsLinesWereRefused) {
    configure({"interface swp1", "shutdown"});
    EXPECT_EQ(replace("end\n", " confirm 1"), "");
    rig.hardware.refusal = "the port is burnt";
    rig.platform.run_for(1min);
    EXPECT_EQ(log(),
              "CLI-4-REVERT: The configuration was not confirmed in time: the one before is back, "
              "but some of its lines were refused.");
}

TEST_F(Replace, ContinuesAfterARefusedLineAndReportsIt) {
    using namespace qv::cli;
    const cli_node* silent = end_of_line([](cli_pcdb*) { return 7; });
    const cli_node* loud = end_of_line([](cli_pcdb*) {
        cli_printf("not today\n");
        return 0;
    });
    attach(CLI_CHAIN_CONFIG, keyword("silent", "", silent), "test");
    attach(CLI_CHAIN_INTERFACE, keyword("loud", "", loud), "test");
    EXPECT_EQ(replace("silent\ntarn enable\ninterface swp1\n!\nend\n"),
              "% line 1: silent: refused\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_TRUE(qv::cli::tarn_enabled());
    EXPECT_EQ(replace("interface swp1\n loud\n shutdown\n!\ninterface swp2\n shutdown\n!\nend\n"),
              "% line 2: loud: not today\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
}

bool g_quiet = true;

TEST_F(Replace, LineThatBeginsWithNoIsUndoneByTheLineWithoutIt) {
    using namespace qv::cli;
    const cli_node* off = end_of_line([](cli_pcdb*) {
        g_quiet = true;
        return 0;
    });
    const cli_node* on = end_of_line([](cli_pcdb*) {
        g_quiet = false;
        return 0;
    });
    const auto print = [](cli_pcdb* pcdb) {
        if (g_quiet) {
            c2p_printf(pcdb, 1, "no chatter");
        }
        return 0;
    };
    attach(CLI_CHAIN_CONFIG, keyword("chatter", "", print_config(print, with_no(off, on))), "test");
    EXPECT_EQ(replace("end\n"), "");
    EXPECT_FALSE(g_quiet);
    EXPECT_EQ(replace("no chatter\nend\n"), "");
    EXPECT_TRUE(g_quiet);
}

TEST_F(Replace, ValueThatTheOldOneBeginsWithIsAnotherOne) {
    configure({"tarn error-recover interval 900"});
    EXPECT_EQ(replace("tarn error-recover interval 90\nend\n"), "");
    EXPECT_TRUE(running().starts_with("tarn error-recover interval 90\ninterface swp1\n"));
}

TEST_F(Replace, CommentAfterATabEndsNoSection) {
    EXPECT_EQ(replace("interface swp1\n\t! a word\n\tshutdown\n!\n\tend\n"), "");
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
}

TEST_F(Replace, GlobalLinesMayFollowASectionThatNothingEnds) {
    EXPECT_EQ(replace("interface swp1\n shutdown\ntarn enable\ntarn error-recover interval 90\n"
                      "end\n"),
              "");
    EXPECT_EQ(running(),
              "tarn enable\ntarn error-recover interval 90\ninterface swp1\n shutdown\n!\n"
              "interface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(replace("interface swp1\ntarn enable\nshutdown\nend\n"),
              refusal("line 3: Unknown command: 'shutdown'."));
}

TEST_F(Replace, PortRemovedWhileItsLinesAreUndoneKeepsTheSectionOfTheFile) {
    configure({"interface swp1", "shutdown", "tarn port loop-detect warning"});
    rig.hardware.before_change = [&] {
        rig.hardware.before_change = nullptr;
        rig.model.port_removed(101);
    };
    replace("interface swp1\n tarn port loop-detect warning\n!\nend\n");
    EXPECT_TRUE(running().ends_with("interface swp1\n tarn port loop-detect warning\n!\n"))
        << running();
}

TEST_F(Replace, RefusedFileBeginsNoTrial) {
    EXPECT_EQ(replace("", " confirm 5"),
              refusal("The line 'end' is missing: the file is not whole."));
    EXPECT_EQ(rig.type("configure confirm"), "% There is nothing to confirm.\n");
}

TEST_F(Replace, RefusesMoreAbsentPortsThanCanBeKept) {
    std::string text;
    for (int port = 1; port <= 4096; ++port) {
        text += "interface x" + std::to_string(port) + "\n shutdown\n!\n";
    }
    EXPECT_EQ(replace(text + "interface x1\n!\ninterface swp1\n!\nend\n", " list").substr(0, 12),
              "interface x1");
    const std::string before = running();
    EXPECT_EQ(replace(text + "interface x4097\n!\nend\n"),
              refusal("line 12289: More than 4096 interfaces that do not exist."));
    EXPECT_EQ(running(), before);
}

TEST_F(Replace, RefusesMoreCommandsThanTheLoopHasTimeFor) {
    std::string text;
    for (int line = 0; line < 131072; ++line) {
        text += "tarn enable\n";
    }
    EXPECT_EQ(replace(text + "end\n", " list").substr(0, 14), "+ tarn enable\n");
    const std::string excess = refusal("It has more than 131072 commands.");
    EXPECT_EQ(replace(text + "tarn enable\nend\n"), excess);
    EXPECT_EQ(replace(text + "interface swp1\n shutdown\n!\nend\n"), excess);
}

TEST_F(Replace, ReadsRegularFilesOnly) {
    EXPECT_EQ(rig.type("configure replace /nowhere/at/all"),
              "% /nowhere/at/all: No such file or directory.\n");
    EXPECT_EQ(rig.type("configure replace /dev/null"), "% /dev/null: It is not a regular file.\n");
    EXPECT_EQ(rig.type("configure replace " + rig.folder.path()),
              "% " + rig.folder.path() + ": It is not a regular file.\n");
    ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
    EXPECT_EQ(rig.type("configure replace " + file), refusal("It is not a regular file."));
    ::unlink(file.c_str());
    write_text(rig.folder.file("real"), "end\n");
    std::filesystem::create_symlink(rig.folder.file("real"), file);
    EXPECT_EQ(rig.type("configure replace " + file), refusal("It is a symbolic link."));
}

constexpr uid_t kNobody = 65534;
constexpr gid_t kTeam = 12345;

// Files of root, requested by other users.
class ReplaceAsAUser : public Replace {
 protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root can take on the rights of another user";
        }
        write_text(file, "tarn enable\nend\n");
        ASSERT_EQ(::chown(file.c_str(), 0, kTeam), 0);
        ASSERT_EQ(::chmod(rig.folder.path().c_str(), 0755), 0);
    }
    std::string replace_as(const qv::cli::Caller& caller, mode_t mode) {
        EXPECT_EQ(::chmod(file.c_str(), mode), 0);
        rig.session.caller = caller;
        return rig.type("configure replace " + file);
    }
};

TEST_F(ReplaceAsAUser, FileMustBeOneThatTheUserMayRead) {
    const std::string denied = refusal("Permission denied.");
    EXPECT_EQ(replace_as({kNobody, kNobody, {}}, 0640), denied);
    EXPECT_EQ(replace_as({kNobody, kNobody, {1, kTeam}}, 0600), denied);
    EXPECT_FALSE(qv::cli::tarn_enabled());
    EXPECT_EQ(replace_as({kNobody, kTeam, {}}, 0640), "");
    EXPECT_EQ(replace_as({kNobody, kNobody, {1, kTeam}}, 0640), "");
    EXPECT_EQ(replace_as({kNobody, kNobody, {}}, 0644), "");
    EXPECT_EQ(replace_as({0, 0, {}}, 0600), "") << "root may read everything";
}

TEST_F(ReplaceAsAUser, FolderMustBeOneThatTheUserMayEnter) {
    ASSERT_EQ(::chmod(rig.folder.path().c_str(), 0700), 0);
    EXPECT_EQ(replace_as({kNobody, kNobody, {}}, 0644), refusal("Permission denied."));
}

TEST_F(ReplaceAsAUser, ProcessHasItsOwnRightsAgainAfterwards) {
    std::vector<gid_t> before(64);
    before.resize(static_cast<size_t>(::getgroups(64, before.data())));
    replace_as({kNobody, kNobody, {1, kTeam}}, 0600);
    replace_as({kNobody, kNobody, {1, kTeam}}, 0640);
    std::vector<gid_t> after(64);
    after.resize(static_cast<size_t>(::getgroups(64, after.data())));
    EXPECT_EQ(after, before);
    rig.session.caller.reset();
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(::chown(file.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(rig.type("configure replace " + file), "");
}

TEST_F(ReplaceAsAUser, UserWhomTheKernelDoesNotKnowMayReadNothing) {
    EXPECT_EQ(replace_as(qv::cli::caller_at(-1), 0644), refusal("Operation not permitted."));
}

std::optional<qv::cli::Caller> g_caller;

TEST_F(Replace, CallerOfASessionIsTheUserOfItsClient) {
    using namespace qv::cli;
    attach(kChainView, keyword("who", "", end_of_line([](cli_pcdb*) {
                                   g_caller = current_session()->caller;
                                   return 0;
                               })),
           "test");
    std::vector<gid_t> groups(64);
    groups.resize(static_cast<size_t>(::getgroups(64, groups.data())));
    for (const char* request :
         {"{\"exec\": \"who\"}\n", "{\"exec\": \"who\", \"mode\": \"exec\"}\n"}) {
        g_caller.reset();
        qv::test::WireClient client(rig.platform.settings.cli_socket);
        client.send(request);
        rig.platform.run_ready();
        ASSERT_TRUE(g_caller) << request;
        EXPECT_EQ(g_caller->uid, ::geteuid());
        EXPECT_EQ(g_caller->gid, ::getegid());
        EXPECT_EQ(g_caller->groups, groups);
    }
    rig.type("who");
    EXPECT_FALSE(g_caller);
}

int g_walks = 0;

TEST_F(Replace, WordsAreTakenOffALineUntilNoneIsLeft) {
    using namespace qv::cli;
    attach(CLI_CHAIN_CONFIG,
           custom(
               [](cli_walk* walk, const cli_node* node) {
                   if (++g_walks > 1000) {
                       throw std::runtime_error("no end of walks");
                   }
                   walk->visit(node->alternative);
               },
               nullptr),
           "test");
    const cli_node* print = print_config(
        [](cli_pcdb* pcdb) {
            c2p_printf(pcdb, 1, "one two");
            return 0;
        },
        end_of_line([](cli_pcdb*) { return 0; }));
    attach(CLI_CHAIN_CONFIG, keyword("one", "", keyword("two", "", print)), "test");
    EXPECT_EQ(replace("end\n"), "% one two: cannot be undone.\n");
}

TEST_F(Replace, LineForAnotherTypeOfPortIsOneOfAnAbsentPortOnly) {
    using namespace qv::cli;
    static const cli_test_arg kTest = {
        .accept = end_of_line([](cli_pcdb*) { return 0; }),
        .alternative = nullptr,
        .test = [](cli_pcdb* pcdb) {
            return pcdb->ifx == 500 || (pcdb->ifx == 0 && pcdb->ifrange_types != 0) ? 1 : 0;
        }};
    static const cli_node kTyped = {test_expression_action, &kTest, nullptr, nullptr, nullptr};
    attach(CLI_CHAIN_INTERFACE, keyword("typed", "", &kTyped), "test");
    rig.hardware.add("fibre", 500);
    EXPECT_EQ(replace("interface fibre\n typed\n!\nend\n"), "");
    EXPECT_EQ(replace("interface swp9\n typed\n!\nend\n"),
              "line 1: interface swp9 does not exist; its lines wait for it.\n");
    EXPECT_EQ(replace("interface swp1\n typed\n!\nend\n"), refusal("line 2: Incomplete command."));
}

}  // namespace
