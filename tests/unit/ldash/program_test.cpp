// The program ldash with lines on its command line or its standard input, and on a terminal.
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/ldash/scripted_switch.h"
#include "tests/unit/ldash/shell_fixture.h"
#include "tools/ldash/marker.h"

namespace ldash::test {
namespace {

constexpr const char* kUsage =
    "usage: ldash [-s SOCKET] [-c LINE]...\n"
    "       ldash [-s SOCKET] --check FILE\n"
    "\n"
    "  -s SOCKET  command-line socket of the switch; else LDA_CLI_SOCKET,\n"
    "             else /run/lda/cli.sock\n"
    "  -c LINE    executes the line and ends; several are executed in one session\n"
    "  --check FILE\n"
    "             checks a configuration as \"configure replace\" does, changes\n"
    "             nothing, and prints FILE:LINE: REASON for each bad line\n"
    "\n"
    "Without -c: a shell on a terminal, with history, TAB and ?; otherwise the\n"
    "lines of standard input. Both end at the first line that is refused.\n"
    "Exit status: 0 done, 1 refused, 2 not reachable or wrong usage.\n";

struct ProgramTest : testing::Test {
    ProgramTest() { unsetenv("LDA_CLI_SOCKET"); }
    ~ProgramTest() override { unsetenv("LDA_CLI_SOCKET"); }
    ScriptedSwitch peer;
};

TEST_F(ProgramTest, LinesOfTheCommandLineAreExecutedInOneSession) {
    Program program({"-s", peer.path(), "-c", "enable", "-c", "show clock"});
    peer.accept();
    EXPECT_EQ(peer.request(), R"({"exec":"enable"})");
    peer.say(R"({"output":"","result":0})");
    EXPECT_EQ(peer.request(), R"({"exec":"show clock"})");
    peer.say(R"({"output":"12:00\n","result":0})");
    const Ended ended = program.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "12:00\n");
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(peer.requests(), Lines{});
}

TEST_F(ProgramTest, RefusedLineEndsTheProgramWithItsOutput) {
    for (const char* const result : {"-1", "1"}) {
        ScriptedSwitch refusing;
        Program program({"-s", refusing.path(), "-c", "shwo", "-c", "show clock"});
        refusing.accept();
        refusing.say(std::string(R"({"output":"% Unknown command\n","result":)") + result + "}");
        const Ended ended = program.wait();
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.out, "% Unknown command\n");
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(refusing.requests(), Lines{R"({"exec":"shwo"})"});
    }
}

TEST_F(ProgramTest, LineThatEndsTheSessionIsTheLastAndDone) {
    Program program({"-s", peer.path(), "-c", "exit", "-c", "show clock"});
    peer.accept();
    peer.say(R"({"output":"","result":0,"end":true})");
    EXPECT_EQ(program.wait().status, 0);
    EXPECT_EQ(peer.requests(), Lines{R"({"exec":"exit"})"});
}

TEST_F(ProgramTest, ScriptIsReadFromStandardInputUpToTheRefusedLine) {
    Program program({"-s", peer.path()}, "enable\n\nshwo\nshow clock\n");
    peer.accept();
    EXPECT_EQ(peer.request(), R"({"exec":"enable"})");
    peer.say(R"({"output":"","result":0})");
    EXPECT_EQ(peer.request(), R"({"exec":""})");
    peer.say(R"({"output":"","result":0})");
    EXPECT_EQ(peer.request(), R"({"exec":"shwo"})");
    peer.say(R"({"output":"% Unknown command\n","result":-1})");
    const Ended ended = program.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "% Unknown command\n");
    EXPECT_EQ(ended.err, "ldash: line 3 was refused\n");
    EXPECT_EQ(peer.requests(), Lines{});
}

TEST_F(ProgramTest, ScriptThatIsDoneSaysNothingOfItsOwn) {
    Program program({"-s", peer.path()}, "show clock\n");
    peer.accept();
    peer.say(R"({"output":"12:00\n","result":0})");
    const Ended ended = program.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "12:00\n");
    EXPECT_EQ(ended.err, "");
}

