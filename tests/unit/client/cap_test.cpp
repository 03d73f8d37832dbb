#include "qv/cap.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

constexpr char kKey[] = "p_cmps_sln/lda/storm_dct_ratelimit/default_value";

// The file is read once in a process, so each of these tests runs in its own process.
struct CapTest : testing::Test {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;

    void use_file(const std::string& text) {
        platform.settings.capabilities = directory.write("cap.toml", text);
    }
    // The result, and the value, which was set before the call.
    std::pair<int, int32_t> get(const char* key) {
        int32_t value = 4711;
        const int result = libqv_cap_get_capacity_int32("LDA", key, &value, -1);
        return {result, value};
    }
};

TEST_F(CapTest, NumberOfTheFileIsRead) {
    use_file("# what this switch can do\n\"" + std::string(kKey) + "\" = 12000\n");
    EXPECT_EQ(libqv_cap_init("LDA", kKey), 0);
    EXPECT_EQ(get(kKey), std::pair(0, 12000));
    EXPECT_EQ(get("p_cmps_sln/lda/other"), std::pair(0, -1));
}

TEST_F(CapTest, NoFileIsAnEmptyStore) {
    EXPECT_EQ(libqv_cap_init("LDA", kKey), 0);
    EXPECT_EQ(get(kKey), std::pair(0, -1));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(CapTest, FileThatIsNotThereIsAnEmptyStore) {
    platform.settings.capabilities = directory.file("none.toml");
    EXPECT_EQ(libqv_cap_init("LDA", kKey), 0);
    EXPECT_EQ(get(kKey), std::pair(0, -1));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(CapTest, BadFileIsAnErrorAndOneLogLineWithItsPlace) {
    use_file("\"good\" = 1\n\"bad\" = = 2\n");
    EXPECT_EQ(libqv_cap_init("LDA", kKey), EINVAL);
    ASSERT_EQ(platform.log.lines().size(), 1u);
    const std::string expected =
        "CAP-3-FILE: Capability file " + platform.settings.capabilities + ":2: ";
    EXPECT_EQ(platform.log.lines().front().substr(0, expected.size()), expected);
    EXPECT_EQ(get("good"), std::pair(ENOENT, 4711));
}

TEST_F(CapTest, DirectoryInPlaceOfTheFileIsAnError) {
    platform.settings.capabilities = directory.path();
    EXPECT_EQ(libqv_cap_init("LDA", kKey), EINVAL);
    EXPECT_EQ(platform.log.lines().size(), 1u);
}

TEST_F(CapTest, FileThatCannotBeLookedAtIsAnError) {
    platform.settings.capabilities = directory.file(std::string(300, 'x'));  // too long a name
    EXPECT_EQ(libqv_cap_init("LDA", kKey), EINVAL);
    ASSERT_EQ(platform.log.lines().size(), 1u);
    const std::string expected = "CAP-3-FILE: Capability file " + platform.settings.capabilities;
    EXPECT_EQ(platform.log.lines().front().substr(0, expected.size()), expected);
}

TEST_F(CapTest, FileIsReadOnceForAllClients) {
    use_file("number = 1\n");
    EXPECT_EQ(libqv_cap_init("OTHER", "number"), 0);
    EXPECT_EQ(get("number"), std::pair(ENOENT, 4711)) << "for each client by itself";
    use_file("number = 2\n");
    EXPECT_EQ(libqv_cap_init("LDA", "number"), 0);
    EXPECT_EQ(get("number"), std::pair(0, 1));
}

TEST_F(CapTest, EntryThatIsNo32BitNumberLeavesTheValueAlone) {
    use_file(
        "text = \"12\"\nreal = 1.5\nlarge = 2147483648\nsmall = -2147483649\n"
        "most = 2147483647\nleast = -2147483648\n");
    EXPECT_EQ(libqv_cap_init("LDA", kKey), 0);
    EXPECT_EQ(get("text"), std::pair(EINVAL, 4711));
    EXPECT_EQ(get("real"), std::pair(EINVAL, 4711));
    EXPECT_EQ(get("large"), std::pair(ERANGE, 4711));
    EXPECT_EQ(get("small"), std::pair(ERANGE, 4711));
    EXPECT_EQ(get("most"), std::pair(0, 2147483647));
    EXPECT_EQ(get("least"), std::pair(0, -2147483647 - 1));
}

TEST_F(CapTest, UnknownClientAndNullsAreRefused) {
    EXPECT_EQ(get(kKey), std::pair(ENOENT, 4711));
    EXPECT_EQ(libqv_cap_init(nullptr, kKey), EINVAL);
    EXPECT_EQ(libqv_cap_init("LDA", nullptr), EINVAL);
    EXPECT_EQ(libqv_cap_init("", kKey), EINVAL);
    EXPECT_EQ(libqv_cap_init("LDA", ""), EINVAL);
    EXPECT_EQ(libqv_cap_init("LDA", kKey), 0);
    EXPECT_EQ(get(nullptr), std::pair(EINVAL, 4711));
    EXPECT_EQ(libqv_cap_get_capacity_int32("LDA", kKey, nullptr, -1), EINVAL);
    int32_t value = 4711;
    EXPECT_EQ(libqv_cap_get_capacity_int32(nullptr, kKey, &value, -1), EINVAL);
    EXPECT_EQ(value, 4711);
}

}  // namespace
}  // namespace qv
