// The comparison with golden files, on a file of three lines and some comments.
#include "tests/support/golden/golden.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;

constexpr char kName[] = "golden/three_lines";

TEST(Golden, SameLinesPassWithoutTheComments) {
    expect_golden(kName, {"first line", "second line", "third line"});
    EXPECT_EQ(golden_lines(kName), (Lines{"first line", "second line", "third line"}));
}

TEST(Golden, ChangedLineIsShownBelowTheLineInFront) {
    EXPECT_NONFATAL_FAILURE(expect_golden(kName, {"first line", "2nd line", "third line"}),
                            "\n first line\n-second line\n+2nd line\nAll actual");
}

TEST(Golden, MissingLineFails) {
    EXPECT_NONFATAL_FAILURE(expect_golden(kName, {"second line", "third line"}),
                            "\n-first line\nAll actual");
    EXPECT_NONFATAL_FAILURE(expect_golden(kName, {"first line", "second line"}),
                            "\n second line\n-third line\nAll actual");
    EXPECT_NONFATAL_FAILURE(expect_golden(kName, {}),
                            "\n-first line\n-second line\n-third line\nAll actual");
}

TEST(Golden, AddedLineFails) {
    EXPECT_NONFATAL_FAILURE(
        expect_golden(kName, {"first line", "second line", "second line", "third line"}),
        "\n second line\n+second line\nAll actual");
}

TEST(Golden, OtherOrderFails) {
    EXPECT_NONFATAL_FAILURE(expect_golden(kName, {"second line", "first line", "third line"}),
                            "\n-first line\n-second line\n+second line\n+first line\nAll actual");
}

TEST(Golden, MissingFileFailsAndHasNoLines) {
    EXPECT_NONFATAL_FAILURE(expect_golden("golden/missing", {}), "there is no ");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(golden_lines("golden/missing"), Lines{}), "cannot read ");
}

// No other test fails with this file, so the actual lines are this test's.
TEST(Golden, FailureNamesTheFileWithAllActualLines) {
    constexpr char kActual[] = GOLDEN_ACTUAL_FOLDER "/golden/one_line.txt";
    std::filesystem::remove(kActual);
    EXPECT_NONFATAL_FAILURE(expect_golden("golden/one_line", {"only line", "another"}), kActual);
    std::ostringstream text;
    text << std::ifstream(kActual).rdbuf();
    EXPECT_EQ(text.str(), "only line\nanother\n");
}

TEST(Golden, FailureStandsAtTheLineOfTheTest) {
    testing::TestPartResultArray failures;
    const int line = __LINE__ + 4;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        expect_golden(kName, {});
    }
    ASSERT_EQ(failures.size(), 1);
    EXPECT_STREQ(failures.GetTestPartResult(0).file_name(), __FILE__);
    EXPECT_EQ(failures.GetTestPartResult(0).line_number(), line);
}

}  // namespace
