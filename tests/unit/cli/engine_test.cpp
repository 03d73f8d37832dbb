// The engine on trees of the test's own: abbreviations, prefixes, slots, help, generation.
#include "platform/cli/engine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/fault_seam.h"
#include "platform/cli/running_config.h"
#include "platform/cli/walk.h"
#include "platform/driver/embedded/scripted_faults.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::any_word;
using qv::cli::attach;
using qv::cli::end_of_line;
using qv::cli::keyword;
using qv::cli::number;
using qv::cli::print_config;
using qv::cli::rest_of_line;
using qv::cli::with_default;
using qv::cli::with_no;

std::vector<std::string> g_calls;

int record(cli_pcdb* pcdb) {
    std::string call = std::string(pcdb->mode) + " ifx=" + std::to_string(pcdb->ifx);
    call += " prefix=" + std::to_string(pcdb->prefix);
    call += " numbers=" + std::to_string(pcdb->number[0]) + "," + std::to_string(pcdb->number[1]);
    call += std::string(" word=") + pcdb->word[0];
    g_calls.push_back(call);
    return 0;
}

template <int value>
int number_call(cli_pcdb*) {
    g_calls.push_back(std::to_string(value));
    return value;
}

// A tree as the agent writes it: a number in slot 0, an optional one in slot 1.
constexpr cli_eol_arg Srate_eol = {1, record};
constexpr cli_node Trate_eol = {eol_action, &Srate_eol, &Tno_alt, &Tno_alt, nullptr};
constexpr cli_number_arg Sburst_value = {"burst limit size", 32, 10000, 0, 258, 1};
constexpr cli_node Tburst_value = {common_number_action, &Sburst_value, &Trate_eol, &Tno_alt,
                                   nullptr};
constexpr cli_keyword_arg Sburst = {"burst", "Set burst", 0, {14, 14}, {1, 2, 0, 0, 0}, "burst", 1};
constexpr cli_node Tburst = {common_keyword_action, &Sburst, &Tburst_value, &Trate_eol, nullptr};
constexpr cli_number_arg Srate_value = {"rate limit size", 1, 1000000, 0, 258, 0};
constexpr cli_node Trate_value = {common_number_action, &Srate_value, &Tburst, &Tno_alt, nullptr};
constexpr cli_keyword_arg Srate = {"rate", "Set rate", 0, {14, 14}, {1, 2, 0, 0, 0}, "rate", 1};
constexpr cli_node Trate = {common_keyword_action, &Srate, &Trate_value, &Tno_alt, nullptr};
constexpr cli_node Trate_root = {append_point_action, nullptr, &Trate, &Tno_alt, nullptr};

class Engine : public ::testing::Test {
 protected:
    Engine() { g_calls.clear(); }

    std::string in_config(const std::string& line) {
        rig.session = {};
        rig.session.mode = "config";
        return rig.type(line);
    }

    qv::test::CliRig rig;
};

TEST_F(Engine, UniquePrefixesOfKeywordsExecute) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", keyword("beta", "", end_of_line(number_call<0>))),
           "test");
    EXPECT_EQ(in_config("al b"), "");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(g_calls, std::vector<std::string>{"0"});
}

TEST_F(Engine, ExactKeywordBeatsLongerOnes) {
    attach(CLI_CHAIN_CONFIG, keyword("alphabet", "", end_of_line(number_call<1>)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end_of_line(number_call<2>)), "test");
    in_config("alpha");
    EXPECT_EQ(rig.code, 2);
}

TEST_F(Engine, AmbiguousPrefixNamesTheKeywordsAndCallsNobody) {
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "", end_of_line(number_call<1>),
                   keyword("alpine", "", end_of_line(number_call<2>))),
           "test");
    EXPECT_EQ(in_config("al"), "% Ambiguous command: 'al' (alpha, alpine).\n");
    EXPECT_EQ(rig.code, -1);
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(Engine, SameKeywordInTwoTreesIsNotAmbiguous) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", keyword("one", "", end_of_line(number_call<1>))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", keyword("two", "", end_of_line(number_call<2>))),
           "test");
    in_config("al tw");
    EXPECT_EQ(rig.code, 2);
    in_config("al on");
    EXPECT_EQ(rig.code, 1);
}

