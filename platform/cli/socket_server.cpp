#include "platform/cli/socket_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/cli/unix_socket.h"

namespace qv::cli {
namespace {

// How long no client is accepted after the process ran out of descriptors.
constexpr std::chrono::seconds kAcceptPause{1};
constexpr int kAcceptsPerTurn = 32;

}  // namespace

SocketServer::SocketServer(EventLoop& loop, std::string path)
    : loop_(loop), path_(std::move(path)), fd_(listen_at(path_)) {
    watch_listener();
}

SocketServer::~SocketServer() {
    watch_.reset();
    ::close(fd_);
}

void SocketServer::watch_listener() {
    watch_ = loop_.watch(fd_, true, false, [this](EventLoop::Ready) { accept_some(); });
}

void SocketServer::accept_some() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            pause_when_exhausted(errno);
            return;
        }
        const uint64_t id = next_id_++;
        const auto session = sessions_.emplace(
            id, std::make_unique<SocketSession>(loop_, fd, [this, id] { end_session(id); }));
        session.first->second->start();
    }
}

// Without descriptors the listener stays readable: looking again at once would spin.
void SocketServer::pause_when_exhausted(int reason) {
    if (reason == EMFILE || reason == ENFILE || reason == ENOBUFS || reason == ENOMEM) {
        watch_.reset();
        retry_ = loop_.after(kAcceptPause, [this] { watch_listener(); });
    }
}

void SocketServer::end_session(uint64_t id) {
    const auto found = sessions_.find(id);
    ended_.push_back(std::move(found->second));
    sessions_.erase(found);
    if (!sweep_) {
        sweep_ = loop_.after(Duration::zero(), [this] {
            sweep_.reset();
            ended_.clear();
        });
    }
}

void SocketServer::show_message(std::string_view text) {
    // A session may end while it is shown the message.
    for (auto next = sessions_.begin(); next != sessions_.end();) {
        SocketSession& session = *(next++)->second;
        session.show_message(text);
    }
}

}  // namespace qv::cli
