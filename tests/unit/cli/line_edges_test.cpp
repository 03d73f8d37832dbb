// The edges of a line: prefixes, slots, ambiguities, ranges, and texts of refusals.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::any_word;
using qv::cli::attach;
using qv::cli::end_of_line;
using qv::cli::keyword;
using qv::cli::number;
using qv::cli::rest_of_line;
using qv::cli::with_default;
using qv::cli::with_no;

std::string g_last;
int record(cli_pcdb* pcdb) {
    g_last = "prefix " + std::to_string(pcdb->prefix) + " number " +
             std::to_string(pcdb->number[0]) + " word '" + pcdb->word[0] + "'";
    return 0;
}

class LineEdges : public ::testing::Test {
 protected:
    std::string in_config(const std::string& line) {
        g_last.clear();
        rig.session = {};
        rig.session.mode = "config";
        return rig.type(line);
    }
    // The ports of a range, by name; the refusal when it is not a range.
    std::string range(const std::string& list) {
        const std::string refusal = in_config("interface range " + list);
        std::string names;
        for (const uint64_t ifx : rig.session.range) {
            names += rig.model.find(static_cast<uint32_t>(ifx))->name + " ";
        }
        return refusal + names;
    }

    qv::test::CliRig rig;
};

TEST_F(LineEdges, PrefixIsAWholeFirstWord) {
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "",
                   with_no(end_of_line(record),
                           with_default(end_of_line(record), end_of_line(record)))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("note", "", end_of_line(record)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("defaults", "", end_of_line(record)), "test");
    EXPECT_EQ(in_config("  no\talpha"), "");
    EXPECT_EQ(g_last, "prefix 1 number 0 word ''");
    EXPECT_EQ(in_config("default alpha"), "");
    EXPECT_EQ(g_last, "prefix 3 number 0 word ''");
    EXPECT_EQ(in_config("note"), "");
    EXPECT_EQ(g_last, "prefix 0 number 0 word ''");
    EXPECT_EQ(in_config("defaults"), "");
    EXPECT_EQ(g_last, "prefix 0 number 0 word ''");
    EXPECT_EQ(in_config("n alpha"), "% Unknown command: 'alpha'.\n") << "not cut short: 'note'";
    EXPECT_EQ(in_config("no"), "% Incomplete command.\n");
    EXPECT_EQ(in_config("default"), "% Incomplete command.\n");
    EXPECT_EQ(in_config("no no alpha"), "% Unknown command: 'alpha'.\n")
        << "one prefix at most: the second is the beginning of 'note'";
    EXPECT_EQ(in_config("no note"), "% Invalid prefix: 'no' does not apply here.\n");
    EXPECT_EQ(in_config("default note"), "% Invalid prefix: 'default' does not apply here.\n");
}

TEST_F(LineEdges, AmbiguityListsEachKeywordOnceInTheOrderOfTheTrees) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG, keyword("alpine", "", end, keyword("alps", "", end)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end, keyword("alpine", "", end)), "test");
    EXPECT_EQ(in_config("alp"), "% Ambiguous command: 'alp' (alpine, alps, alpha).\n");
    EXPECT_EQ(in_config("alpi"), "");
}

TEST_F(LineEdges, KeywordBeatsNumberAndNumberBeatsWord) {
    const cli_node* end = end_of_line(record);
    const cli_node* slots = keyword("100", "", end);
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", any_word("WORD", "", end)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", number("", 1, 200, end)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", slots), "test");
    in_config("alpha 100");
    EXPECT_EQ(g_last, "prefix 0 number 0 word ''");
    in_config("alpha 10");
    EXPECT_EQ(g_last, "prefix 0 number 0 word ''") << "the keyword's beginning beats a number";
    in_config("alpha 7");
    EXPECT_EQ(g_last, "prefix 0 number 7 word ''");
    in_config("alpha 201");
    EXPECT_EQ(g_last, "prefix 0 number 0 word '201'");
    in_config("alpha x");
    EXPECT_EQ(g_last, "prefix 0 number 0 word 'x'");
}

