// What syslog(3) sends for a message, read from a socket that stands in for the log service.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/driver/linux/syslog_log.h"

namespace qv {
namespace {

// A datagram socket at /dev/log, in a mount namespace where /dev is an empty file system.
struct SyslogSocketTest : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
            GTEST_SKIP() << "no /dev/log of our own: " << std::strerror(errno);
        }
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
        ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void TearDown() override {
        if (socket_ >= 0) {
            close(socket_);
        }
    }
    std::string receive() const {
        char datagram[1024];
        const ssize_t size = recv(socket_, datagram, sizeof datagram, 0);
        return size > 0 ? std::string(datagram, static_cast<size_t>(size)) : "";
    }

 private:
    int socket_ = -1;
};

TEST_F(SyslogSocketTest, SeverityIsMappedAndTheTextIsTheRenderedOne) {
    SyslogLog log;
    log.write({.severity = 4, .facility = "LDA", .mnemonic = "RECOVER", .text = "100%s of it\r\n"});
    const std::string datagram = receive();
    // Facility daemon is 3: the priority is 3 * 8 + severity.
    EXPECT_EQ(datagram.substr(0, 4), "<28>");
    EXPECT_NE(datagram.find(" lda[" + std::to_string(getpid()) + "]: %LDA-4-RECOVER: 100%s of it"),
              std::string::npos)
        << datagram;
}

TEST_F(SyslogSocketTest, SeverityOutOfRangeDoesNotReachTheFacility) {
    SyslogLog log;
    log.write({.severity = 999, .facility = "LDA", .mnemonic = "A", .text = "x"});
    EXPECT_EQ(receive().substr(0, 4), "<31>");
    log.write({.severity = -1, .facility = "LDA", .mnemonic = "A", .text = "x"});
    EXPECT_EQ(receive().substr(0, 4), "<24>");
}

}  // namespace
}  // namespace qv
