#include "platform/base/line_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace qv {
namespace {

int connect_to(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 &&
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        ::close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

}  // namespace

LineClient::LineClient(const std::string& path, std::string peer)
    : peer_(std::move(peer)), fd_(connect_to(path)) {
    if (fd_ < 0) {
        throw std::runtime_error("cannot reach " + peer_ + " at " + path + ": " +
                                 std::strerror(errno));
    }
}

LineClient::~LineClient() {
    ::close(fd_);
}

void LineClient::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t size = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            return;
        }
        bytes.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
    }
}

std::optional<std::string> LineClient::take_line() {
    const size_t end = input_.find('\n');
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    return line;
}

void LineClient::receive(bool wait) {
    std::array<char, 16384> bytes;
    const ssize_t size = ::recv(fd_, bytes.data(), bytes.size(), wait ? 0 : MSG_DONTWAIT);
    if (size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN)) {
        lost();
    }
    input_.append(bytes.data(), size < 0 ? 0 : static_cast<size_t>(size));
}

std::string LineClient::next_line() {
    for (;;) {
        if (std::optional<std::string> line = take_line()) {
            return *std::move(line);
        }
        receive(true);
    }
}

void LineClient::lost() const {
    throw std::runtime_error("the connection to " + peer_ + " is lost");
}

}  // namespace qv