TEST_F(Engine, SameCommandInTwoTreesBelongsToTheFirst) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end_of_line(number_call<1>)), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end_of_line(number_call<2>)), "test");
    in_config("alpha");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(g_calls, std::vector<std::string>{"1"});
}

extern const cli_node Tendless;
const cli_node Tendless = {append_point_action, nullptr, &Tendless, &Tno_alt, nullptr};

TEST_F(Engine, TreeThatLeadsBackIntoItselfEndsSomewhere) {
    cli_add_command(CLI_CHAIN_CONFIG, &Tendless, "test");
    EXPECT_EQ(in_config("frobnicate"), "% Unknown command: 'frobnicate'.\n");
    EXPECT_EQ(in_config("tarn enable"), "");
}

TEST_F(Engine, UnknownWordIsNamed) {
    EXPECT_EQ(in_config("frobnicate now"), "% Unknown command: 'frobnicate'.\n");
    EXPECT_EQ(rig.code, -1);
    EXPECT_EQ(in_config("tarn enable twice"), "% Unknown command: 'twice'.\n");
}

TEST_F(Engine, HalfACommandIsIncomplete) {
    EXPECT_EQ(in_config("tarn"), "% Incomplete command.\n");
    EXPECT_EQ(in_config("no"), "% Incomplete command.\n");
    EXPECT_EQ(rig.code, -1);
}

TEST_F(Engine, NumbersFillTheirSlotsAndMissingOnesReadZero) {
    cli_add_command(CLI_CHAIN_CONFIG, &Trate_root, "test");
    in_config("rate 5000 burst 64");
    in_config("rate 7000");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"config ifx=0 prefix=0 numbers=5000,64 word=",
                                                 "config ifx=0 prefix=0 numbers=7000,0 word="}));
}

TEST_F(Engine, ParsingEmptiesTheSlotsFirst) {
    cli_pcdb pcdb{};
    pcdb.number[1] = 77;
    std::string("left over").copy(pcdb.word[0], CLI_WORD_BYTES - 1);
    cli_walk walk(cli_walk::Purpose::kExecute, &pcdb);
    EXPECT_EQ(walk.parse(&Trate_root, "rate 5000").handler, record);
    EXPECT_EQ(pcdb.number[0], 5000);
    EXPECT_EQ(pcdb.number[1], 0);
    EXPECT_STREQ(pcdb.word[0], "");
}

TEST_F(Engine, NumberBoundsAreIncludedAndBeyondThemRefused) {
    cli_add_command(CLI_CHAIN_CONFIG, &Trate_root, "test");
    EXPECT_EQ(in_config("rate 1"), "");
    EXPECT_EQ(in_config("rate 1000000"), "");
    EXPECT_EQ(g_calls.size(), 2U);
    EXPECT_EQ(in_config("rate 0"), "% Number out of range: '0' (1-1000000).\n");
    EXPECT_EQ(in_config("rate -5"), "% Number out of range: '-5' (1-1000000).\n");
    EXPECT_EQ(in_config("rate 1000001"), "% Number out of range: '1000001' (1-1000000).\n");
    EXPECT_EQ(in_config("rate 99999999999999999999"),
              "% Number out of range: '99999999999999999999' (1-1000000).\n");
    EXPECT_EQ(in_config("rate 5x"), "% Invalid number: '5x' (1-1000000).\n");
    EXPECT_EQ(in_config("rate 5 burst 31"), "% Number out of range: '31' (32-10000).\n");
    EXPECT_EQ(g_calls.size(), 2U);
}

