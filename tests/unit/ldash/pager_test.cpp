// Long output on a terminal: pages, keys, and what happens while the shell waits for one.
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/ldash/shell_fixture.h"

namespace ldash::test {
namespace {

constexpr const char* kErased = "\r        \r";
constexpr const char* kRedrawn = "\r\r\n";  // before the prompt that the editor shows again
constexpr const char* kSeven =
    R"({"output":"one\ntwo\nthree\nfour\nfive\nsix\nseven\n","prompt":"sw# ","result":0})";

// On a terminal of four rows with ten columns.
struct PagerTest : ShellTest {
    PagerTest() { terminal.resize(4, 10); }

    // Types a line whose output does not fit; returns the first page with the prompt below it.
    std::string stop(const std::string& reply) {
        const std::string shown = line("show", reply, "--More--");
        // Keys may be echoed twice: by the kernel, before the editor takes them, and by the editor.
        return shown.substr(shown.find('\n', shown.rfind("show")) + 1);
    }
    // Presses a key at the prompt below a page; returns the output up to `text`.
    std::string press(const std::string& keys, const std::string& text) {
        terminal.type(keys);
        return terminal.until(text);
    }
};

TEST_F(PagerTest, SpaceShowsTheNextPageAndEnterTheNextLine) {
    EXPECT_EQ(stop(kSeven), "one\r\ntwo\r\nthree\r\n--More--");
    EXPECT_EQ(press("\r", "--More--"), std::string(kErased) + "four\r\n--More--");
    EXPECT_EQ(press(" ", "sw# "), std::string(kErased) + "five\r\nsix\r\nseven\r\nsw# ");
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show"})", R"({"exec":"exit"})"}));
}

TEST_F(PagerTest, KeyQSkipsTheRestAndOtherKeysDoNothing) {
    stop(kSeven);
    EXPECT_EQ(press("xyz\x15q", "sw# "), std::string(kErased) + "sw# ");
    stop(kSeven);
    EXPECT_EQ(press("Q", "sw# "), std::string(kErased) + "sw# ");
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show"})", R"({"exec":"show"})", R"({"exec":"exit"})"}));
}

TEST_F(PagerTest, InterruptSkipsTheRest) {
    stop(kSeven);
    EXPECT_NE(press("\x03", "sw# ").find(std::string(kErased) + "sw# "), std::string::npos);
    line("show clock", kDone);
    EXPECT_EQ(leave(),
              (Lines{R"({"exec":"show"})", R"({"exec":"show clock"})", R"({"exec":"exit"})"}));
}

