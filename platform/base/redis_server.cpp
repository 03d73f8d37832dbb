#include "platform/base/redis_server.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "platform/base/lock_file.h"

namespace qv {
namespace {

constexpr size_t kMaxPassword_bytes = 512;

[[noreturn]] void refuse(const RedisServer& server, const std::string& reason) {
    throw std::runtime_error("the password file " + server.password_file + " " + reason);
}

[[noreturn]] void refuse_error(const RedisServer& server, int error) {
    refuse(server, "cannot be read: " + std::generic_category().message(error));
}

void check_file(const RedisServer& server, int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        refuse_error(server, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        refuse(server, "is not a regular file");
    }
    if ((status.st_mode & S_IRWXO) != 0) {
        refuse(server, "is open to other users: chmod o= it");
    }
}

}  // namespace

std::string read_redis_password(const RedisServer& server) {
    // Does not block on a pipe or device.
    const File file(
        ::open(server.password_file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.open()) {
        refuse_error(server, errno);
    }
    check_file(server, file.fd());
    // With a line end, and one more to see that it is longer.
    std::array<char, kMaxPassword_bytes + 2> bytes;
    const ssize_t size = ::read(file.fd(), bytes.data(), bytes.size());
    if (size < 0) {
        refuse_error(server, errno);
    }
    std::string_view line(bytes.data(), static_cast<size_t>(size));
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    const bool clean = std::none_of(line.begin(), line.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
    if (line.empty() || line.size() > kMaxPassword_bytes || !clean) {
        refuse(server, "must have one line of 1 to 512 bytes without control characters");
    }
    return std::string(line);
}

}  // namespace qv
