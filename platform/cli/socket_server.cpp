#include "platform/cli/socket_server.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "platform/cli/unix_socket.h"
#include "platform/cli/wire.h"
#include "qv/syslog.h"

namespace qv::cli {
namespace {

// How long no client is accepted after the process ran out of descriptors or memory.
constexpr std::chrono::seconds kAcceptPause{1};
constexpr int kAcceptsPerTurn = 32;

// A new descriptor has the lowest free number, so one below the reserve leaves the reserve free.
bool in_reserve(int fd) {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
           static_cast<rlim_t>(fd) + SocketServer::kReservedDescriptors >= limit.rlim_cur;
}

void refuse_client(int fd, const std::string& reason) {
    SessionState nobody;
    nobody.leaving = true;
    const std::string text = reply(error_result(reason), nobody);
    // A fresh connection has room for one line.
    static_cast<void>(::send(fd, text.data(), text.size(), MSG_NOSIGNAL));
    ::close(fd);
}

}  // namespace

SocketServer::SocketServer(EventLoop& loop, std::string path, Limits limits)
    : loop_(loop), path_(std::move(path)), limits_(limits), fd_(listen_at(path_)) {
    watch_listener();
    watch_file();
}

SocketServer::~SocketServer() {
    watch_.reset();
    ::close(fd_);
}

void SocketServer::watch_listener() {
    watch_ = loop_.watch(fd_, true, false, [this](EventLoop::Ready) { accept_some(); });
    if (!watch_) {
        retry_ = loop_.after(kAcceptPause, [this] { watch_listener(); });
    }
}

void SocketServer::accept_some() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            pause_when_exhausted(errno);
            return;
        }
        if (const std::string refusal = refusal_for(fd); !refusal.empty()) {
            refuse_client(fd, refusal);
            continue;
        }
        const uint64_t id = next_id_++;
        const auto session =
            sessions_.emplace(id, std::make_unique<SocketSession>(loop_, fd, id, limits_.idle,
                                                                  [this, id] { end_session(id); }));
        session.first->second->start();
    }
}

// Without descriptors the listener stays readable: trying again at once would spin.
void SocketServer::pause_when_exhausted(int reason) {
    if (reason == EMFILE || reason == ENFILE || reason == ENOBUFS || reason == ENOMEM) {
        watch_.reset();
        retry_ = loop_.after(kAcceptPause, [this] { watch_listener(); });
    }
}

// Why this client gets no session; empty when it gets one.
std::string SocketServer::refusal_for(int fd) const {
    if (sessions_.size() >= limits_.sessions) {
        return "Too many sessions (limit " + std::to_string(limits_.sessions) + ").";
    }
    return in_reserve(fd) ? "No session: the switch is short of descriptors." : "";
}

void SocketServer::watch_file() {
    file_check_ = loop_.after(kFileCheck, [this] {
        struct stat status {};
        if (::lstat(path_.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
            reopen();
        }
        watch_file();
    });
}

void SocketServer::reopen() {
    // A socket whose file was removed gets no new clients, but some may be waiting already.
    accept_some();
    try {
        const int fresh = listen_at(path_);
        watch_.reset();
        retry_.reset();
        ::close(fd_);
        fd_ = fresh;
        watch_listener();
        file_trouble_reported_ = false;
        printk_syslog(SYSLOG_SEVERITY_WARNING, "CLI", "SOCKET",
                      "%s was removed; operators can connect again.", path_.c_str());
    } catch (const std::runtime_error& problem) {
        if (!file_trouble_reported_) {
            file_trouble_reported_ = true;
            printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "SOCKET", "Operators cannot connect: %s.",
                          problem.what());
        }
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

std::vector<const SocketSession*> SocketServer::sessions() const {
    std::vector<const SocketSession*> all;
    for (const auto& [id, session] : sessions_) {
        all.push_back(session.get());
    }
    return all;
}

void SocketServer::show_message(std::string_view text) {
    // A session may end while the message is sent to it.
    for (auto next = sessions_.begin(); next != sessions_.end();) {
        SocketSession& session = *(next++)->second;
        session.show_message(text);
    }
}

}  // namespace qv::cli
