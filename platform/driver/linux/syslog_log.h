// System log of the machine: its daemon's datagram socket, facility "daemon".
//
// The format on the socket is that of syslog(3), or with structured messages that of RFC 5424;
// where journald listens it gets structured messages by its own protocol. syslog(3) is not used,
// because it blocks the caller while the daemon does not read. Here a message that the daemon does
// not accept at once is queued; when the queue is full it is lost and counted. Sending is tried
// again with every message and, once there is a loop, after a pause: a short one while the daemon
// reads, else one that grows from a second to a minute. When the queue is empty again, one message
// reports how many were lost.
//
// Messages of the loop's thread are also queued while the loop expects another thread's post. That
// post is the line that shuts a looped port, and it must not wait for the message about the loop.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <optional>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/base/mutex.h"
#include "platform/base/structured_log.h"
#include "platform/base/system_log.h"

namespace qv {

class SyslogLog final : public SystemLog {
 public:
    static constexpr size_t kQueuedMessages = 1000;
    static constexpr std::chrono::milliseconds kReadingPause{10};
    static constexpr std::chrono::seconds kShortestPause{1};
    static constexpr std::chrono::seconds kLongestPause{60};

    static constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

    // With `journal` messages are structured: they go to that socket, or to the other one while
    // nobody listens there.
    explicit SyslogLog(std::string socket_path = "/dev/log",
                       std::optional<std::string> journal = {});
    ~SyslogLog() override;
    SyslogLog(const SyslogLog&) = delete;
    SyslogLog& operator=(const SyslogLog&) = delete;

    // Never waits.
    void write(const SystemLogMessage& message) override EXCLUDES(mutex_);

    // Loop thread, once. The loop must outlive the last message.
    void attach(EventLoop& loop) EXCLUDES(mutex_);

 private:
    struct Message {
        int severity;
        std::time_t time;
        std::string text;
        LogFields fields = {};  // of a structured message
    };

    std::string datagram_of(const Message& message) const REQUIRES(mutex_);
    Message loss_report(uint64_t lost) const;
    bool connect_to(const std::string& path) REQUIRES(mutex_);
    bool connect_now() REQUIRES(mutex_);
    bool send_now(const Message& message) REQUIRES(mutex_);
    bool flush() REQUIRES(mutex_);
    bool retry_needed() REQUIRES(mutex_);
    void flush_or_retry() EXCLUDES(mutex_);
    void arm(Duration pause);
    void retry(Duration pause) EXCLUDES(mutex_);

    const std::string socket_path_;
    const std::optional<std::string> journal_path_;  // empty: messages are not structured
    const std::string host_;                         // name of the machine

    EventLoop::Handle retry_timer_;  // loop thread only, like the next
    EventLoop::Handle late_flush_;

    Mutex mutex_;
    int fd_ GUARDED_BY(mutex_) = -1;                // connected to the daemon
    bool to_journal_ GUARDED_BY(mutex_) = false;    // fd_ is connected to journald's own socket
    std::deque<Message> queue_ GUARDED_BY(mutex_);  // oldest first
    uint64_t lost_ GUARDED_BY(mutex_) = 0;          // messages since the last report of a loss
    EventLoop* loop_ GUARDED_BY(mutex_) = nullptr;
    bool retrying_ GUARDED_BY(mutex_) = false;  // a retry is pending on the loop
};

}  // namespace qv
