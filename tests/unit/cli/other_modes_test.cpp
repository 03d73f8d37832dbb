// Lines that operators type in a mode other than the line's own, and "no" before whole lines.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/tarn_commands.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::attach;
using qv::cli::end_of_line;
using qv::cli::keyword;
using qv::cli::number;
using qv::cli::with_no;

std::vector<std::string> g_calls;

int record(cli_pcdb* pcdb) {
    g_calls.push_back(std::string(pcdb->mode) + " ifx=" + std::to_string(pcdb->ifx) + " prefix=" +
                      std::to_string(pcdb->prefix) + " number=" + std::to_string(pcdb->number[0]));
    return 0;
}

using Calls = std::vector<std::string>;

class OtherModes : public ::testing::Test {
 protected:
    OtherModes() { g_calls.clear(); }

    // Types a line in a fresh session of this mode.
    std::string in(const std::string& mode, const std::string& line) {
        rig.session = {};
        rig.session.mode = mode;
        rig.session.ifx = 102;
        rig.session.range = {101, 103};
        return rig.type(line);
    }
    std::string prompt() { return qv::cli::prompt(rig.session); }
    std::optional<size_t> wrong_at(const std::string& mode, const std::string& line) {
        in(mode, "");
        return qv::cli::execute(rig.session, line).wrong_at;
    }
    std::string help(const std::string& mode, const std::string& line) {
        in(mode, "");
        return qv::cli::help_text(rig.session, line);
    }
    std::string completions(const std::string& mode, const std::string& line) {
        in(mode, "");
        return qv::cli::completions(rig.session, line);
    }

    qv::test::CliRig rig;
};

TEST_F(OtherModes, DoRunsALineOfModeExecAndTheModeStays) {
    attach(qv::cli::kChainExec, keyword("alpha", "", end_of_line(record)), "test");
    for (const char* mode : {"config", "interface", "ifrange"}) {
        EXPECT_EQ(in(mode, "do alpha"), "");
        EXPECT_EQ(rig.code, 0);
        EXPECT_EQ(rig.session.mode, mode);
        EXPECT_EQ(in(mode, " do  show version"), "lda 0.1.0\n");
        EXPECT_EQ(rig.session.mode, mode);
    }
    EXPECT_EQ(g_calls, (Calls{"exec ifx=0 prefix=0 number=0", "exec ifx=0 prefix=0 number=0",
                              "exec ifx=0 prefix=0 number=0"}));
}

TEST_F(OtherModes, DoIsUnknownInModeExecAndNeedsALine) {
    EXPECT_EQ(in("exec", "do show version"), "% Unknown command: 'do'.\n");
    EXPECT_EQ(in("config", "do do show version"), "% Unknown command: 'do'.\n");
    EXPECT_EQ(in("config", "do bogus"), "% Unknown command: 'bogus'.\n");
    EXPECT_EQ(in("config", "do show"), "% Incomplete command.\n");
    EXPECT_EQ(in("config", "do"), "% Unknown command: 'do'.\n");
}

TEST_F(OtherModes, DoThatMovesTheSessionMovesIt) {
    in("interface", "do configure terminal");
    EXPECT_EQ(prompt(), "lda(config)# ");
    in("interface", "do disable");
    EXPECT_EQ(prompt(), "lda> ");
    in("interface", "do exit");
    EXPECT_TRUE(rig.session.leaving);
}

TEST_F(OtherModes, ShowWorksInEveryMode) {
    for (const char* mode : {"config", "interface", "ifrange"}) {
        EXPECT_EQ(in(mode, "show version"), "lda 0.1.0\n");
        EXPECT_EQ(in(mode, "sh ver"), "lda 0.1.0\n");
        EXPECT_EQ(rig.session.mode, mode);
        EXPECT_EQ(in(mode, "show nothing"), "% Unknown command: 'nothing'.\n");
        EXPECT_EQ(in(mode, "show"), "% Incomplete command.\n");
        EXPECT_EQ(in(mode, "no show version"), "% Invalid prefix: 'no' does not apply here.\n");
    }
    EXPECT_TRUE(rig.model.find(102U)->admin_up) << "'sh ver' is no shutdown";
}

