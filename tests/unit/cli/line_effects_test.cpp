// Effects of lines beyond their output: the ports they change, the observers they notify, the lines
// they generate.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/journal.h"
#include "platform/cli/running_config.h"
#include "platform/cli/tarn_commands.h"
#include "qv/bridge.h"
#include "qv/lsm.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;
using qv::cli::ConfigSection;

class LineEffects : public ::testing::Test {
 protected:
    LineEffects() {
        rig.announce_ready();
        rig.platform.run_for(1s);
    }
    std::string in(const std::string& mode, const std::string& line) {
        rig.session = {};
        rig.session.mode = mode;
        rig.session.ifx = 101;
        return rig.type(line);
    }
    void change(uint32_t ifx, const std::function<void(qv::Port&)>& how) {
        qv::Port port = *rig.model.find(ifx);
        how(port);
        rig.model.port_changed(port);
    }
    const qv::Port& port(uint32_t ifx) const { return *rig.model.find(ifx); }

    qv::test::CliRig rig;
};

// ---- Default interface ----

TEST_F(LineEffects, DefaultInterfaceEndsEitherModeOfAPort) {
    for (const uint32_t mode : {SWPORT_MODE_TRUNK, SWPORT_MODE_HYBRID}) {
        rig.hardware.set_mode(101, mode);
        EXPECT_EQ(in("config", "default interface swp1"), "");
        EXPECT_EQ(port(101).mode, static_cast<uint32_t>(SWPORT_MODE_ACCESS));
    }
}

TEST_F(LineEffects, DefaultInterfaceAsksNothingOfAPortThatIsAsItShouldBe) {
    rig.hardware.refusal = "Device or resource busy";
    int admin_changes = 0;
    rig.hardware.before_change = [&] {
        ++admin_changes;
    };
    EXPECT_EQ(in("config", "default interface swp1"), "");
    EXPECT_EQ(admin_changes, 0);
}

TEST_F(LineEffects, DefaultInterfaceLeavesAPortShutWhoseModeCannotBeSet) {
    rig.hardware.set_mode(101, SWPORT_MODE_TRUNK);
    rig.hardware.set_admin(101, false);
    rig.hardware.refusal = "Device or resource busy";
    int admin_changes = 0;
    rig.hardware.before_change = [&] {
        ++admin_changes;
    };
    EXPECT_EQ(in("config", "default interface swp1"), "% Device or resource busy\n");
    EXPECT_EQ(admin_changes, 0);
}

TEST_F(LineEffects, DefaultInterfaceIsJournalledBeforeThePortIsUp) {
    in("interface", "shutdown");
    rig.platform.run_for(1s);
    std::string port_of_record = "not called";
    rig.hardware.before_change = [&] {
        const auto records = qv::cli::read_journal(rig.saved() + ".journal");
        port_of_record = records.empty() ? "none" : records.back().section.port;
    };
    EXPECT_EQ(in("config", "default interface swp1"), "");
    EXPECT_EQ(port_of_record, "swp1");
}

TEST_F(LineEffects, StatesShowTheAggregateAndAPortWithoutAMode) {
    change(101, [](qv::Port& p) { p.aggregate = 104; });
    change(102, [](qv::Port& p) { p.aggregate = 999; });
    change(103, [](qv::Port& p) { p.mode = SWPORT_MODE_NONE; });
    EXPECT_EQ(in("exec", "show interfaces status"),
              "Port             Index    Admin  Link  Mode    Aggregate        Reason\n"
              "swp1             101      up     up    access  swp4\n"
              "swp2             102      up     up    access  -\n"
              "swp3             103      up     up    none    -\n"
              "swp4             104      up     up    access  -\n");
}

// ---- Observers of tarn lines ----