TEST_F(Engine, NoPrefixIsRefusedWhereTheTreeHasNoNodeForIt) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end_of_line(record)), "test");
    EXPECT_EQ(in_config("no alpha"), "% Invalid prefix: 'no' does not apply here.\n");
    EXPECT_EQ(rig.code, -1);
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(Engine, NoPrefixReachesEveryCommandOfATreeWithANodeForIt) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "", keyword("deep", "", end_of_line(record), with_no(end, end))),
           "test");
    EXPECT_EQ(in_config("no alpha deep"), "");
    EXPECT_EQ(in_config("no alpha"), "");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"config ifx=0 prefix=1 numbers=0,0 word=",
                                                 "config ifx=0 prefix=1 numbers=0,0 word="}));
}

TEST_F(Engine, DefaultPrefixIsTakenOnlyOnAPathWithANodeForIt) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "", keyword("deep", "", end_of_line(record), with_default(end, end))),
           "test");
    EXPECT_EQ(in_config("default alpha"), "");
    EXPECT_EQ(g_calls, std::vector<std::string>{"config ifx=0 prefix=3 numbers=0,0 word="});
    EXPECT_EQ(in_config("default alpha deep"),
              "% Invalid prefix: 'default' does not apply here.\n");
    EXPECT_EQ(g_calls.size(), 1U);
}

TEST_F(Engine, WordTakesOneWordOrTheRestOfTheLine) {
    attach(CLI_CHAIN_CONFIG, keyword("one", "", any_word("WORD", "", end_of_line(record))), "test");
    attach(CLI_CHAIN_CONFIG, keyword("all", "", rest_of_line("TEXT", "", end_of_line(record))),
           "test");
    in_config("one abc");
    in_config("all  abc  def \r\n");
    EXPECT_EQ(g_calls,
              (std::vector<std::string>{"config ifx=0 prefix=0 numbers=0,0 word=abc",
                                        "config ifx=0 prefix=0 numbers=0,0 word=abc  def"}));
    EXPECT_EQ(in_config("one " + std::string(128, 'x')),
              "% Word too long: '" + std::string(40, 'x') + "...'.\n");
}

TEST_F(Engine, WordThatTakesTheRestBeatsOneThatDoesNot) {
    attach(CLI_CHAIN_CONFIG, keyword("both", "", any_word("WORD", "", end_of_line(number_call<1>))),
           "test");
    attach(CLI_CHAIN_CONFIG,
           keyword("both", "", rest_of_line("TEXT", "", end_of_line(number_call<2>))), "test");
    in_config("both abc");
    EXPECT_EQ(rig.code, 2);
    in_config("both abc def");
    EXPECT_EQ(rig.code, 2);
}

TEST_F(Engine, LineEndAndBlanksAroundTheWordsDoNotMatter) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end_of_line(record)), "test");
    EXPECT_EQ(in_config("  alpha \t \r\n"), "");
    EXPECT_EQ(g_calls.size(), 1U);
}

TEST_F(Engine, EmptyLinesAndCommentsDoNothing) {
    for (const char* line : {"", "  ", "\r\n", "!", "! alpha"}) {
        EXPECT_EQ(in_config(line), "");
        EXPECT_EQ(rig.code, 0);
    }
}

TEST_F(Engine, LineOf1024BytesIsReadAndALongerOneRefused) {
    EXPECT_EQ(in_config("tarn enable" + std::string(1013, ' ')), "");
    EXPECT_EQ(in_config("tarn enable" + std::string(1014, ' ')),
              "% Line too long (limit 1024 bytes).\n");
    EXPECT_EQ(rig.code, -1);
}

TEST_F(Engine, ControlBytesAreRefused) {
    for (const char* line : {"tarn \x01 enable", "tarn\x7f", "tarn\nenable", "tarn \x1b[A",
                             "tarn \xc2\x9b enable", "tarn \x9b enable"}) {
        EXPECT_EQ(in_config(line), "% Line contains control characters.\n");
        EXPECT_EQ(rig.code, -1);
    }
}

int only_port_103(cli_pcdb* pcdb) {
    return pcdb->ifx == 103 ? 1 : 0;
}