TEST_F(LineEdges, NumbersAreDecimalAndWhole) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", number("", -5, 200, end_of_line(record))),
           "test");
    for (const char* word : {"1.5", "0x10", "1e2", "+5", "5a", "-", "--1"}) {
        EXPECT_EQ(in_config("alpha " + std::string(word)),
                  "% Invalid number: '" + std::string(word) + "' (-5-200).\n");
    }
    EXPECT_EQ(in_config("alpha -5"), "");
    EXPECT_EQ(g_last, "prefix 0 number -5 word ''");
    EXPECT_EQ(in_config("alpha -6"), "% Number out of range: '-6' (-5-200).\n");
    EXPECT_EQ(in_config("alpha 9223372036854775808"),
              "% Number out of range: '9223372036854775808' (-5-200).\n");
    EXPECT_EQ(in_config("alpha 000000000000000000000000200"), "");
    EXPECT_EQ(g_last, "prefix 0 number 200 word ''");
}

TEST_F(LineEdges, WordHasUpTo127Bytes) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", any_word("WORD", "", end_of_line(record))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("beta", "", rest_of_line("TEXT", "", end_of_line(record))),
           "test");
    EXPECT_EQ(in_config("alpha " + std::string(127, 'x')), "");
    EXPECT_EQ(g_last, "prefix 0 number 0 word '" + std::string(127, 'x') + "'");
    EXPECT_EQ(in_config("alpha " + std::string(128, 'x')),
              "% Word too long: '" + std::string(40, 'x') + "...'.\n");
    EXPECT_EQ(in_config("beta " + std::string(63, 'x') + " " + std::string(63, 'y')), "");
    EXPECT_EQ(in_config("beta " + std::string(64, 'x') + " " + std::string(63, 'y')),
              "% Word too long: '" + std::string(40, 'x') + "...'.\n");
}

TEST_F(LineEdges, RefusalShowsUpTo40BytesOfAWord) {
    EXPECT_EQ(in_config(std::string(40, 'x')),
              "% Unknown command: '" + std::string(40, 'x') + "'.\n");
    EXPECT_EQ(in_config(std::string(41, 'x')),
              "% Unknown command: '" + std::string(40, 'x') + "...'.\n");
}

TEST_F(LineEdges, RangesAreListsOfPortsAndStretches) {
    EXPECT_EQ(range("swp3"), "swp3 ");
    EXPECT_EQ(range("swp1-3"), "swp1 swp2 swp3 ");
    EXPECT_EQ(range("swp2-swp3"), "swp2 swp3 ");
    EXPECT_EQ(range("swp4,swp1-2,swp2-3"), "swp4 swp1 swp2 swp3 ");
    EXPECT_EQ(range("swp1 , swp3 - 4"), "swp1 swp3 swp4 ");
    EXPECT_EQ(range("swp2-2"), "swp2 ");
    EXPECT_EQ(range("swp1,"), "swp1 ");
    EXPECT_EQ(range("swp1,,swp2"), "% Unknown interface: ''.\n");
    EXPECT_EQ(range("swp1-"), "% Invalid range: 'swp1-'.\n");
    EXPECT_EQ(range("-swp1"), "% Invalid range: '-swp1'.\n");
    EXPECT_EQ(range("swp-3"), "% Invalid range: 'swp-3'.\n");
    EXPECT_EQ(range("swp1-eth2"), "% Invalid range: 'swp1-eth2'.\n");
    EXPECT_EQ(range("swp1-4x"), "% Invalid range: 'swp1-4x'.\n");
    EXPECT_EQ(range("swp1-5"), "% Unknown interface: 'swp5'.\n");
    EXPECT_EQ(range("swp1-6"), "% Invalid range: 'swp1-6'.\n") << "longer than there are ports";
    EXPECT_EQ(range("swp1-4294967297"), "% Invalid range: 'swp1-4294967297'.\n");
}

