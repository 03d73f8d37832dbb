// Filters after "|" in a show command.
#include <gtest/gtest.h>

#include <string>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "qv/bridge.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

// A command of a program, which prints plain text.
int show_fruit(cli_pcdb*) {
    cli_printf("red apple\ngreen apple\n\nyellow pear\n");
    return 0;
}

int show_trouble(cli_pcdb*) {
    cli_printf("red apple\n");
    return qv::cli::refuse("No pears.");
}

qv::cli::Completion g_late;

int show_late(cli_pcdb*) {
    cli_printf("red apple\n");
    g_late = qv::cli::defer();
    return 0;
}

class OutputFilter : public ::testing::Test {
 protected:
    OutputFilter() {
        using namespace qv::cli;
        attach(CLI_CHAIN_SHOW, keyword("fruit", "Fruit", end_of_line(show_fruit)), "fruit");
        attach(CLI_CHAIN_SHOW, keyword("trouble", "", end_of_line(show_trouble)), "trouble");
        attach(CLI_CHAIN_SHOW, keyword("late", "", end_of_line(show_late)), "late");
        attach(CLI_CHAIN_SHOW, keyword("slice", "", any_word("NAME", "", end_of_line(show_fruit))),
               "slice");
    }
    qv::test::CliRig rig;
};

TEST_F(OutputFilter, IncludeShowsTheLinesThatMatch) {
    EXPECT_EQ(rig.type("show fruit | include apple"), "red apple\ngreen apple\n");
    EXPECT_EQ(rig.type("show fruit | include ^red|pear$"), "red apple\nyellow pear\n");
    EXPECT_EQ(rig.type("show fruit | include (e+)n a"), "green apple\n");
    EXPECT_EQ(rig.type("show fruit | include Apple"), "");
    EXPECT_EQ(rig.code, 0);
}

TEST_F(OutputFilter, ExcludeShowsTheOthers) {
    EXPECT_EQ(rig.type("show fruit | exclude apple"), "\nyellow pear\n");
}

TEST_F(OutputFilter, BeginShowsTheFirstLineThatMatchesAndAllAfterIt) {
    EXPECT_EQ(rig.type("show fruit | begin green"), "green apple\n\nyellow pear\n");
    EXPECT_EQ(rig.type("show fruit | begin plum"), "");
}

TEST_F(OutputFilter, CountShowsTheNumberOfLines) {
    EXPECT_EQ(rig.type("show fruit | count"), "4\n");
}

TEST_F(OutputFilter, NamesMayBeCutShort) {
    EXPECT_EQ(rig.type("sh fr | i red"), "red apple\n");
    EXPECT_EQ(rig.type("sh fr |e apple"), "\nyellow pear\n");
    EXPECT_EQ(rig.type("sh fr | c"), "4\n");
}

TEST_F(OutputFilter, PatternIsTheRestOfTheLine) {
    EXPECT_EQ(rig.type("show fruit | include  d a \r\n"), "red apple\n");
    EXPECT_EQ(rig.type("show fruit | include w p| count"), "yellow pear\n");
}

TEST_F(OutputFilter, BadFilterIsRefusedBeforeTheCommandRuns) {
    EXPECT_EQ(rig.type("show late | include (a"), "% Invalid pattern: missing ): (a.\n");
    EXPECT_EQ(rig.code, -1);
    EXPECT_FALSE(g_late);
    EXPECT_EQ(rig.type("show fruit | include a\\1"),
              "% Invalid pattern: invalid escape sequence: \\1.\n");
    EXPECT_EQ(rig.type("show fruit | sort"),
              "% Unknown filter: 'sort' (begin, count, exclude, include, json).\n");
    EXPECT_EQ(rig.type("show fruit |"), "% Incomplete command.\n");
    EXPECT_EQ(rig.type("show fruit | include"), "% Incomplete command.\n");
    EXPECT_EQ(rig.type("show fruit | count apple"), "% The filter 'count' takes no pattern.\n");
    EXPECT_EQ(rig.type("show fruit | json x"), "% The filter 'json' takes no pattern.\n");
}

TEST_F(OutputFilter, PatternThatWouldGrowWithoutBoundIsRefused) {
    std::string nested = "a";
    for (int i = 0; i < 9; ++i) {
        nested = "(" + nested + "){1,255}";
    }
    const std::string answer = rig.type("show fruit | include " + nested);
    EXPECT_TRUE(answer.starts_with("% Invalid pattern: ")) << answer;
    std::string pluses = "a";
    for (int i = 0; i < 60; ++i) {
        pluses = "(" + pluses + ")+";
    }
    EXPECT_EQ(rig.type("show fruit | include " + pluses), "red apple\ngreen apple\nyellow pear\n");
}