TEST_F(LineEffects, TarnObserversAreNotifiedOfChangesOnly) {
    int changes = 0;
    qv::cli::add_tarn_observer([&](uint64_t) { ++changes; });
    const auto changes_after = [&](const std::string& mode, const std::string& line) {
        changes = 0;
        EXPECT_EQ(in(mode, line), "") << line;
        return changes;
    };
    EXPECT_EQ(changes_after("config", "tarn error-recover interval 90"), 1);
    EXPECT_EQ(changes_after("config", "tarn error-recover interval 90"), 0);
    EXPECT_EQ(changes_after("config", "no tarn error-recover interval"), 1);
    EXPECT_EQ(changes_after("config", "no tarn error-recover interval"), 0);
    EXPECT_EQ(changes_after("interface", "no tarn port loop-detect"), 0);
    EXPECT_EQ(changes_after("interface", "tarn port loop-detect warning"), 1);
    EXPECT_EQ(changes_after("interface", "tarn port loop-detect warning"), 0);
    EXPECT_EQ(changes_after("interface", "no tarn port loop-detect"), 1);
    EXPECT_EQ(changes_after("interface", "tarn port loop-detect warning"), 1);
    changes = 0;
    rig.hardware.remove(101);
    EXPECT_EQ(changes, 1);
    rig.hardware.remove(102);
    EXPECT_EQ(changes, 1);
}

// ---- Generated lines ----

std::function<void(cli_pcdb*)> g_print;

class Generated : public LineEffects {
 protected:
    Generated() {
        using namespace qv::cli;
        const auto print = [](cli_pcdb* pcdb) {
            if (g_print) {
                g_print(pcdb);
            }
            return 0;
        };
        const cli_node* nothing = end_of_line([](cli_pcdb*) { return 0; });
        attach(CLI_CHAIN_CONFIG, keyword("printed", "", print_config(print, nothing)), "test");
        attach(CLI_CHAIN_INTERFACE, keyword("printed", "", print_config(print, nothing)), "test");
        g_print = nullptr;
    }
    static void print_in(const char* mode, const char* format) {
        g_print = [mode, format](cli_pcdb* pcdb) {
            if (std::string(pcdb->mode) == mode) {
                c2p_printf(pcdb, 1, "%s", format);
            }
        };
    }
};

