#include "services/tarnd/identity.h"

#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

// The wall clock, which the tests set.
static std::chrono::hours g_wall_clock_ahead{0};
std::chrono::system_clock::time_point real_wall_clock() asm(
    "__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point set_wall_clock() asm(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point set_wall_clock() {
    return real_wall_clock() + g_wall_clock_ahead;
}

namespace qv::tarnd {
namespace {

struct IdentityTest : testing::Test {
    IdentityTest() {
        EXPECT_GE(sodium_init(), 0);
        std::string pattern = testing::TempDir() + "keyXXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~IdentityTest() override { std::filesystem::remove_all(folder); }

    std::string refusal() const {
        try {
            load_identity(folder, "br0");
            return "";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

    std::string folder;
    std::string key() const { return folder + "/key"; }
};

TEST_F(IdentityTest, TheFirstStartMakesAKeyForThisUserAlone) {
    load_identity(folder, "br0");
    struct stat status {};
    ASSERT_EQ(stat(key().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
    EXPECT_EQ(status.st_size, 32);
}

TEST_F(IdentityTest, WallClockThatIsSetBackDoesNotLowerTheSequence) {
    const auto first = load_identity(folder, "br0");
    g_wall_clock_ahead = -std::chrono::hours(1);
    const auto second = load_identity(folder, "br0");
    g_wall_clock_ahead = std::chrono::hours(0);
    EXPECT_GT(second.first_sequence, first.first_sequence);
}

TEST_F(IdentityTest, LaterStartsAreTheSameBridgeWithHigherSequences) {
    const auto first = load_identity(folder, "br0");
    const auto second = load_identity(folder, "br0");
    EXPECT_GT(second.first_sequence, first.first_sequence);
    EXPECT_EQ(first.bridge, second.bridge);
    EXPECT_EQ(first.source, second.source);
    EXPECT_EQ(first.key, second.key);
    EXPECT_EQ(first.source[0] & 3, 2);  // an individual address, locally administered
    const auto other = load_identity(folder, "br1");
    EXPECT_NE(first.bridge, other.bridge);
    EXPECT_NE(first.source, other.source);
}

TEST_F(IdentityTest, AKeyThatOthersCanReadIsRefused) {
    load_identity(folder, "br0");
    ASSERT_EQ(chmod(key().c_str(), 0640), 0);
    EXPECT_EQ(refusal(), key() + ": must be a file of this user with mode 0600");
}

TEST_F(IdentityTest, AKeyOfAnotherLengthIsRefused) {
    for (const size_t length : {0, 31, 33}) {
        std::filesystem::remove(key());
        std::ofstream(key()) << std::string(length, 'k');
        ASSERT_EQ(chmod(key().c_str(), 0600), 0);
        EXPECT_EQ(refusal(), key() + ": must have 32 bytes") << length;
    }
}

}  // namespace
}  // namespace qv::tarnd