TEST_F(ProgramTest, LinesOfTheCommandLineLeaveStandardInputAlone) {
    Program program({"-s", peer.path(), "-c", "show clock"}, "shutdown\n");
    peer.accept();
    peer.say(R"({"output":"12:00\n","result":0})");
    EXPECT_EQ(program.wait().status, 0);
    EXPECT_EQ(peer.requests(), Lines{R"({"exec":"show clock"})"});
}

TEST_F(ProgramTest, SocketIsTakenFromTheEnvironmentUnlessItIsGiven) {
    setenv("LDA_CLI_SOCKET", peer.path().c_str(), 1);
    Program program({"-c", "show clock"});
    peer.accept();
    peer.say(R"({"result":0})");
    EXPECT_EQ(program.wait().status, 0);

    ScriptedSwitch given;
    Program other({"-s", given.path(), "-c", "show clock"});
    given.accept();
    given.say(R"({"result":0})");
    EXPECT_EQ(other.wait().status, 0);
}

TEST_F(ProgramTest, SwitchThatIsNotReachedOrLostEndsItWithStatusTwo) {
    Program nobody({"-s", "/nowhere/cli.sock", "-c", "show clock"});
    const Ended unreached = nobody.wait();
    EXPECT_EQ(unreached.status, 2);
    EXPECT_EQ(unreached.out, "");
    EXPECT_EQ(unreached.err,
              "ldash: cannot reach the switch at /nowhere/cli.sock: No such file or directory\n");

    Program program({"-s", peer.path(), "-c", "show clock"});
    peer.accept();
    peer.hang_up();
    const Ended lost = program.wait();
    EXPECT_EQ(lost.status, 2);
    EXPECT_EQ(lost.err, "ldash: the connection to the switch is lost\n");
}

TEST_F(ProgramTest, HelpIsAnAnswerAndWrongUsageAFault) {
    const Ended help = Program({"--help"}).wait();
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out, kUsage);
    EXPECT_EQ(help.err, "");

    const Ended unknown = Program({"-x"}).wait();
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "ldash: invalid option -- 'x'\n" + std::string(kUsage));

    const Ended stray = Program({"show", "clock"}).wait();
    EXPECT_EQ(stray.status, 2);
    EXPECT_EQ(stray.out, "");
    EXPECT_EQ(stray.err, kUsage);
}

