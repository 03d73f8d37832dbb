// Sockets by path: what is created, what is replaced, what is refused.
#include "platform/cli/unix_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::connect_to;
using qv::cli::listen_at;
using qv::test::open_descriptors;

class UnixSocket : public ::testing::Test {
 protected:
    // The reason why nothing can listen at `path`.
    static std::string refusal(const std::string& path) {
        try {
            ::close(listen_at(path));
        } catch (const std::runtime_error& problem) {
            return problem.what();
        }
        return "none";
    }
    static bool is_socket(const std::string& path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
    }

    qv::test::TestFolder folder;
};

TEST_F(UnixSocket, FoldersThatAreMissingAreMade) {
    const std::string path = folder.file("one/two/three.sock");
    EXPECT_EQ(refusal(path), "none");
    EXPECT_TRUE(is_socket(path));
}

TEST_F(UnixSocket, PathTooLongForAnAddressIsRefused) {
    const std::string longest = folder.file(std::string(106 - folder.path().size(), 'x'));
    ASSERT_EQ(longest.size(), 107U);
    EXPECT_EQ(refusal(longest), "none");
    EXPECT_TRUE(is_socket(longest));
    EXPECT_EQ(refusal(longest + "x"), "cannot listen at " + longest + "x: File name too long");
    EXPECT_EQ(refusal(""), "cannot listen at : File name too long");
    errno = 0;
    EXPECT_EQ(connect_to(longest + "x"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

// It is not a stream socket, so nobody can connect to it here, but it may be in use.
TEST_F(UnixSocket, SocketOfAnotherKindIsNotReplaced) {
    const std::string path = folder.file("datagrams");
    const int other = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(refusal(path), "cannot listen at " + path + ": another process listens there");
    EXPECT_TRUE(is_socket(path));
    ::close(other);
}

TEST_F(UnixSocket, RefusalsTakeNoDescriptor) {
    const std::string used = folder.file("used");
    const int listener = listen_at(used);
    qv::test::write_text(folder.file("file"), "no socket");
    const size_t before = open_descriptors();
    EXPECT_EQ(refusal(used), "cannot listen at " + used + ": another process listens there");
    EXPECT_EQ(refusal(folder.file("file")), "cannot listen at " + folder.file("file") +
                                                ": there is something that is not a socket");
    EXPECT_EQ(refusal(folder.file("file/below")),
              "cannot listen at " + folder.file("file/below") + ": Not a directory");
    EXPECT_EQ(connect_to(folder.file("none")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_descriptors(), before);
    ::close(listener);
}

TEST_F(UnixSocket, SocketThatNobodyListensOnIsReplaced) {
    const std::string path = folder.file("left");
    ::close(listen_at(path));
    const size_t before = open_descriptors();
    EXPECT_EQ(refusal(path), "none");
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