TEST_F(Engine, TestNodeOffersItsCommandOnlyWhereItIsTrue) {
    static const cli_node* const first = keyword("alpha", "", end_of_line(record));
    static const cli_test_arg arg = {first, &Tno_alt, only_port_103};
    static const cli_node test = {test_expression_action, &arg, &Tno_alt, &Tno_alt, nullptr};
    attach(CLI_CHAIN_INTERFACE, &test, "test");
    rig.session.mode = "interface";
    rig.session.ifx = 103;
    EXPECT_EQ(rig.type("alpha"), "");
    rig.session.ifx = 102;
    EXPECT_EQ(rig.type("alpha"), "% Unknown command: 'alpha'.\n");
    EXPECT_EQ(g_calls, std::vector<std::string>{"interface ifx=103 prefix=0 numbers=0,0 word="});
}

int g_asked = 0;

int count_and_hold(cli_pcdb*) {
    ++g_asked;
    return 1;
}

TEST_F(Engine, TestNodeRunsOnlyForWordsThatItsCommandsBeginWith) {
    static const cli_node* const number_first = number("Size", 1, 9, end_of_line(record));
    static const cli_node* const first = keyword("alpha", "", end_of_line(record));
    static const cli_test_arg arg = {first, &Tno_alt, count_and_hold};
    static const cli_node test = {test_expression_action, &arg, &Tno_alt, &Tno_alt, nullptr};
    static const cli_test_arg open_arg = {&Tno_alt, number_first, count_and_hold};
    static const cli_node open_test = {test_expression_action, &open_arg, &Tno_alt, &Tno_alt,
                                       nullptr};
    g_asked = 0;
    attach(CLI_CHAIN_INTERFACE, &test, "test");
    rig.session.mode = "interface";
    rig.session.ifx = 103;
    EXPECT_EQ(rig.type("switchport mode access"), "");
    EXPECT_EQ(g_asked, 0);
    EXPECT_EQ(rig.type("no alp"), "% Invalid prefix: 'no' does not apply here.\n");
    EXPECT_EQ(rig.type("alp"), "");
    EXPECT_EQ(g_asked, 2);
    EXPECT_EQ(qv::cli::completions(rig.session, "alp"), "alpha\n");
    EXPECT_EQ(g_asked, 3);
    attach(CLI_CHAIN_INTERFACE, &open_test, "test");  // any number may be there
    EXPECT_EQ(rig.type("switchport mode trunk"), "");
    EXPECT_EQ(g_asked, 4);
}

TEST_F(Engine, HelpAndCompletionListMatchesAndCallNoHandler) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG,
           keyword("alpha", "The first",
                   keyword("deep", "Deeper", end, print_config(record, number("Size", 1, 9, end)))),
           "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpine", "Mountains", end), "test");
    qv::cli::SessionState session;
    session.mode = "config";
    EXPECT_EQ(qv::cli::help_text(session, "al"),
              "  alpha                   The first\n"
              "  alpine                  Mountains\n");
    EXPECT_EQ(qv::cli::help_text(session, "alpha "),
              "  deep                    Deeper\n"
              "  <1-9>                   Size\n");
    EXPECT_EQ(qv::cli::help_text(session, "alpha deep "), "  <cr>\n");
    EXPECT_EQ(qv::cli::completions(session, "al"), "alpha\nalpine\n");
    EXPECT_EQ(qv::cli::completions(session, "alpha d"), "deep\n");
    EXPECT_EQ(qv::cli::completions(session, "interface swp"), "swp1\nswp2\nswp3\nswp4\n");
    EXPECT_EQ(qv::cli::completions(session, "zzz "), "");
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(Engine, HelpForALineThatCouldNotBeExecutedIsEmpty) {
    qv::cli::SessionState session;
    session.mode = "config";
    EXPECT_EQ(qv::cli::completions(session, "tarn" + std::string(1019, ' ') + "e"),
              "enable\nerror-recover\n");
    EXPECT_EQ(qv::cli::completions(session, "tarn" + std::string(1020, ' ') + "e"), "");
    EXPECT_EQ(qv::cli::completions(session, "tarn\ne"), "");
    EXPECT_EQ(qv::cli::help_text(session, "tarn\r"), "");
}