TEST_F(PagerTest, OutputThatFitsIsShownAtOnce) {
    const std::string shown =
        line("show", R"({"output":"one\ntwo\nthree\n","prompt":"sw# ","result":0})");
    EXPECT_TRUE(shown.ends_with("\none\r\ntwo\r\nthree\r\nsw# ")) << shown;
    leave();
}

TEST_F(PagerTest, LineThatWrapsTakesSeveralRows) {
    EXPECT_EQ(stop(R"({"output":"one\n0123456789abcdefghij\ntwo\n","prompt":"sw# ","result":0})"),
              "one\r\n0123456789abcdefghij\r\n--More--");
    press(" ", "sw# ");
    EXPECT_EQ(stop(R"({"output":"one\ntwo\n0123456789a\n","prompt":"sw# ","result":0})"),
              "one\r\ntwo\r\n--More--");
    press(" ", "sw# ");
    leave();
}

TEST_F(PagerTest, WidthIsCountedInCharactersAndNotInBytes) {
    const std::string shown = line(
        "show", R"({"output":"one\ntwo\n\u00fc\u00fc\u00fc\u00fc\u00fc\u00fc\n","prompt":"sw# "})");
    EXPECT_EQ(shown.find("--More--"), std::string::npos) << shown;
    leave();
}

TEST_F(PagerTest, LineLongerThanAPageIsShownWholeByEnter) {
    const std::string text(45, 'x');
    EXPECT_EQ(stop(R"({"output":"one\n)" + text + R"(\ntwo\n","prompt":"sw# ","result":0})"),
              "one\r\n--More--");
    EXPECT_EQ(press("\r", "--More--"), kErased + text + "\r\n--More--");
    EXPECT_EQ(press("\r", "sw# "), std::string(kErased) + "two\r\nsw# ");
    leave();
}

TEST_F(PagerTest, LengthThatTheOperatorHasSetReplacesTheHeightOfTheTerminal) {
    const std::string seven = R"({"output":"one\ntwo\nthree\nfour\nfive\nsix\nseven\n",)";
    EXPECT_EQ(line("show", seven + R"("prompt":"sw# ","result":0,"length":0})").find("--More--"),
              std::string::npos);
    EXPECT_EQ(stop(seven + R"("prompt":"sw# ","result":0,"length":3})"), "one\r\ntwo\r\n--More--");
    press("q", "sw# ");
    EXPECT_EQ(stop(kSeven), "one\r\ntwo\r\nthree\r\n--More--");
    press("q", "sw# ");
    leave();
}

TEST_F(PagerTest, TerminalWithoutAHeightHasNoPagesUntilALengthIsSet) {
    terminal.resize(0, 0);
    EXPECT_EQ(line("show", kSeven).find("--More--"), std::string::npos);
    EXPECT_EQ(stop(R"({"output":"one\ntwo\n","prompt":"sw# ","result":0,"length":1})"),
              "one\r\n--More--");
    press("q", "sw# ");
    leave();
}

TEST_F(PagerTest, HelpAndListsOfWordsHavePagesToo) {
    terminal.type("s?");
    EXPECT_EQ(peer.request(), R"({"help":"s"})");
    peer.say(R"({"output":"  sa\n  sb\n  sc\n  sd\n","result":0})");
    EXPECT_TRUE(terminal.until("--More--").ends_with("?\r\n  sa\r\n  sb\r\n  sc\r\n--More--"));
    EXPECT_EQ(press(" ", "sw# s"), std::string(kErased) + "  sd\r\n" + kRedrawn + "sw# s");
    terminal.type("\t");
    EXPECT_EQ(peer.request(), R"({"complete":"s"})");
    peer.say(R"({"output":"sa\nsb\nsc\nsd\n","result":0})");
    EXPECT_TRUE(terminal.until("--More--").ends_with("\r\n  sa\r\n  sb\r\n--More--"));
    EXPECT_EQ(press("q", "sw# s"), std::string(kErased) + kRedrawn + "sw# s");
    line("how", kDone);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show"})", R"({"exec":"exit"})"}));
}

TEST_F(PagerTest, MessageIsShownAndThePromptBelowIt) {
    stop(kSeven);
    peer.say(R"({"monitor":"%LDA-4-LOOP_DETECT: loop"})");
    EXPECT_EQ(terminal.until("--More--"), "\r%LDA-4-LOOP_DETECT: loop\r\n--More--");
    press("q", "sw# ");
    leave();
}

TEST_F(PagerTest, SwitchThatEndsTheSessionSaysWhy) {
    stop(kSeven);
    peer.say(R"({"output":"% Idle for too long.\n","result":-1,"end":true})");
    std::string rest;
    EXPECT_EQ(terminal.wait(&rest), 2);
    EXPECT_TRUE(rest.ends_with("\r\nldash: Idle for too long.\r\n")) << rest;
}

TEST(PagerUnderNohup, TerminalThatIsGoneEndsTheShell) {
    ScriptedSwitch peer;
    Terminal terminal(peer.path(), true);
    terminal.resize(4, 10);
    peer.accept();
    peer.say(R"({"output":"","prompt":"sw# ","result":0})");
    EXPECT_EQ(peer.request(), R"({"exec":""})");
    terminal.until("sw# ");
    terminal.type("show\n");
    EXPECT_EQ(peer.request(), R"({"exec":"show"})");
    peer.say(kSeven);
    terminal.until("--More--");
    terminal.close();
    EXPECT_EQ(peer.request(), "no request");
    EXPECT_EQ(terminal.wait(), 0);
}

TEST(PagerOnAPipe, OutputOfLinesAndScriptsIsWhole) {
    ScriptedSwitch peer;
    Program program({"-s", peer.path(), "-c", "show"});
    peer.accept();
    peer.say(R"({"output":"one\ntwo\nthree\n","result":0,"length":2})");
    EXPECT_EQ(program.wait().out, "one\ntwo\nthree\n");
}

}  // namespace
}  // namespace ldash::test