TEST_F(Generated, HiddenPortHasNoLines) {
    in("interface", "shutdown");
    change(101, [](qv::Port& p) { p.flags |= LSM_IF_FLAG_HIDDEN; });
    EXPECT_TRUE(qv::cli::generate_section(port(101)).lines.empty());
    EXPECT_EQ(qv::cli::generate_section(port(101)).port, "swp1");
    EXPECT_EQ(in("exec", "show running-config"),
              "interface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

TEST_F(Generated, LinesOfASectionHaveNoBlanksAroundThemAndNoComments) {
    print_in("interface", "  printed  now  \r\n");
    EXPECT_EQ(qv::cli::section_text(qv::cli::generate_section(port(101))),
              "interface swp1\n printed  now\n!\n");
    print_in("interface", "! a word");
    EXPECT_EQ(qv::cli::section_text(qv::cli::generate_section(port(101))), "interface swp1\n!\n");
    print_in("interface", "   ");
    EXPECT_TRUE(qv::cli::generate_section(port(101)).lines.empty());
}

TEST_F(Generated, SectionsAreGeneratedToBeSaved) {
    unsigned long flags = 0;
    g_print = [&](cli_pcdb* pcdb) {
        flags = pcdb->flags;
    };
    qv::cli::generate_section(port(101));
    EXPECT_EQ(flags, static_cast<unsigned long>(CLI_FLAG_C2P));
    flags = 0;
    qv::cli::generate_global();
    EXPECT_EQ(flags, static_cast<unsigned long>(CLI_FLAG_C2P));
}

TEST_F(Generated, SectionWithinAConfigurationEndsInItsOwnPlace) {
    std::string inner;
    g_print = [&](cli_pcdb* pcdb) {
        if (std::string(pcdb->mode) != "config") {
            return;
        }
        c2p_printf(pcdb, 0, "before");
        inner = qv::cli::section_text(qv::cli::generate_section(port(102)));
        c2p_printf(pcdb, 0, "after");
    };
    rig.hardware.set_admin(102, false);
    EXPECT_EQ(in("exec", "show running-config"),
              "before\nafter\ninterface swp1\n!\ninterface swp2\n shutdown\n!\n"
              "interface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(inner, "interface swp2\n shutdown\n!\n");
}

TEST_F(Generated, ConfigurationWithinASectionOrAnotherEndsInItsOwnPlace) {
    bool within = false;
    std::string inner;
    g_print = [&](cli_pcdb* pcdb) {
        if (within) {
            return;
        }
        within = true;
        c2p_printf(pcdb, 0, "before");
        inner = qv::cli::generate_config(qv::cli::ConfigPurpose::kSave);
        c2p_printf(pcdb, 0, "after");
    };
    const std::string ports =
        "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";
    EXPECT_EQ(qv::cli::section_text(qv::cli::generate_section(port(101))),
              "interface swp1\n before\n after\n!\n");
    EXPECT_EQ(inner, ports);
    within = false;
    EXPECT_EQ(in("exec", "show running-config"), "before\nafter\n" + ports);
    EXPECT_EQ(inner, ports);
}

template <int number>
int print_number(cli_pcdb* pcdb) {
    c2p_printf(pcdb, 1, "line %d", number);
    return 0;
}

TEST_F(Generated, NodesAfterSlotsAndPrefixesPrintToo) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    attach(CLI_CHAIN_CONFIG,
           keyword("one", "", qv::cli::number("", 1, 9, print_config(print_number<1>, end))),
           "test");
    attach(CLI_CHAIN_CONFIG,
           keyword("two", "", any_word("WORD", "", print_config(print_number<2>, end))), "test");
    attach(CLI_CHAIN_CONFIG,
           keyword("three", "",
                   with_default(print_config(print_number<3>, end),
                                with_no(print_config(print_number<4>, end), end))),
           "test");
    EXPECT_TRUE(in("exec", "show running-config")
                    .starts_with("line 1\nline 2\nline 3\nline 4\ninterface swp1\n"));
}

TEST_F(Generated, NodePrintsOnceHoweverManyWaysLeadToIt) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    const cli_node* shared = print_config(print_number<1>, end);
    static cli_node circle = *keyword("circle", "", shared);
    circle.alternative = keyword("on", "", &circle);
    attach(CLI_CHAIN_CONFIG, keyword("one", "", shared), "test");
    attach(CLI_CHAIN_CONFIG, keyword("two", "", &circle), "test");
    EXPECT_TRUE(in("exec", "show running-config").starts_with("line 1\ninterface swp1\n"));
}

TEST_F(Generated, NodesAfterAPrintingNodePrintAndThoseOnAClosedPathDoNot) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    attach(CLI_CHAIN_CONFIG,
           keyword("one", "",
                   print_config(print_number<1>,
                                keyword("two", "", print_config(print_number<2>, end)))),
           "test");
    attach(CLI_CHAIN_CONFIG,
           custom([](cli_walk*, const cli_node*) {}, print_config(print_number<3>, end)), "test");
    EXPECT_TRUE(in("exec", "show running-config").starts_with("line 1\nline 2\ninterface swp1\n"));
}

TEST_F(Generated, NegativeIndentationIsNone) {
    g_print = [](cli_pcdb* pcdb) {
        if (std::string(pcdb->mode) == "interface" && pcdb->ifx == 101) {
            c2p_printf(pcdb, -1, "printed");
        }
    };
    EXPECT_TRUE(
        in("exec", "show running-config").starts_with("interface swp1\nprinted\n!\ninterface "));
}

// ---- Lines and words of odd lengths ----

TEST_F(LineEffects, OutputOfEveryLengthArrivesWhole) {
    using namespace qv::cli;
    static size_t length = 0;
    attach(kChainView, keyword("much", "", end_of_line([](cli_pcdb*) {
                                   cli_printf("%s", std::string(length, 'x').c_str());
                                   return 0;
                               })),
           "test");
    for (length = 254; length < 259; ++length) {
        EXPECT_EQ(in("exec", "much"), std::string(length, 'x'));
    }
}

TEST_F(LineEffects, HelpOfALongWordIsOneBlankAfterIt) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    attach(kChainView, keyword("word-of-twenty-four-byte", "Help", end), "test");
    attach(kChainView, keyword("word-of-three-and-twenty", "Help", end), "test");
    EXPECT_EQ(help_text(rig.session, "word-of-t"),
              "  word-of-three-and-twenty Help\n  word-of-twenty-four-byte Help\n");
}

