// One client of the command-line socket. Loop thread only.
//
// Requests are lines of JSON. They are executed in order, a few per turn of the loop, and only
// while the client reads its replies: when it does not, the session stops reading requests, so
// neither buffer grows beyond its limit. While a command defers its answer, the next request waits
// for that answer. A client that has not read a byte for kStalledAfter is dropped. One that has
// sent nothing for the idle time gets a last message and is closed, unless it monitors or waits for
// output.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/event_loop.h"
#include "platform/cli/engine.h"

namespace qv::cli {

inline constexpr size_t kMaxRequestBytes = size_t{64} * 1024;
inline constexpr size_t kOutputHighMark = size_t{64} * 1024;  // above it requests and messages wait
inline constexpr std::chrono::seconds kStalledAfter{60};

class SocketSession {
 public:
    // Takes the descriptor, which must not block. `number` names the session to operators. An
    // `idle` of zero is no limit. `on_closed` is called once, when the session ends. It may be
    // called from within any other call and must not destroy the session before that returns.
    SocketSession(EventLoop& loop, int fd, uint64_t number, Duration idle,
                  std::function<void()> on_closed);
    ~SocketSession();
    SocketSession(const SocketSession&) = delete;
    SocketSession& operator=(const SocketSession&) = delete;

    // Starts with the bytes that have arrived already: most clients send a request right after
    // connecting.
    void start() { on_ready({.read = true, .write = false}); }

    const SessionState& state() const { return state_; }
    // How long the client has not sent anything.
    Duration silence() const { return loop_.clock().now() - last_heard_; }

    // Shows a system log message, when the session monitors. A client too far behind misses it.
    void show_message(std::string_view text);

 private:
    void on_ready(EventLoop::Ready ready);
    bool read_some();
    bool may_serve() const;
    void serve();
    void start_request(const std::string& request);
    void finish_request(const Result& result);
    void send(const std::string& reply);
    void flush();
    int queued() const;
    void watch_stall();
    void update_watch();
    void watch_idleness();
    void close_when_idle();
    void close();

    EventLoop& loop_;
    int fd_;  // -1 when closed
    const Duration idle_;
    Time last_heard_;  // when the client last sent something
    Time last_used_;   // the same, or when it was last found waiting
    std::function<void()> on_closed_;
    SessionState state_;
    std::string input_;
    std::string output_;
    size_t sent_ = 0;  // bytes of output_ that are sent
    bool end_of_input_ = false;
    bool closing_ = false;    // close once output_ is sent
    bool serving_ = false;    // serve() is on the stack
    bool answering_ = false;  // a request was started and not finished
    // A deferred answer may outlive the session; it holds a weak reference to this.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    int watched_ = 0;  // what watch_ waits for: 1 read, 2 write, or-ed
    EventLoop::Handle watch_;
    EventLoop::Handle next_turn_;
    EventLoop::Handle stall_timer_;
    int queued_before_ = 0;  // queued() when stall_timer_ was set
    EventLoop::Handle idle_timer_;
};

}  // namespace qv::cli
