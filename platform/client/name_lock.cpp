#include "platform/client/name_lock.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace qv {
namespace {

struct Address {
    sockaddr_un socket{};
    socklen_t size = 0;

    const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&socket); }
};

// A name too long for an address is shortened to its beginning and a number made from all of it.
Address address_of(std::string name) {
    Address address;
    constexpr size_t kRoom = sizeof address.socket.sun_path - 1;  // an abstract name begins with 0
    if (name.size() > kRoom) {
        char number[17];
        std::snprintf(number, sizeof number, "%016zx", std::hash<std::string>()(name));
        name = name.substr(0, kRoom - 16) + number;
    }
    address.socket.sun_family = AF_UNIX;
    name.copy(address.socket.sun_path + 1, kRoom);
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

}  // namespace

NameLock::~NameLock() {
    release();
}

int NameLock::take(EventLoop& loop, const std::string& name) {
    release();
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return errno;
    }
    const Address address = address_of(name);
    if (bind(fd_, address.generic(), address.size) != 0 || listen(fd_, SOMAXCONN) != 0) {
        const int error = errno;
        release();
        return error;
    }
    // Without the watch the name is held all the same; only its holder may stay unknown one day.
    watch_ = loop.watch(fd_, true, false, [this](EventLoop::Ready) { answer(); });
    return 0;
}

void NameLock::release() {
    watch_.reset();
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
}

// The kernel has told them already: all that is left is to make room for the next ones.
void NameLock::answer() const {
    for (int peer; (peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        close(peer);
    }
}

pid_t NameLock::holder(const std::string& name) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    const Address address = address_of(name);
    ucred owner{};
    socklen_t size = sizeof owner;
    const bool known = connect(fd, address.generic(), address.size) == 0 &&
                       getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &owner, &size) == 0;
    close(fd);
    return known ? owner.pid : 0;
}

}  // namespace qv