TEST_F(Engine, HelpAfterNoListsOnlyCommandsThatCanBeUndone) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpine", "", with_no(end, end)), "test");
    qv::cli::SessionState session;
    session.mode = "config";
    EXPECT_EQ(qv::cli::completions(session, "no al"), "alpine\n");
    EXPECT_EQ(qv::cli::completions(session, "n"), "no\n");
}

TEST_F(Engine, HelpAfterDefaultListsOnlyCommandsWithADefault) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", end), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpine", "", with_default(end, end)), "test");
    qv::cli::SessionState session;
    session.mode = "config";
    EXPECT_EQ(qv::cli::completions(session, "default al"), "alpine\n");
}

int print_twice(cli_pcdb* pcdb) {
    g_calls.push_back(std::string(pcdb->mode) + " " + std::to_string(pcdb->ifx));
    c2p_printf(pcdb, 1, "alpha %d\n", static_cast<int>(pcdb->ifx));
    c2p_printf(pcdb, 2, "beta\r\n");
    return 0;
}

TEST_F(Engine, GenerationRunsOnlyPrintNodesOncePerSectionGlobalLinesFirst) {
    const cli_node* end = end_of_line(record);
    // The print node can be reached in two ways.
    const cli_node* print = print_config(print_twice, with_no(end, end));
    attach(CLI_CHAIN_INTERFACE_STORM, keyword("alpha", "", print, print), "test");
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", print), "test");
    EXPECT_EQ(qv::cli::generate_config(qv::cli::ConfigPurpose::kShow),
              "alpha 0\nbeta\n"
              "interface swp1\n alpha 101\n  beta\n!\n"
              "interface swp2\n alpha 102\n  beta\n!\n"
              "interface swp3\n alpha 103\n  beta\n!\n"
              "interface swp4\n alpha 104\n  beta\n!\n");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"config 0", "interface 101", "interface 102",
                                                 "interface 103", "interface 104"}));
}

unsigned long g_flags = 0;
int keep_flags(cli_pcdb* pcdb) {
    g_flags = pcdb->flags;
    return 0;
}

TEST_F(Engine, HandlersKnowThePurposeOfAGeneration) {
    attach(CLI_CHAIN_CONFIG, keyword("alpha", "", print_config(keep_flags, end_of_line(record))),
           "test");
    qv::cli::generate_config(qv::cli::ConfigPurpose::kShow);
    EXPECT_EQ(g_flags, CLI_FLAG_SHOW_RUN);
    qv::cli::generate_config(qv::cli::ConfigPurpose::kSave);
    EXPECT_EQ(g_flags, CLI_FLAG_C2P);
}

TEST_F(Engine, ContextIsAboutAPortInInterfaceModesOnly) {
    cli_pcdb pcdb{};
    pcdb.ifx = 103;
    cli_change_mode(&pcdb, "ifrange");
    cli_change_mode(&pcdb, "interface");
    EXPECT_STREQ(pcdb.mode, "interface");
    EXPECT_EQ(pcdb.ifx, 103U);
    cli_change_mode(&pcdb, "config");
    EXPECT_STREQ(pcdb.mode, "config");
    EXPECT_EQ(pcdb.ifx, 0U);
}

int own_sections(cli_pcdb* pcdb) {
    EXPECT_NE(pcdb->flags & CLI_FLAGS_GENERATING, 0U);
    c2p_printf(pcdb, 0, "interface %s", "swp3");
    pcdb->ifx = 103;
    cli_change_mode(pcdb, "interface");
    cli_walkthrought_node(cli_get_mode_root("interface"), pcdb);
    cli_change_mode(pcdb, "config");
    c2p_printf(pcdb, 0, "!");
    return 0;
}