TEST_F(OtherModes, LineOfTheModeItselfWins) {
    attach(CLI_CHAIN_INTERFACE, keyword("show", "", keyword("version", "", end_of_line(record))),
           "test");
    attach(CLI_CHAIN_INTERFACE, keyword("end", "", keyword("of", "", end_of_line(record))), "test");
    EXPECT_EQ(in("interface", "show version"), "");
    EXPECT_EQ(in("interface", "end of"), "");
    EXPECT_EQ(prompt(), "lda(config-if-swp2)# ");
    EXPECT_EQ(g_calls, (Calls{"interface ifx=102 prefix=0 number=0",
                              "interface ifx=102 prefix=0 number=0"}));
}

TEST_F(OtherModes, GlobalLineLeavesTheInterfaceModes) {
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "", with_no(end_of_line(record), end_of_line(record))), "test");
    for (const char* mode : {"interface", "ifrange"}) {
        EXPECT_EQ(in(mode, "tarn enable"), "");
        EXPECT_EQ(prompt(), "lda(config)# ");
        EXPECT_EQ(in(mode, "no alpha"), "");
        EXPECT_EQ(prompt(), "lda(config)# ");
    }
    EXPECT_TRUE(qv::cli::tarn_enabled());
    EXPECT_EQ(g_calls, (Calls{"config ifx=0 prefix=1 number=0", "config ifx=0 prefix=1 number=0"}));
}

TEST_F(OtherModes, InterfaceLineMovesBetweenPorts) {
    in("interface", "interface swp4");
    EXPECT_EQ(prompt(), "lda(config-if-swp4)# ");
    in("ifrange", "interface swp3");
    EXPECT_EQ(prompt(), "lda(config-if-swp3)# ");
}

TEST_F(OtherModes, RefusedLineStaysInItsModeAndGetsTheReasonOfTheBetterMode) {
    EXPECT_EQ(in("interface", "tarn error-recover interval 5"),
              "% Number out of range: '5' (30-86400).\n");
    EXPECT_EQ(in("interface", "tarn error-recover"), "% Incomplete command.\n");
    EXPECT_EQ(in("interface", "bogus"), "% Unknown command: 'bogus'.\n");
    EXPECT_EQ(in("interface", "tarn bogus"), "% Unknown command: 'bogus'.\n");
    EXPECT_EQ(prompt(), "lda(config-if-swp2)# ");
}

TEST_F(OtherModes, AmbiguousLineIsNotLookedForInModeConfig) {
    attach(CLI_CHAIN_INTERFACE,
           keyword("alpha", "", end_of_line(record), keyword("alpine", "", end_of_line(record))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("alps", "", end_of_line(record)), "test");
    EXPECT_EQ(in("interface", "alp"), "% Ambiguous command: 'alp' (alpha, alpine).\n");
    EXPECT_EQ(in("interface", "alps"), "");
    EXPECT_EQ(g_calls, Calls{"config ifx=0 prefix=0 number=0"});
}

TEST_F(OtherModes, ProgramsAndFilesHaveOnlyTheLinesOfTheirMode) {
    for (const bool program : {true, false}) {
        for (const char* line : {"do show version", "show version", "tarn enable"}) {
            in("interface", "");
            rig.session.program = program;
            rig.session.from_file = !program;
            EXPECT_NE(rig.type(line).find("% Unknown command: "), std::string::npos) << line;
            EXPECT_EQ(rig.code, -1);
            EXPECT_EQ(rig.session.mode, "interface");
        }
    }
    EXPECT_FALSE(qv::cli::tarn_enabled());
}

TEST_F(OtherModes, NoAcceptsAWholeLineWhoseOwnNoFormEndsEarlier) {
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "",
                   with_no(end_of_line(record),
                           number("", 1, 9, keyword("beta", "", end_of_line(record))))),
           "test");
    EXPECT_EQ(in("config", "no  alpha 5  beta"), "");
    EXPECT_EQ(g_calls, Calls{"config ifx=0 prefix=1 number=0"});
    EXPECT_EQ(in("config", "no alpha 10 beta"), "% Unknown command: '10'.\n");
    EXPECT_EQ(in("config", "no alpha 5 gamma"), "% Unknown command: '5'.\n");
    EXPECT_EQ(in("config", "no alpha 5"), "% Unknown command: '5'.\n") << "no line of its own";
    EXPECT_EQ(g_calls.size(), 1U);
}

