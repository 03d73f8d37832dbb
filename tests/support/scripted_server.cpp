#include "tests/support/scripted_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace qv::test {

ScriptedServer::Peer::Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

ScriptedServer::Peer::~Peer() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::string ScriptedServer::Peer::received() {
    std::string all;
    std::array<char, 65536> part;
    for (ssize_t size = 1; size > 0;) {
        size = recv(fd_, part.data(), part.size(), MSG_DONTWAIT);
        all.append(part.data(), size > 0 ? static_cast<size_t>(size) : 0);
    }
    return all;
}

void ScriptedServer::Peer::send(const std::string& bytes) const {
    static_cast<void>(::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

bool ScriptedServer::Peer::closed() const {
    pollfd state = {fd_, POLLIN, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
}

ScriptedServer::ScriptedServer()
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    std::string name = std::filesystem::temp_directory_path() / "lda-socket-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a temporary directory");
    }
    directory_ = name;
    path_ = directory_ + "/socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd_, 16) != 0) {
        throw std::runtime_error("cannot listen");
    }
}

ScriptedServer::~ScriptedServer() {
    close(fd_);
    std::filesystem::remove_all(directory_);
}

std::vector<ScriptedServer::Peer> ScriptedServer::accept() {
    std::vector<Peer> peers;
    for (int fd = ::accept(fd_, nullptr, nullptr); fd >= 0; fd = ::accept(fd_, nullptr, nullptr)) {
        peers.emplace_back(fd);
    }
    return peers;
}

}  // namespace qv::test
