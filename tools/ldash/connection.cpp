#include "connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace ldash {
namespace {

using nlohmann::json;

constexpr int kPatience_ms = 3000;  // then the operator sees why nothing happens

[[noreturn]] void lost() {
    throw std::runtime_error("the connection to the switch is lost");
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
    if (fd < 0) {
        return -1;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        ::close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

// Returns the reply. Throws the switch's reason when the switch ends the session by itself.
const json& checked(const json& reply) {
    if (reply.value("end", false) && reply.value("result", -1) < 0) {
        std::string reason = reply.value("output", "");
        reason.erase(0, reason.starts_with("% ") ? 2 : 0);
        reason.erase(reason.find_last_not_of("\r\n") + 1);
        throw std::runtime_error(reason);
    }
    return reply;
}

}  // namespace

Connection::Connection(const std::string& path) : fd_(connect_to(path)) {
    if (fd_ < 0) {
        throw std::runtime_error("cannot reach the switch at " + path + ": " +
                                 std::strerror(errno));
    }
}

// A switch without descriptors accepts no session, although the kernel has already connected us.
void Connection::wait_for_bytes() const {
    pollfd waiting{.fd = fd_, .events = POLLIN, .revents = 0};
    if (::poll(&waiting, 1, kPatience_ms) == 0) {
        std::fputs("ldash: the switch has not answered yet, still waiting (Ctrl-C to leave)\n",
                   stderr);
    }
}

Connection::~Connection() {
    ::close(fd_);
}

void Connection::receive(bool wait) {
    char bytes[16384];
    const ssize_t size = ::recv(fd_, bytes, sizeof bytes, wait ? 0 : MSG_DONTWAIT);
    if (size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN)) {
        lost();
    }
    input_.append(bytes, size < 0 ? 0 : static_cast<size_t>(size));
}

bool Connection::take_line(std::string& line) {
    const size_t end = input_.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    line = input_.substr(0, end);
    input_.erase(0, end + 1);
    return true;
}

void Connection::take_messages() {
    receive(false);
    std::string line;
    while (take_line(line)) {
        const json message = json::parse(line, nullptr, false);
        if (!message.is_object()) {
            continue;
        }
        if (message.contains("monitor") && on_message) {
            on_message(message["monitor"].get<std::string>());
        }
        checked(message);
    }
}

Reply Connection::ask(const char* kind, std::string_view line) {
    const json request{{kind, std::string(line)}};
    std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t size = ::send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            break;  // a switch that has closed the session may have sent a reason
        }
        rest.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
    }
    wait_for_bytes();
    for (;;) {
        if (!take_line(text)) {
            receive(true);
            continue;
        }
        const json reply = json::parse(text, nullptr, false);
        if (!reply.is_object()) {
            lost();
        }
        if (!reply.contains("monitor")) {
            Reply taken{.output = checked(reply).value("output", ""),
                        .prompt = reply.value("prompt", ""),
                        .result = reply.value("result", -1),
                        .end = reply.value("end", false)};
            if (reply.contains("wrong_at")) {
                taken.wrong_at = reply.value("wrong_at", size_t{0});
            }
            if (reply.contains("length")) {
                taken.length = reply.value("length", 0);
            }
            return taken;
        }
        if (on_message) {
            on_message(reply["monitor"].get<std::string>());
        }
    }
}

}  // namespace ldash
