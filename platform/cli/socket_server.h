// The command-line socket and the sessions on it. Loop thread only.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/socket_session.h"
#include "platform/client/event_loop.h"

namespace qv::cli {

class SocketServer {
 public:
    // Listens on a Unix stream socket at `path`, mode 0660; missing folders are made, a socket that
    // nobody listens on is replaced. Throws std::runtime_error with path and reason.
    SocketServer(EventLoop& loop, std::string path);
    ~SocketServer();
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    const std::string& path() const { return path_; }
    size_t session_count() const { return sessions_.size(); }

    // Shows a message on every session that monitors.
    void show_message(std::string_view text);

 private:
    void watch_listener();
    void accept_some();
    void pause_when_exhausted(int reason);
    void end_session(uint64_t id);

    EventLoop& loop_;
    std::string path_;
    int fd_ = -1;
    uint64_t next_id_ = 1;
    std::map<uint64_t, std::unique_ptr<SocketSession>> sessions_;
    // Sessions that ended in a call of their own; destroyed from the loop.
    std::vector<std::unique_ptr<SocketSession>> ended_;
    EventLoop::Handle watch_;
    EventLoop::Handle retry_;
    EventLoop::Handle sweep_;
};

}  // namespace qv::cli
