#include "platform/cli/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/base/folders.h"

namespace qv::cli {
namespace {

constexpr int kBacklog = 511;
constexpr mode_t kSocketMode = 0660;

bool make_address(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error("cannot listen at " + path + ": " + reason);
}

// Removes the socket that an earlier process left at `path`, unless it is in use.
void remove_stale_socket(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        fail(path, "there is something that is not a socket");
    }
    const int fd = connect_to(path);
    if (fd >= 0) {
        ::close(fd);
    }
    if (fd >= 0 || errno != ECONNREFUSED) {
        fail(path, "another process listens there");
    }
    ::unlink(path.c_str());
}

}  // namespace

int listen_at(const std::string& path) {
    sockaddr_un address;
    if (!make_address(path, address)) {
        fail(path, std::strerror(errno));
    }
    make_folder_of(path);
    remove_stale_socket(path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // The mode is set before anybody can connect: a connection needs listen().
    if (fd < 0 || ::bind(fd, generic(address), sizeof address) != 0 ||
        ::chmod(path.c_str(), kSocketMode) != 0 || ::listen(fd, kBacklog) != 0) {
        const std::string reason = std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        fail(path, reason);
    }
    return fd;
}

int connect_to(const std::string& path) {
    sockaddr_un address;
    if (!make_address(path, address)) {
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, generic(address), sizeof address) != 0) {
        const int reason = errno;
        ::close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

}  // namespace qv::cli