TEST_F(OtherModes, NoAcceptsAWholeLineForEachPortOfARange) {
    for (const char* line : {"switchport mode trunk", "no switchport mode trunk"}) {
        EXPECT_EQ(in("ifrange", line), "");
    }
    EXPECT_EQ(in("exec", "show running-config"),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

TEST_F(OtherModes, ProgramsNoAcceptsOnlyTheNoForm) {
    in("interface", "");
    rig.session.program = true;
    EXPECT_EQ(rig.type("no switchport mode trunk"), "% Unknown command: 'trunk'.\n");
}

TEST_F(OtherModes, RefusedLineNamesTheWrongWord) {
    EXPECT_EQ(wrong_at("config", "  tarn bogus 7"), 7U);
    EXPECT_EQ(wrong_at("config", "tarn error-recover interval 5"), 28U);
    EXPECT_EQ(wrong_at("config", "tarn \r\n"), 4U) << "the end: something is missing";
    EXPECT_EQ(wrong_at("config", "no"), 2U);
    EXPECT_EQ(wrong_at("config", " no exit"), 1U);
    EXPECT_EQ(wrong_at("config", "do show bogus"), 8U);
    EXPECT_EQ(wrong_at("config", "show bogus"), 5U);
    EXPECT_EQ(wrong_at("interface", "tarn error-recover interval 5"), 28U);
    EXPECT_EQ(wrong_at("exec", "e"), 0U) << "ambiguous";
    EXPECT_EQ(wrong_at("config", "interface swp9"), std::nullopt) << "a command that refuses";
    EXPECT_EQ(wrong_at("config", "tarn enable"), std::nullopt);
    EXPECT_EQ(wrong_at("config", "tarn \x01"), std::nullopt);
}

TEST_F(OtherModes, HelpListsDoAndShowInConfigurationModes) {
    for (const char* mode : {"config", "interface", "ifrange"}) {
        const std::string all = help(mode, "");
        EXPECT_NE(all.find("  do                      Run a command of the first mode\n"),
                  std::string::npos)
            << all;
        EXPECT_NE(all.find("\n  show                    Show what the switch knows\n"),
                  std::string::npos)
            << all;
        EXPECT_EQ(completions(mode, "do sho"), "show\n");
        EXPECT_EQ(completions(mode, "do show ver"), "version\n");
        EXPECT_EQ(completions(mode, "show ver"), "version\n");
        EXPECT_EQ(completions(mode, "do do "), "");
    }
    EXPECT_EQ(completions("exec", "do"), "");
    EXPECT_EQ(completions("interface", "sh"), "show\nshutdown\n");
    EXPECT_EQ(completions("interface", "no sh"), "shutdown\n");
}

TEST_F(OtherModes, HelpInInterfaceModesKnowsGlobalLinesOnceTheyAreBegun) {
    EXPECT_EQ(help("interface", "tarn ").find("enable"), std::string::npos);
    EXPECT_EQ(completions("interface", "tarn e"), "enable\nerror-recover\n");
    EXPECT_EQ(completions("interface", "tarn "), "link-up\nport\nvlan\n") << "its own come first";
}

TEST_F(OtherModes, HelpAfterABegunWordListsTheSlotsThatItMayFill) {
    EXPECT_EQ(help("config", "tarn error-recover interval 8"),
              "  <30-86400>              Seconds\n");
    EXPECT_EQ(help("config", "tarn error-recover interval 86401"), "");
    EXPECT_EQ(help("config", "tarn error-recover interval 8x"), "");
    EXPECT_EQ(help("config", "tarn error-recover interval 90 "), "  <cr>\n");
    EXPECT_EQ(help("config", "interface swp3"),
              "  swp3\n"
              "  INTERFACE               Name of an interface\n");
    EXPECT_EQ(help("config", "interface range swp1, sw"),
              "  LIST                    Such as swp1-4,swp7\n");
    EXPECT_EQ(completions("config", "tarn error-recover interval 8"), "");
}

}  // namespace