TEST_F(ShellTest, LinesAreExecutedAndTheirOutputAndPromptShown) {
    EXPECT_NE(line("show clock", R"({"output":"12:00\n","prompt":"sw# ","result":0})")
                  .find("\n12:00\r\n"),
              std::string::npos);
    line("configure terminal", R"({"output":"","prompt":"sw(config)# ","result":0})",
         "sw(config)# ");
    const std::string refused = line(
        "shwo", R"({"output":"% Unknown\n","prompt":"sw(config)# ","result":-1})", "sw(config)# ");
    EXPECT_NE(refused.find("\n% Unknown\r\n"), std::string::npos);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show clock"})", R"({"exec":"configure terminal"})",
                              R"({"exec":"shwo"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, MarkerPointsAtTheWrongWord) {
    const std::string shown =
        line("show clokc now",
             R"({"output":"% Unknown: 'clokc'.\n","prompt":"sw# ","result":-1,"wrong_at":5})");
    EXPECT_NE(shown.find("\n         ^\r\n% Unknown: 'clokc'.\r\n"), std::string::npos) << shown;
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show clokc now"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, CommandThatRefusesHasNoMarker) {
    const std::string shown =
        line("show clock", R"({"output":"% No clock.\n","prompt":"sw# ","result":1})");
    EXPECT_EQ(shown.find('^'), std::string::npos) << shown;
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show clock"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, IncompleteLineIsFollowedByItsCompletions) {
    terminal.type("show \n");
    EXPECT_EQ(peer.request(), R"({"exec":"show "})");
    peer.say(R"({"output":"% Incomplete.\n","prompt":"sw# ","result":-1,"wrong_at":4})");
    EXPECT_EQ(peer.request(), R"({"help":"show  "})");
    peer.say(R"({"output":"  clock  Time\n","prompt":"sw# ","result":0})");
    const std::string shown = terminal.until("Time\r\nsw# ");
    EXPECT_NE(shown.find("\n        ^\r\n% Incomplete.\r\n  clock  Time\r\n"), std::string::npos)
        << shown;
    EXPECT_EQ(leave(), Lines{R"({"exec":"exit"})"});
}

TEST(Marker, CountsCharactersAndNotBytes) {
    EXPECT_EQ(marker("sw# ", "show gr\xc3\xbcn x", 11, 80), "              ^\n");
    EXPECT_EQ(marker("", "x", 0, 80), "^\n");
}

TEST(Marker, PointsOnlyIntoTheLastRowOfTheLine) {
    EXPECT_EQ(marker("sw# ", "show clokc", 5, 10), "");
    EXPECT_EQ(marker("sw# ", "show clock nwo", 11, 10), "     ^\n");
    EXPECT_EQ(marker("sw# ", "show", 4, 0), "");
}

TEST_F(ShellTest, QuestionMarkShowsTheHelpForTheLineBeforeTheCursor) {
    terminal.type("show\x02\x02?");
    EXPECT_EQ(peer.request(), R"({"help":"sh"})");
    peer.say(R"({"output":"  show  Show something\n","result":0})");
    EXPECT_NE(terminal.until("sw# show").find("?\r\n  show  Show something\r\n"),
              std::string::npos);
    terminal.type("?");
    EXPECT_EQ(peer.request(), R"({"help":"sh"})");
    peer.say(R"({"output":"","result":0})");
    EXPECT_NE(terminal.until("sw# show").find("?\r\n  (nothing fits)\r\n"), std::string::npos);
    terminal.type("\x15");
    EXPECT_EQ(leave(), Lines{R"({"exec":"exit"})"});
}

TEST_F(ShellTest, TabCompletesTheWordThatIsAlone) {
    terminal.type("show run\t");
    EXPECT_EQ(peer.request(), R"({"complete":"show run"})");
    peer.say(R"({"output":"running-config\n","result":0})");
    terminal.until("ning-config ");
    line("| begin", kDone);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show running-config | begin"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, TabAddsTheCommonPrefixOfSeveralWordsThenListsThem) {
    terminal.type("in\t");
    EXPECT_EQ(peer.request(), R"({"complete":"in"})");
    peer.say(R"({"output":"interface\ninternal","result":0})");
    terminal.until("inter");
    terminal.type("\t");
    EXPECT_EQ(peer.request(), R"({"complete":"inter"})");
    peer.say(R"({"output":"interface\ninternal\n","result":0})");
    EXPECT_NE(terminal.until("sw# inter").find("\r\n  interface\r\n  internal\r\n"),
              std::string::npos);
    terminal.type("z\t");
    EXPECT_EQ(peer.request(), R"({"complete":"interz"})");
    peer.say(R"({"output":"","result":0})");
    terminal.type("\x7f");
    line("face", kDone);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"interface"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, HistoryKeepsEachLineOnce) {
    line("show clock", kDone);
    line("show version", kDone);
    line("", kDone);
    line("show version", kDone);
    line("\x10", kDone);
    line("\x10\x10", kDone);
    EXPECT_EQ(leave(),
              (Lines{R"({"exec":"show clock"})", R"({"exec":"show version"})", R"({"exec":""})",
                     R"({"exec":"show version"})", R"({"exec":"show version"})",
                     R"({"exec":"show clock"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, InterruptForgetsTheLine) {
    terminal.type("shutdown");
    terminal.until("shutdown");
    terminal.type("\x03");
    terminal.until("sw# ");
    line("show clock", kDone);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show clock"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, MessageIsShownAndTheLineUnderIt) {
    terminal.type("show cl");
    terminal.until("show cl");
    peer.say(R"({"monitor":"%LDA-4-LOOP_DETECT: loop"})");
    terminal.until("\r%LDA-4-LOOP_DETECT: loop\r\n");
    terminal.until("sw# show cl");
    line("ock", kDone);
    EXPECT_EQ(leave(), (Lines{R"({"exec":"show clock"})", R"({"exec":"exit"})"}));
}

TEST_F(ShellTest, EndOfInputLeavesTheShell) {
    terminal.until_keys_are_taken();
    terminal.type("\x04");
    std::string rest;
    EXPECT_EQ(terminal.wait(&rest), 0);
    EXPECT_TRUE(rest.ends_with("\r\n")) << rest;
    EXPECT_EQ(peer.requests(), Lines{});
}

TEST_F(ShellTest, LossOfTheSwitchEndsTheWaitForAKey) {
    peer.hang_up();
    std::string rest;
    EXPECT_EQ(terminal.wait(&rest), 2);
    EXPECT_TRUE(rest.ends_with("\r\nldash: the connection to the switch is lost\r\n")) << rest;
}

TEST_F(ShellTest, SwitchThatEndsTheSessionSaysWhy) {
    peer.say(R"({"output":"% Idle for too long.\n","result":-1,"end":true})");
    std::string rest;
    EXPECT_EQ(terminal.wait(&rest), 2);
    EXPECT_TRUE(rest.ends_with("\r\nldash: Idle for too long.\r\n")) << rest;
}

TEST_F(ShellTest, LossOfTheSwitchDuringHelpEndsTheShell) {
    terminal.type("sh?");
    EXPECT_EQ(peer.request(), R"({"help":"sh"})");
    peer.say(R"({"output":"% Idle for too long.\n","result":-1,"end":true})");
    std::string rest;
    EXPECT_EQ(terminal.wait(&rest), 2);
    EXPECT_TRUE(rest.ends_with("\r\nldash: Idle for too long.\r\n")) << rest;
}

TEST(ShellUnderNohup, TerminalThatIsGoneEndsTheShell) {
    ScriptedSwitch peer;
    Terminal terminal(peer.path(), true);
    peer.accept();
    peer.say(R"({"output":"","prompt":"sw# ","result":0})");
    EXPECT_EQ(peer.request(), R"({"exec":""})");
    terminal.until("sw# ");
    terminal.close();
    EXPECT_EQ(peer.request(), "no request");
    EXPECT_EQ(terminal.wait(), 0);
}

// ---- --check ----

TEST_F(ProgramTest, CheckAsksTheSwitchAndPrintsItsFaultsAsErrors) {
    Program program({"-s", peer.path(), "--check", "/tmp/some file.cfg"});
    peer.accept();
    EXPECT_EQ(peer.request(), R"({"check":"/tmp/some file.cfg"})");
    peer.say(R"({"output":"/tmp/some file.cfg:7: Incomplete command.\n","result":1})");
    const Ended ended = program.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "/tmp/some file.cfg:7: Incomplete command.\n");
}

TEST_F(ProgramTest, CheckedFileWithoutFaultsPrintsNothing) {
    Program program({"-s", peer.path(), "--check", "/etc/new.cfg"});
    peer.accept();
    peer.say(R"({"output":"","result":0})");
    const Ended ended = program.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out + ended.err, "");
    EXPECT_EQ(peer.requests(), Lines{R"({"check":"/etc/new.cfg"})"});
}

TEST_F(ProgramTest, CheckedFileIsNamedFromTheRoot) {
    Program program({"-s", peer.path(), "--check", "new.cfg"});
    peer.accept();
    EXPECT_EQ(peer.request(),
              R"({"check":")" + (std::filesystem::current_path() / "new.cfg").string() + R"("})");
    peer.say(R"({"output":"","result":0})");
    EXPECT_EQ(program.wait().status, 0);
}

TEST_F(ProgramTest, CheckNeedsAFileAndTakesNoLines) {
    for (const Lines& wrong :
         {Lines{"--check"}, Lines{"--check", ""}, Lines{"--check", "f", "-c", "show version"}}) {
        const Ended ended = Program(wrong).wait();
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find(kUsage), std::string::npos);
    }
}

}  // namespace
}  // namespace ldash::test
