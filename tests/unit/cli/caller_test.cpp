// Files opened with the rights of a caller, and the rights of the process afterwards.
#include "platform/cli/caller.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::Caller;
using qv::cli::open_as;

constexpr uid_t kNobody = 65534;
constexpr gid_t kTeam = 12345;

// An alarm ends the call if it blocks.
TEST(CallersFile, PipeIsOpenedWithoutWaiting) {
    const qv::test::TestFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {
    };
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    ::alarm(5);
    const int fd = open_as(nullptr, folder.file("pipe"));
    EXPECT_GE(fd, 0);
    ::alarm(0);
    ::close(fd);
}

class FileOfRoot : public ::testing::Test {
 protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root can take on the rights of another user";
        }
        qv::test::write_text(file, "text");
        ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
        ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    }

    const qv::test::TestFolder folder;
    const std::string file = folder.file("f");
};

TEST_F(FileOfRoot, IsRefusedWithTheReasonAndTheProcessIsAsBefore) {
    const std::vector<gid_t> groups{7, 8};
    ASSERT_EQ(::setgroups(groups.size(), groups.data()), 0);
    const Caller caller{kNobody, kTeam, {1}};
    EXPECT_EQ(open_as(&caller, file), -1);
    EXPECT_EQ(errno, EACCES);
    std::vector<gid_t> after(64);
    after.resize(static_cast<size_t>(::getgroups(64, after.data())));
    EXPECT_EQ(after, groups);
    EXPECT_EQ(::setfsuid(static_cast<uid_t>(-1)), 0);
    EXPECT_EQ(::setfsgid(static_cast<gid_t>(-1)), 0);
}

TEST_F(FileOfRoot, NeedsNoPrivilegeForTheUserOfTheProcess) {
    ASSERT_EQ(::chown(file.c_str(), kNobody, kTeam), 0);
    ASSERT_EQ(::seteuid(kNobody), 0);
    const Caller self{kNobody, kTeam, {}};
    const int fd = open_as(&self, file);
    EXPECT_GE(fd, 0);
    ::close(fd);
    const Caller other{kNobody - 1, kTeam, {}};
    EXPECT_EQ(open_as(&other, file), -1);
    EXPECT_EQ(errno, EPERM);
    ASSERT_EQ(::seteuid(0), 0);
}

}  // namespace
