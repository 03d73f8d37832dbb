// "show tech-support": the outputs of many commands in one text.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "qv/cli.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace qv::cli {
namespace {

class TechSupport : public testing::Test {
 protected:
    TechSupport() { unsetenv("LDA_PLATFORM"); }
    ~TechSupport() override { unsetenv("LDA_PLATFORM"); }

    // The text below a heading, up to the next one.
    std::string piece(const std::string& heading) {
        const std::string text = "\n" + rig.type("show tech-support");
        const std::string line = "\n==== " + heading + " ====\n";
        const size_t start = text.find(line);
        if (start == std::string::npos) {
            return "no such piece";
        }
        const size_t begin = start + line.size();
        const size_t end = text.find("\n\n==== ", begin - 1);
        return end == std::string::npos ? text.substr(begin) : text.substr(begin, end + 1 - begin);
    }

    test::CliRig rig;
};

std::vector<std::string> headings(const std::string& text) {
    std::vector<std::string> found;
    for (size_t at = 0; (at = text.find("==== ", at)) != std::string::npos;) {
        const size_t end = text.find(" ====\n", at);
        found.push_back(text.substr(at + 5, end - at - 5));
        at = end + 6;
    }
    return found;
}

TEST_F(TechSupport, HasEveryPieceUnderItsHeading) {
    const std::vector<std::string> expected{"show version",
                                            "process",
                                            "show role",
                                            "platform file",
                                            "show running-config",
                                            "show startup-config",
                                            "show interfaces",
                                            "show interfaces status",
                                            "show loop-detect detail",
                                            "show lda detect-result",
                                            "show errdisable",
                                            "show errdisable recovery",
                                            "show loop-detect history",
                                            "show logging",
                                            "show tarn",
                                            "debug lda storm-detect",
                                            "show debugging",
                                            "show users",
                                            "show notifications"};
    const std::string text = rig.type("show tech-support");
    EXPECT_EQ(rig.code, 0);
    EXPECT_EQ(headings(text), expected);
    EXPECT_EQ(text.find("==== show version ====\nlda 0.1.0\n\n==== process ====\nProcess: "), 0U);
}

TEST_F(TechSupport, RepeatsTheOutputsOfTheCommands) {
    rig.type("configure terminal");
    rig.type("tarn enable");
    rig.session = {};
    printk_syslog(4, "TEST", "LINE", "a line of the log");
    for (const char* command :
         {"show running-config", "show interfaces", "show interfaces status", "show errdisable",
          "show errdisable recovery", "show logging", "show role", "show loop-detect history"}) {
        EXPECT_EQ(piece(command), rig.type(command)) << command;
    }
    EXPECT_NE(piece("show logging").find("a line of the log"), std::string::npos);
}

TEST_F(TechSupport, PieceThatIsRefusedSaysSoAndTheRestFollows) {
    EXPECT_EQ(piece("show tarn"), "% The loop-probe service tarnd is not running.\n");
    EXPECT_EQ(piece("show lda detect-result"), "% Unknown command: 'lda'.\n");
    EXPECT_EQ(piece("show startup-config"), "% " + rig.saved() + ": No such file or directory.\n");
    EXPECT_EQ(rig.code, 0);
}

int fail(cli_pcdb*) {
    throw std::runtime_error("no memory for this");
}

TEST_F(TechSupport, PieceThatFailsSaysSoAndTheRestFollows) {
    attach(CLI_CHAIN_SHOW, keyword("lda", "", keyword("detect-result", "", end_of_line(fail))),
           "test");
    EXPECT_EQ(piece("show lda detect-result"), "% no memory for this\n");
    EXPECT_EQ(headings(rig.type("show tech-support")).size(), 19U);
}

TEST_F(TechSupport, SaysSinceWhenTheProcessRuns) {
    rig.platform.manual_clock.advance(std::chrono::seconds(3725));
    const std::string text = piece("process");
    EXPECT_NE(text.find("Process: " + std::to_string(getpid()) + "\n"), std::string::npos);
    EXPECT_NE(text.find("\nUptime: 3725 s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nState: starting\n"), std::string::npos) << text;
}

TEST_F(TechSupport, ShowsThePlatformFileWithoutSecrets) {
    EXPECT_EQ(piece("platform file"), "LDA_PLATFORM is not set: the defaults are in force.\n");
    const std::string file = rig.folder.file("lda.toml");
    test::write_text(file, "store = \"redis\"\npassword = \"hidden\"\n");
    setenv("LDA_PLATFORM", file.c_str(), 1);
    const std::string text = piece("platform file");
    EXPECT_TRUE(text.starts_with(file + ":\n")) << text;
    EXPECT_NE(text.find("redis"), std::string::npos);
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    setenv("LDA_PLATFORM", "/nowhere/lda.toml", 1);
    EXPECT_EQ(piece("platform file"),
              "% /nowhere/lda.toml: cannot be read: No such file or directory\n");
}

int print_much(cli_pcdb*) {
    const std::string line(1023, 'x');
    for (int i = 0; i < 1200; ++i) {
        cli_printf("%s\n", line.c_str());
    }
    return 0;
}

TEST_F(TechSupport, LongPieceIsCutAtALine) {
    attach(CLI_CHAIN_SHOW,
           keyword("lda", "", keyword("detect-result", "", end_of_line(print_much))), "test");
    const std::string text = piece("show lda detect-result");
    EXPECT_TRUE(text.ends_with("x\n% Cut: it has 1228800 bytes.\n"));
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    EXPECT_LE(text.size(), 1024U * 1024 + 64);
    EXPECT_GE(text.size(), 1024U * 1024 - 2048);
}

TEST_F(TechSupport, WorksWithFilters) {
    EXPECT_EQ(rig.type("show tech-support | include ^lda "), "lda 0.1.0\n");
    EXPECT_TRUE(
        rig.type("show tech-support | json").starts_with(R"({"lines":["==== show version)"));
}

TEST_F(TechSupport, ViewsAreForEverySession) {
    rig.type("disable");
    EXPECT_TRUE(rig.type("show tech-support").starts_with("==== show version"));
}

// ---- For a session that can wait ----

TEST_F(TechSupport, TakesATurnOfTheLoopForEachPiece) {
    const std::string inline_answer = rig.type("show tech-support");
    std::vector<Result> results;
    execute(rig.session, "show tech-support",
            [&](Result result) { results.push_back(std::move(result)); });
    int turns = 0;
    for (; results.empty() && turns < 1000; ++turns) {
        ASSERT_TRUE(rig.platform.loop().fetch());
        rig.platform.loop().run();
    }
    EXPECT_GE(turns, 19);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].code, 0);
    EXPECT_EQ(headings(results[0].output), headings(inline_answer));
}

TEST_F(TechSupport, SeveralSessionsGetTheirOwnAnswers) {
    test::WireClient one(rig.platform.settings.cli_socket);
    test::WireClient other(rig.platform.settings.cli_socket);
    one.send("{\"exec\": \"show tech-support | include ^lda\"}\n");
    other.send("{\"exec\": \"show tech-support | include ^==== show v\"}\n");
    rig.platform.run_ready();
    EXPECT_NE(one.receive().find("lda 0.1.0"), std::string::npos);
    EXPECT_NE(other.receive().find("==== show version"), std::string::npos);
}

TEST_F(TechSupport, SessionMayEndBeforeItsAnswer) {
    auto session = std::make_unique<SessionState>();
    int answers = 0;
    execute(*session, "show tech-support", [&](const Result&) { ++answers; });
    session.reset();
    rig.platform.run_ready();
    EXPECT_EQ(answers, 1);
}

}  // namespace
}  // namespace qv::cli
