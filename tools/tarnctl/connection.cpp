#include "connection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace tarnctl {
namespace {

[[noreturn]] void lost() {
    throw std::runtime_error("the connection to tarnd is lost");
}

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

Connection::Connection(const std::string& path) : fd_(connect_to(path)) {
    if (fd_ < 0) {
        throw std::runtime_error("cannot reach tarnd at " + path + ": " + std::strerror(errno));
    }
}

Connection::~Connection() {
    ::close(fd_);
}

void Connection::send(const Json& request) const {
    const std::string line = request.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    for (std::string_view rest = line; !rest.empty();) {
        const ssize_t size = ::send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            return;  // a service that has closed the connection may have said why
        }
        rest.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
    }
}

Json Connection::next() {
    size_t end = 0;
    while ((end = input_.find('\n')) == std::string::npos) {
        std::array<char, 16384> bytes;
        const ssize_t size = ::recv(fd_, bytes.data(), bytes.size(), 0);
        if (size == 0 || (size < 0 && errno != EINTR)) {
            lost();
        }
        input_.append(bytes.data(), size < 0 ? 0 : static_cast<size_t>(size));
    }
    Json line = Json::parse(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(end),
                            nullptr, false);
    input_.erase(0, end + 1);
    if (!line.is_object()) {
        lost();
    }
    return line;
}

}  // namespace tarnctl
