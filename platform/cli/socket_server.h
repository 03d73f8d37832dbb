// The command-line socket and the operators' sessions on it. Loop thread only.
//
// The number of sessions is limited, and they never take the last kReservedDescriptors descriptors
// of the process. A client beyond a limit gets one line with the reason and is closed. A socket
// file that was removed is created again within kFileCheck.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/cli/socket_session.h"

namespace qv::cli {

class SocketServer {
 public:
    static constexpr int kReservedDescriptors = 16;
    static constexpr std::chrono::seconds kFileCheck{5};

    struct Limits {
        size_t sessions = 64;
        Duration idle = std::chrono::minutes(30);  // zero: sessions may be idle for ever
    };

    // Listens on a Unix stream socket at `path`, mode 0660; missing folders are created, a socket
    // that nobody listens on is replaced. Throws std::runtime_error with path and reason.
    SocketServer(EventLoop& loop, std::string path, Limits limits);
    ~SocketServer();
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    const std::string& path() const { return path_; }
    size_t session_count() const { return sessions_.size(); }
    // The open sessions, oldest first; valid until the loop's next turn.
    std::vector<const SocketSession*> sessions() const;

    // Shows a message on every session that monitors.
    void show_message(std::string_view text);

 private:
    void watch_listener();
    void accept_some();
    void pause_when_exhausted(int reason);
    std::string refusal_for(int fd) const;
    void watch_file();
    void reopen();
    void end_session(uint64_t id);

    EventLoop& loop_;
    const std::string path_;
    const Limits limits_;
    int fd_ = -1;
    bool file_trouble_reported_ = false;
    uint64_t next_id_ = 1;
    std::map<uint64_t, std::unique_ptr<SocketSession>> sessions_;
    // Sessions that ended inside one of their own calls; destroyed from the loop.
    std::vector<std::unique_ptr<SocketSession>> ended_;
    EventLoop::Handle watch_;
    EventLoop::Handle retry_;
    EventLoop::Handle file_check_;
    EventLoop::Handle sweep_;
};

// The server of this process; null before the command line has started.
const SocketServer* socket_server();

}  // namespace qv::cli
