// A configuration file that is only checked.
#include "platform/cli/config_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/cli/caller.h"
#include "platform/cli/config_target.h"
#include "platform/cli/wire.h"
#include "tests/unit/cli/cli_rig.h"

namespace qv::cli {
namespace {

class ConfigCheck : public testing::Test {
 protected:
    Result check(const std::string& text) {
        test::write_text(file, text);
        return check_file(nullptr, file);
    }
    // What check_file() prints about `text`.
    std::string faults(const std::string& text) {
        const Result result = check(text);
        EXPECT_EQ(result.code, 1);
        return result.output;
    }

    test::CliRig rig;
    const std::string file = rig.folder.file("new.cfg");
};

TEST_F(ConfigCheck, FileThatWouldBeTakenHasNoFaults) {
    const Result result = check("! one\ntarn enable\ninterface swp1\n shutdown\n!\nend\n! two\n");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.output, "");
}

TEST_F(ConfigCheck, EveryBadLineIsReported) {
    EXPECT_EQ(faults("tarn enabel\n"
                     "tarn error-recover interval 29\n"
                     "tarn enable\n"
                     "interface swp1\n"
                     " switchport mode\n"
                     " shutdown\n"
                     " switchport mode wrong\n"
                     "!\n"
                     "shutdown\n"
                     "end\n"),
              file + ":1: Unknown command: 'enabel'.\n" +                 //
                  file + ":2: Number out of range: '29' (30-86400).\n" +  //
                  file + ":5: Incomplete command.\n" +                    //
                  file + ":7: Unknown command: 'wrong'.\n" +              //
                  file + ":9: Unknown command: 'shutdown'.\n");
}

TEST_F(ConfigCheck, NothingChanges) {
    const std::string before = rig.type("show running-config");
    check("tarn enable\ninterface swp1\n shutdown\n!\nend\n");
    check("tarn enable\nbad\nend\n");
    EXPECT_EQ(rig.type("show running-config"), before);
    EXPECT_EQ(rig.platform.log.lines(), std::vector<std::string>{});
}

TEST_F(ConfigCheck, FaultsOfTheWholeFileComeFirst) {
    EXPECT_EQ(faults("tarn enabel\n"), file +
                                           ": The line 'end' is missing: the file is not whole.\n" +
                                           file + ":1: Unknown command: 'enabel'.\n");
}

TEST_F(ConfigCheck, LinesAfterTheEndAreOneFault) {
    EXPECT_EQ(faults("bad\nend\n! comment\ntarn enable\nworse\n"),
              file + ":1: Unknown command: 'bad'.\n" + file +
                  ":4: Nothing but comments may follow the line 'end'.\n");
}

TEST_F(ConfigCheck, BinaryFileIsOneFault) {
    EXPECT_EQ(faults(std::string("tarn\0enable\nbad\n", 16)), file + ": It is a binary file.\n");
}

TEST_F(ConfigCheck, LinesWithControlCharactersAndTooLongOnesAreNamed) {
    EXPECT_EQ(faults("tarn\x01 enable\ntarn " + std::string(1020, 'x') + "\nend\n"),
              file + ":1: Line contains control characters.\n" + file + ":2: Line too long.\n");
}

TEST_F(ConfigCheck, AtMostAHundredFaultsAreShown) {
    std::string text;
    for (int i = 0; i < 100; ++i) {
        text += "bad\n";
    }
    const std::string hundred = faults(text + "end\n");
    EXPECT_EQ(std::count(hundred.begin(), hundred.end(), '\n'), 100);
    EXPECT_TRUE(hundred.ends_with(file + ":100: Unknown command: 'bad'.\n"));
    EXPECT_EQ(faults(text + "bad\nend\n"),
              hundred + file + ": More lines are bad than are shown.\n");
}

TEST_F(ConfigCheck, LookingEndsAtTheLimit) {
    EXPECT_EQ(find_faults("bad\nbad\nbad\nend\n", 2).size(), 2U);
}

TEST_F(ConfigCheck, FaultsAreInTheOrderOfTheirLines) {
    const std::vector<ConfigFault> faults = find_faults("one\ntwo\nend\nthree\n", 10);
    ASSERT_EQ(faults.size(), 3U);
    EXPECT_EQ(faults[0].line, 1);
    EXPECT_EQ(faults[1].line, 2);
    EXPECT_EQ(faults[2].line, 4);
}

TEST_F(ConfigCheck, TooManyCommandsAreNotCheckedOneByOne) {
    std::string text = "bad\n";
    for (int i = 0; i < 131072; ++i) {
        text += "tarn enable\n";
    }
    EXPECT_EQ(faults(text + "end\n"), file + ": It has more than 131072 commands.\n");
}

TEST_F(ConfigCheck, FileThatCannotBeReadHasAReason) {
    EXPECT_EQ(check_file(nullptr, file).output, file + ": No such file or directory.\n");
    EXPECT_EQ(check_file(nullptr, rig.folder.path()).output,
              rig.folder.path() + ": It is not a regular file.\n");
    test::write_text(file, "end\n");
    const std::string link = rig.folder.file("link");
    std::filesystem::create_symlink(file, link);
    EXPECT_EQ(check_file(nullptr, link).output, link + ": It is a symbolic link.\n");
    std::filesystem::resize_file(file, 16 * 1024 * 1024 + 1);
    EXPECT_EQ(check_file(nullptr, file).output, file + ": File too large.\n");
    EXPECT_EQ(check_file(nullptr, file).code, 1);
}

TEST_F(ConfigCheck, FileIsReadWithTheRightsOfTheCaller) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to take another user's rights";
    }
    test::write_text(file, "end\n");
    std::filesystem::permissions(rig.folder.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(file, std::filesystem::perms(0600));
    const Caller nobody{.uid = 65534, .gid = 65534, .groups = {}};
    EXPECT_EQ(check_file(&nobody, file).output, file + ": Permission denied.\n");
}

// ---- The request ----

class CheckRequest : public ConfigCheck {
 protected:
    Result ask(const std::string& request) {
        Result taken{-99, "not answered"};
        answer_request(request, session, [&](Result result) { taken = std::move(result); });
        return taken;
    }
    SessionState session;
};

TEST_F(CheckRequest, IsAnsweredWithTheFaults) {
    test::write_text(file, "bad\nend\n");
    const Result result = ask(R"({"check":")" + file + R"("})");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.output, file + ":1: Unknown command: 'bad'.\n");
    EXPECT_EQ(session.mode, "exec");
}

TEST_F(CheckRequest, RefusesControlCharactersInTheName) {
    for (const char* name : {R"(\n)", R"(\u0000)", R"(\u007f)"}) {
        const Result result = ask(R"({"check":"/tmp/a)" + std::string(name) + R"(b"})");
        EXPECT_EQ(result.code, -1);
        EXPECT_EQ(result.output, "% The name of the file contains control characters.\n");
    }
}

TEST_F(CheckRequest, NeedsAText) {
    EXPECT_EQ(ask(R"({"check":7})").output,
              "% The request has no text \"exec\", \"complete\", \"help\" or \"check\".\n");
}

}  // namespace
}  // namespace qv::cli
