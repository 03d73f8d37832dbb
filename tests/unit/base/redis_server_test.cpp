// The password file of the object database.
#include "platform/base/redis_server.h"

#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace {

class RedisPassword : public testing::Test {
 protected:
    std::string read() const { return qv::read_redis_password({"/socket", "agent", path_}); }
    std::string read(const std::string& text, mode_t mode = 0600) {
        folder_.write("password", text);
        ::chmod(path_.c_str(), mode);
        return read();
    }
    // The reason without the start that all have.
    std::string fault() const {
        try {
            return "none: " + read();
        } catch (const std::runtime_error& error) {
            const std::string start = "the password file " + path_ + " ";
            const std::string what = error.what();
            return what.starts_with(start) ? what.substr(start.size()) : "odd: " + what;
        }
    }
    std::string fault_of(const std::string& text, mode_t mode = 0600) {
        folder_.write("password", text);
        ::chmod(path_.c_str(), mode);
        return fault();
    }

    qv::test::TemporaryDirectory folder_;
    std::string path_ = folder_.file("password");
};

TEST_F(RedisPassword, IsTheOnlyLine) {
    EXPECT_EQ(read("secret\n"), "secret");
    EXPECT_EQ(read("secret"), "secret");
    EXPECT_EQ(read(" with blanks \xc3\xa4 \n"), " with blanks \xc3\xa4 ");
    EXPECT_EQ(read(std::string(512, 'p') + "\n"), std::string(512, 'p'));
}

TEST_F(RedisPassword, OtherContentIsRefused) {
    const char* const line = "must have one line of 1 to 512 bytes without control characters";
    for (const std::string& text :
         {std::string(), std::string("\n"), std::string("a\nb\n"), std::string("a\n\n"),
          std::string("a\r\n"), std::string("a\0b", 3), std::string("a\x7f"), std::string(513, 'p'),
          std::string(513, 'p') + "\n", std::string(100000, 'p')}) {
        EXPECT_EQ(fault_of(text), line) << text.size();
    }
}

TEST_F(RedisPassword, FileOpenToOtherUsersIsRefused) {
    for (const mode_t mode : {0604U, 0602U, 0601U, 0644U, 0777U}) {
        EXPECT_EQ(fault_of("secret\n", mode), "is open to other users: chmod o= it") << mode;
    }
    EXPECT_EQ(read("secret\n", 0640), "secret") << "its group may";
}

TEST_F(RedisPassword, FileThatCannotBeReadIsNamed) {
    EXPECT_EQ(fault(), "cannot be read: No such file or directory");
    ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
    EXPECT_EQ(fault(), "is not a regular file");
}

TEST_F(RedisPassword, PipeDoesNotBlock) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(fault(), "is not a regular file");
}

}  // namespace