TEST_F(OutputFilter, RefusalIsShownAsItIs) {
    EXPECT_EQ(rig.type("show trouble | include green"), "red apple\n% No pears.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(rig.type("show trouble | json"), "red apple\n% No pears.\n");
    EXPECT_EQ(rig.type("show nothing | count"), "% Unknown command: 'nothing'.\n");
    EXPECT_EQ(rig.code, -1);
}

TEST_F(OutputFilter, OtherLinesKeepTheirBar) {
    EXPECT_EQ(rig.type("write | include x"), "% Unknown command: '|'.\n");
    EXPECT_EQ(rig.type("| include x"), "% Unknown command: '|'.\n");
    EXPECT_EQ(rig.type("show slice a|b"), "red apple\ngreen apple\n\nyellow pear\n");
}

TEST_F(OutputFilter, DeferredAnswerIsFilteredToo) {
    qv::cli::Result result{.code = 7, .output = ""};
    qv::cli::execute(rig.session, "show late | exclude red",
                     [&](const qv::cli::Result& answer) { result = answer; });
    ASSERT_TRUE(g_late);
    g_late({0, "yellow pear\n"});
    EXPECT_EQ(result.output, "yellow pear\n");
    EXPECT_EQ(result.code, 0);
}

TEST_F(OutputFilter, BeginningOfShowThatMeansShutdownIsNotCarriedOut) {
    rig.type("configure terminal");
    rig.type("interface swp1");
    EXPECT_EQ(rig.type("sh | count"), "% Only a show command takes a filter.\n");
    EXPECT_NE(rig.code, 0);
    EXPECT_EQ(rig.type("show running-config interface swp1 | count"), "2\n");
    EXPECT_EQ(rig.type("sh"), "");
    EXPECT_EQ(rig.type("show running-config interface swp1 | include shutdown"), " shutdown\n");
}

TEST_F(OutputFilter, TabAndHelpNameTheFilters) {
    using qv::cli::completions;
    using qv::cli::help_text;
    EXPECT_EQ(completions(rig.session, "show fruit | "), "begin\ncount\nexclude\ninclude\njson\n");
    EXPECT_EQ(completions(rig.session, "show fruit |"),
              "|begin\n|count\n|exclude\n|include\n|json\n");
    EXPECT_EQ(completions(rig.session, "show fruit |in"), "|include\n");
    EXPECT_EQ(completions(rig.session, "show fruit |\tin"), "include\n");
    EXPECT_EQ(completions(rig.session, "show fruit | include "), "");
    EXPECT_EQ(completions(rig.session, "show fruit |\nin"), "");
    EXPECT_EQ(help_text(rig.session, "show fruit "),
              "  <cr>\n  |                       Filter the output\n");
    EXPECT_EQ(help_text(rig.session, "show fruit | c"),
              "  count                   Number of lines\n");
    EXPECT_EQ(help_text(rig.session, "show fruit | include "),
              "  PATTERN                 Regular expression\n");
    EXPECT_EQ(help_text(rig.session, "show fruit | count "), "  <cr>\n");
    EXPECT_EQ(help_text(rig.session, "write "), "  <cr>\n");
}

TEST_F(OutputFilter, ProgramsTextIsWrappedInJson) {
    EXPECT_EQ(rig.type("show fruit | json"),
              R"({"lines":["red apple","green apple","","yellow pear"]})"
              "\n");
}

TEST_F(OutputFilter, PortsAreShownAsJson) {
    rig.type("configure terminal");
    rig.type("interface swp2");
    rig.type("shutdown");
    rig.type("switchport mode trunk");
    rig.hardware.remove(103);
    rig.hardware.remove(104);
    qv::Port member = *rig.model.find(101U);
    member.aggregate = 102;
    rig.model.port_changed(member);
    rig.type("end");
    EXPECT_EQ(rig.type("show interfaces status | json"),
              R"([{"port":"swp1","index":101,"admin":"up","link":"up","mode":"access",)"
              R"("aggregate":"swp2","reason":""},)"
              R"({"port":"swp2","index":102,"admin":"down","link":"up","mode":"trunk",)"
              R"("aggregate":null,"reason":"admin"}])"
              "\n");
}

TEST_F(OutputFilter, ConfigurationIsShownAsJson) {
    rig.type("configure terminal");
    rig.type("tarn enable");
    rig.type("interface swp2");
    rig.type("shutdown");
    rig.hardware.remove(103);
    rig.hardware.remove(104);
    rig.type("end");
    const std::string config = R"("global":["tarn enable"],"interfaces":[)"
                               R"({"name":"swp1","lines":[]},)"
                               R"({"name":"swp2","lines":["shutdown"]})";
    EXPECT_EQ(rig.type("show running-config | json"), "{" + config + "]}\n");
    rig.announce_ready();
    rig.type("write");
    const std::string saved = rig.type("show startup-config | json");
    EXPECT_TRUE(saved.starts_with(R"({"saved":"20)")) << saved;
    EXPECT_NE(saved.find(R"(","goes_back":null,"trouble":null,)" + config), std::string::npos)
        << saved;
}

TEST_F(OutputFilter, LogVersionAndNotificationsAreShownAsJson) {
    printk_syslog(4, "LDA", "LOOP_DETECT", "Loop on \"%s\".\r\n", "swp\xff");
    const std::string log = rig.type("show logging | json");
    EXPECT_TRUE(log.starts_with(R"([{"time":"20)")) << log;
    EXPECT_TRUE(
        log.ends_with("\",\"message\":\"%LDA-4-LOOP_DETECT: Loop on \\\"swp\\\\xff\\\".\"}]\n"))
        << log;
    EXPECT_EQ(rig.type("show version | json"), R"({"program":"lda","version":"0.1.0"})"
                                               "\n");
    EXPECT_EQ(rig.type("show notifications | json"), "[]\n");
    EXPECT_EQ(rig.type("show debugging | json"), "{\"lines\":[]}\n");
}

}  // namespace