TEST_F(LineEffects, CompletionHasNoSlotsAndHelpShowsThoseThatTheWordMayFill) {
    using qv::cli::completions;
    using qv::cli::help_text;
    rig.session.mode = "config";
    EXPECT_EQ(completions(rig.session, "tarn error-recover interval "), "");
    EXPECT_EQ(help_text(rig.session, "tarn error-recover interval "),
              "  <30-86400>              Seconds\n");
    EXPECT_EQ(help_text(rig.session, "tarn error-recover interval 90"),
              "  <30-86400>              Seconds\n");
    EXPECT_EQ(help_text(rig.session, "tarn error-recover interval 90x"), "");
    EXPECT_EQ(help_text(rig.session, "tarn error-recover interval 90 "), "  <cr>\n");
    EXPECT_EQ(help_text(rig.session, "no tarn error-recover interval "), "  <cr>\n");
    EXPECT_EQ(help_text(rig.session, "no tarn enable "), "  <cr>\n");
    EXPECT_EQ(help_text(rig.session, "tarn enable x"), "");
    EXPECT_EQ(help_text(rig.session, "interface range swp1 "),
              "  LIST                    Such as swp1-4,swp7\n");
    rig.session.mode = "exec";
    EXPECT_EQ(help_text(rig.session, "configure replace "),
              "  FILE                    Path of the file\n");
    EXPECT_EQ(help_text(rig.session, "configure replace x"),
              "  FILE                    Path of the file\n");
    EXPECT_EQ(completions(rig.session, "configure replace x c"), "confirm\n");
}

TEST_F(LineEffects, PrefixIsOfferedForTheFirstWordAlone) {
    using namespace qv::cli;
    attach(CLI_CHAIN_CONFIG, keyword("plain", "", end_of_line([](cli_pcdb*) { return 0; })),
           "test");
    rig.session.mode = "config";
    EXPECT_EQ(completions(rig.session, "n"), "no\n");
    EXPECT_EQ(completions(rig.session, "no"), "no\n");
    EXPECT_EQ(completions(rig.session, "n "), "");
    EXPECT_EQ(completions(rig.session, "tarn n"), "");
    EXPECT_EQ(help_text(rig.session, "no plain "), "");
    EXPECT_EQ(help_text(rig.session, std::string(1025, ' ')), "");
    EXPECT_NE(help_text(rig.session, std::string(1024, ' ')), "");
}

TEST_F(LineEffects, SameWordFromTwoTreesIsOneHint) {
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    attach(kChainView, keyword("twice", "Once", end), "test");
    attach(kChainView, keyword("twice", "Again", end), "test");
    EXPECT_EQ(help_text(rig.session, "twi"), "  twice                   Once\n");
}

TEST_F(LineEffects, TreesMayBeDeepAndLongLists) {
    using namespace qv::cli;
    static std::vector<std::string> words;
    for (int i = 0; i < 60; ++i) {
        words.push_back("w" + std::to_string(100 + i));
    }
    const cli_node* list = &Tno_alt;
    for (auto word = words.rbegin(); word != words.rend(); ++word) {
        list = keyword(word->c_str(), "", end_of_line([](cli_pcdb*) { return 0; }), list);
    }
    attach(kChainView, list, "test");
    EXPECT_EQ(in("exec", "w159"), "");
    EXPECT_EQ(in("exec", "w160"), "% Unknown command: 'w160'.\n");
}

TEST_F(LineEffects, ErrorOfASlotIsNotThatOfTheNextWord) {
    EXPECT_EQ(in("config", "tarn error-recover interval 9"),
              "% Number out of range: '9' (30-86400).\n");
    using namespace qv::cli;
    const cli_node* end = end_of_line([](cli_pcdb*) { return 0; });
    const cli_node* either = number("", 1, 5, end);
    attach(CLI_CHAIN_CONFIG, keyword("either", "", either), "test");
    attach(CLI_CHAIN_CONFIG, keyword("either", "", keyword("word", "", keyword("more", "", end))),
           "test");
    EXPECT_EQ(in("config", "either word less"), "% Unknown command: 'less'.\n");
}

TEST_F(LineEffects, HelpInTheModeOfAPortThatIsGoneLeavesThatMode) {
    rig.session.mode = "interface";
    rig.session.ifx = 101;
    EXPECT_EQ(qv::cli::completions(rig.session, "shut"), "shutdown\n");
    rig.hardware.remove(101);
    EXPECT_EQ(qv::cli::completions(rig.session, "shut"), "");
    EXPECT_EQ(rig.session.mode, "config");
}

}  // namespace