TEST_F(Engine, InterfaceHookWritesTheSectionsInPlaceOfTheFramework) {
    rig.session.mode = "interface";
    rig.session.ifx = 103;
    rig.type("shutdown");
    cli_interface_show_run_hook(own_sections);
    EXPECT_EQ(qv::cli::generate_config(qv::cli::ConfigPurpose::kShow),
              "interface swp3\n shutdown\n!\n");
}

TEST_F(Engine, WalkForGenerationNeedsARootAndAGeneratingContext) {
    cli_pcdb pcdb{};
    EXPECT_EQ(cli_walkthrought_node(cli_get_mode_root("config"), &pcdb), -1);
    pcdb.flags = CLI_FLAG_C2P;
    EXPECT_EQ(cli_walkthrought_node(nullptr, &pcdb), -1);
    EXPECT_EQ(cli_get_mode_root("kitchen"), nullptr);
}

TEST_F(Engine, UnknownAttachmentPointIsRefused) {
    EXPECT_EQ(cli_add_command(99, &Trate_root, "test"), -1);
    EXPECT_EQ(cli_add_command(CLI_CHAIN_CONFIG, nullptr, "test"), -1);
}

TEST_F(Engine, RangeRunsTheHandlerOncePerPort) {
    rig.hardware.add("lag1", 200, 10);
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(record)), "test");
    rig.session.mode = "config";
    EXPECT_EQ(rig.type("interface range swp1-2,swp4"), "");
    EXPECT_EQ(qv::cli::prompt(rig.session), "lda(config-if-range)# ");
    rig.type("alpha");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"ifrange ifx=101 prefix=0 numbers=0,0 word=",
                                                 "ifrange ifx=102 prefix=0 numbers=0,0 word=",
                                                 "ifrange ifx=104 prefix=0 numbers=0,0 word="}));
}

TEST_F(Engine, PortNamedTwiceInARangeIsThereOnce) {
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(number_call<0>)), "test");
    rig.session.mode = "config";
    EXPECT_EQ(rig.type("interface range swp2,swp1-3,swp3"), "");
    rig.type("alpha");
    EXPECT_EQ(rig.session.range, (std::vector<uint64_t>{102, 101, 103}));
    EXPECT_EQ(g_calls.size(), 3U);
}

int fail_on_odd_ports(cli_pcdb* pcdb) {
    g_calls.push_back(std::to_string(pcdb->ifx));
    return pcdb->ifx % 2 == 0 ? 0 : static_cast<int>(pcdb->ifx);
}

TEST_F(Engine, RangeContinuesAfterAFailureAndHasItsResult) {
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(fail_on_odd_ports)), "test");
    rig.session.mode = "config";
    rig.type("interface range swp1-4");
    rig.type("alpha");
    EXPECT_EQ(rig.code, 101);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"101", "102", "103", "104"}));
}

TEST_F(Engine, RemovedPortLeavesTheRangeAndTheLastOneEndsIt) {
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(record)), "test");
    rig.session.mode = "config";
    rig.type("interface range swp1-2");
    rig.hardware.remove(101);
    EXPECT_EQ(rig.type("alpha"), "");
    EXPECT_EQ(g_calls, std::vector<std::string>{"ifrange ifx=102 prefix=0 numbers=0,0 word="});
    rig.hardware.remove(102);
    EXPECT_EQ(rig.type("alpha"), "% The interface does not exist.\n");
    EXPECT_EQ(rig.code, -1);
    EXPECT_EQ(qv::cli::prompt(rig.session), "lda(config)# ");
}

uint32_t g_types = 0;
int keep_types(cli_pcdb* pcdb) {
    g_types = pcdb->ifrange_types;
    return 0;
}

// The mask by which programs recognise ports that take their commands.
constexpr uint32_t kSwitchedTypes = 0x18050187;

