#include "services/tarnd/fabric_key.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace qv::tarnd {
namespace {

Key key_of(uint8_t byte) {
    Key key{};
    key.fill(byte);
    return key;
}

struct FabricKeyTest : testing::Test {
    FabricKeyTest() {
        std::string pattern = testing::TempDir() + "fabricXXXXXX";
        folder = mkdtemp(pattern.data());
        file = folder + "/key";
    }
    ~FabricKeyTest() override { std::filesystem::remove_all(folder); }

    void write(size_t length, char byte, mode_t mode = 0600) const {
        std::ofstream(file) << std::string(length, byte);
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
    }

    std::string folder;
    std::string file;
    FabricKey key{key_of('o')};
};

TEST_F(FabricKeyTest, TheFileIsUsedAndTheOwnKeyIsBackWithoutIt) {
    write(32, 'f');
    EXPECT_TRUE(key.follow(file));
    EXPECT_EQ(key.key(), key_of('f'));
    EXPECT_FALSE(key.follow(file));
    write(32, 'g');
    EXPECT_TRUE(key.follow(file));
    EXPECT_EQ(key.key(), key_of('g'));
    EXPECT_TRUE(key.follow(""));
    EXPECT_EQ(key.key(), key_of('o'));
    EXPECT_EQ(key.refusal(), "");
}

TEST_F(FabricKeyTest, ABadFileIsRefusedAndTheKeyInUseStays) {
    EXPECT_FALSE(key.follow(file));
    EXPECT_EQ(key.refusal(), file + ": No such file or directory");
    write(31, 'f');
    EXPECT_FALSE(key.follow(file));
    EXPECT_EQ(key.refusal(), file + ": must have 32 bytes");
    write(32, 'f', 0640);
    EXPECT_FALSE(key.follow(file));
    EXPECT_EQ(key.refusal(), file + ": must be a file of this user with mode 0600");
    EXPECT_EQ(key.key(), key_of('o'));
    EXPECT_FALSE(key.follow(folder));
    EXPECT_EQ(key.refusal(), folder + ": must be a file of this user with mode 0600");
    std::filesystem::create_symlink(file, folder + "/link");
    EXPECT_FALSE(key.follow(folder + "/link"));
    EXPECT_NE(key.refusal(), "");
    write(32, 'f');
    EXPECT_TRUE(key.follow(file));
    EXPECT_EQ(key.refusal(), "");
}

TEST_F(FabricKeyTest, AFileOfAnotherUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file to another user";
    }
    write(32, 'f');
    ASSERT_EQ(chown(file.c_str(), 1, 1), 0);
    EXPECT_FALSE(key.follow(file));
    EXPECT_EQ(key.refusal(), file + ": must be a file of this user with mode 0600");
}

}  // namespace
}  // namespace qv::tarnd