TEST_F(LineEdges, PortWithADashInItsNameIsAPortOfTheRange) {
    rig.hardware.add("up-link-1", 300);
    rig.hardware.add("up-link-2", 301);
    EXPECT_EQ(range("up-link-1"), "up-link-1 ");
    EXPECT_EQ(range("up-link-1-2"), "up-link-1 up-link-2 ");
    EXPECT_EQ(range("up-link-1,swp1"), "up-link-1 swp1 ");
}

TEST_F(LineEdges, RefusedRangeLeavesTheSessionWhereItWas) {
    range("swp1-9");
    EXPECT_EQ(rig.session.mode, "config");
    EXPECT_TRUE(rig.session.range.empty());
}

TEST_F(LineEdges, HelpOffersNoWhereItIsTheBeginningOfTheLine) {
    qv::cli::SessionState session;
    session.mode = "config";
    const auto offers_no = [&](const char* line) {
        const std::string words = qv::cli::completions(session, line);
        return words.find("no\n") == 0 || words.find("\nno\n") != std::string::npos;
    };
    EXPECT_TRUE(offers_no(""));
    EXPECT_TRUE(offers_no("n"));
    EXPECT_TRUE(offers_no("no"));
    EXPECT_FALSE(offers_no("no "));
    EXPECT_FALSE(offers_no("x"));
    EXPECT_FALSE(offers_no("tarn "));
}

TEST_F(LineEdges, LineOfAFileKeepsItsPrefix) {
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "",
                   with_no(end_of_line(record),
                           with_default(end_of_line(record), end_of_line(record)))),
           "test");
    qv::cli::SessionState session;
    session.mode = "config";
    EXPECT_EQ(qv::cli::parse_config_command(session, " alp").text, "alpha");
    EXPECT_EQ(qv::cli::parse_config_command(session, "no  alp").text, "no alpha");
    EXPECT_EQ(qv::cli::parse_config_command(session, "default alp").text, "default alpha");
}

TEST_F(LineEdges, SameNumberFromTwoTreesIsNotAmbiguous) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", number("Seconds", 1, 9, keyword("x", "", end))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", number("Metres", 1, 9, keyword("y", "", end))),
           "test");
    EXPECT_EQ(in_config("alpha 5 y"), "");
    EXPECT_EQ(g_last, "prefix 0 number 5 word ''");
}

TEST_F(LineEdges, SlotsAndTheEndOfALineHaveAlternatives) {
    const cli_node* end = end_of_line(record);
    static cli_node by_number = *number("", 1, 9, end);
    static cli_node by_word = *any_word("WORD", "", end);
    static cli_node by_end = *end;
    by_number.alternative = keyword("word", "", end);
    by_word.alternative = number("", 1, 9, end);
    by_end.alternative = keyword("more", "", end);
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", &by_number), "test");
    attach(CLI_CHAIN_CONFIG, keyword("beta", "", &by_word), "test");
    attach(CLI_CHAIN_CONFIG, keyword("gamma", "", &by_end), "test");
    EXPECT_EQ(in_config("alpha 5"), "");
    EXPECT_EQ(in_config("alpha word"), "");
    EXPECT_EQ(in_config("beta 7"), "");
    EXPECT_EQ(g_last, "prefix 0 number 7 word ''");
    EXPECT_EQ(in_config("gamma"), "");
    EXPECT_EQ(in_config("gamma more"), "");
}

TEST_F(LineEdges, NegativeTestResultIsTrue) {
    static const cli_test_arg kTest = {.accept = keyword("alpha", "", end_of_line(record)),
                                       .alternative = keyword("beta", "", end_of_line(record)),
                                       .test = [](cli_pcdb*) {
                                           return -1;
                                       }};
    static const cli_node kGuard = {test_expression_action, &kTest, nullptr, nullptr, nullptr};
    attach(CLI_CHAIN_CONFIG, &kGuard, "test");
    EXPECT_EQ(in_config("alpha"), "");
    EXPECT_EQ(in_config("beta"), "% Unknown command: 'beta'.\n");
}

}  // namespace
