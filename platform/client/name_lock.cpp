#include "platform/client/name_lock.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
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

int open_socket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

void close_if_open(int& fd) {
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}

// The process that listens at the address of a name; nothing when another user owns it.
std::optional<pid_t> listener_at(const Address& address) {
    int fd = open_socket();
    if (fd < 0) {
        return std::nullopt;
    }
    ucred owner{};
    socklen_t size = sizeof owner;
    const bool known = connect(fd, address.generic(), address.size) == 0 &&
                       getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &owner, &size) == 0;
    close_if_open(fd);
    if (!known || (owner.uid != 0 && owner.uid != geteuid())) {
        return std::nullopt;
    }
    return owner.pid;
}

}  // namespace

NameLock::~NameLock() {
    release();
}

int NameLock::take(EventLoop& loop, const std::string& name, const std::string& file) {
    release();
    int error = take_file(file);
    if (error == 0) {
        error = take_address(loop, name);
    }
    if (error != 0) {
        release();
    }
    return error;
}

// Anyone who can open a file can lock it, so only its owner may open this one.
int NameLock::take_file(const std::string& file) {
    constexpr mode_t kOwnerOnly = 0600;
    file_ = open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
    if (file_ < 0) {
        return errno;
    }
    if (flock(file_, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? EADDRINUSE : errno;
    }
    // When this fails, others cannot say which process holds the lock.
    if (ftruncate(file_, 0) == 0) {
        dprintf(file_, "%d\n", static_cast<int>(getpid()));
    }
    return 0;
}

int NameLock::take_address(EventLoop& loop, const std::string& name) {
    socket_ = open_socket();
    if (socket_ < 0) {
        return errno;
    }
    const Address address = address_of(name);
    if (bind(socket_, address.generic(), address.size) != 0 || listen(socket_, SOMAXCONN) != 0) {
        const int error = errno;
        close_if_open(socket_);
        return error == EADDRINUSE && !listener_at(address) ? 0 : error;
    }
    // Without the watch the lock is still valid, but holder() of others may not find us.
    watch_ = loop.watch(socket_, true, false, [this](EventLoop::Ready) { answer(); });
    return 0;
}

void NameLock::release() {
    watch_.reset();
    close_if_open(socket_);
    close_if_open(file_);
}

// The kernel answers a caller of holder() as soon as it connects. This only makes room in the queue
// for the next one.
void NameLock::answer() const {
    for (int peer; (peer = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        close(peer);
    }
}

pid_t NameLock::holder(const std::string& name, const std::string& file) {
    if (const std::optional<pid_t> listener = listener_at(address_of(name))) {
        return *listener;
    }
    int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char text[16] = {};
    const bool written = read(fd, text, sizeof text - 1) > 0;
    // The file may name a process that has ended; then nobody holds its lock.
    const bool held = flock(fd, LOCK_SH | LOCK_NB) != 0;
    close_if_open(fd);
    return written && held ? static_cast<pid_t>(std::strtol(text, nullptr, 10)) : 0;
}

}  // namespace qv