TEST_F(Engine, RangeOfAnySwitchedTypeMeetsTheMaskOfProgramsAndNoOtherDoes) {
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(keep_types)), "test");
    for (uint32_t type = 0; type <= 40; ++type) {
        rig.hardware.add("lag1", 200, type);
        rig.session.mode = "config";
        rig.type("interface range lag1");
        rig.type("alpha");
        EXPECT_EQ((g_types & kSwitchedTypes) != 0, type >= 2 && type <= 10) << "type " << type;
        EXPECT_NE(g_types, 0U) << "type " << type;
        rig.hardware.remove(200);
    }
}

TEST_F(Engine, RangeTypesAreTheUnionOfThePortsTypes) {
    rig.hardware.add("lag1", 200, 10);
    attach(CLI_CHAIN_INTERFACE, keyword("alpha", "", end_of_line(keep_types)), "test");
    rig.session.mode = "config";
    rig.type("interface range swp1, lag1");
    rig.type("alpha");
    EXPECT_EQ(g_types, 0x10000001U);
}

int only_even_ports(cli_pcdb* pcdb) {
    const bool range = std::string_view(pcdb->mode) == "ifrange";
    return range ? (pcdb->ifrange_types & kSwitchedTypes) != 0 : pcdb->ifx % 2 == 0;
}

TEST_F(Engine, RangeNamesTheMembersThatMayNotHaveACommandAndServesTheOthers) {
    const cli_node* alpha =
        keyword("alpha", "", with_default(end_of_line(record), end_of_line(record)));
    static const cli_test_arg kTest = {alpha, &Tno_alt, only_even_ports};
    static const cli_node kGuard = {test_expression_action, &kTest, nullptr, nullptr, nullptr};
    attach(CLI_CHAIN_INTERFACE, &kGuard, "test");
    rig.session.mode = "config";
    rig.type("interface range swp1-4");
    EXPECT_EQ(rig.type("alpha"), "% Not a command for swp1, swp3.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"ifrange ifx=102 prefix=0 numbers=0,0 word=",
                                                 "ifrange ifx=104 prefix=0 numbers=0,0 word="}));
    g_calls.clear();
    rig.type("interface range swp2,swp4");
    EXPECT_EQ(rig.type("default alpha"), "");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"ifrange ifx=102 prefix=3 numbers=0,0 word=",
                                                 "ifrange ifx=104 prefix=3 numbers=0,0 word="}));
}

TEST_F(Engine, NoUnderDebugNeedsAFormOnThePathOfTheCommand) {
    const cli_node* end = end_of_line(record);
    attach(CLI_CHAIN_DEBUG,
           keyword("alpha", "", keyword("one", "", with_no(end, end), keyword("two", "", end))),
           "test");
    EXPECT_EQ(rig.type("no debug alpha one"), "");
    EXPECT_EQ(rig.type("no debug alpha two"), "% Invalid prefix: 'no' does not apply here.\n");
    EXPECT_EQ(rig.type("debug alpha two"), "");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"exec ifx=0 prefix=1 numbers=0,0 word=",
                                                 "exec ifx=0 prefix=0 numbers=0,0 word="}));
    EXPECT_EQ(qv::cli::completions(rig.session, "no deb"), "debug\n");
    EXPECT_EQ(qv::cli::completions(rig.session, "no debug al"), "alpha\n");
}

TEST_F(Engine, FaultsCostNothingUntilOneIsScripted) {
    EXPECT_EQ(in_config("tarn enable"), "");
    EXPECT_EQ(qv::cli::g_line_fault.load(), nullptr);
    EXPECT_EQ(qv::cli::g_session_fault.load(), nullptr);
    qv::cli::refuse_next_line("tarn", "not now");
    EXPECT_EQ(in_config("tarn  enable"), "not now\n");
    EXPECT_EQ(in_config("tarn enable"), "");
}

TEST_F(Engine, PrintingOutsideACommandOrGenerationIsDropped) {
    cli_pcdb pcdb{};
    cli_printf("nobody %s", "listens");
    c2p_printf(&pcdb, 1, "nobody");
    EXPECT_EQ(in_config("tarn enable"), "");
}

}  // namespace
