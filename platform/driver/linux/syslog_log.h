// System log of the machine: its daemon's datagram socket, facility "daemon".
//
// The format on the socket is that of syslog(3). That function is not used, because it blocks the
// caller while the daemon does not read. Here a message that the daemon does not accept at once is
// queued; when the queue is full it is lost and counted. Sending is tried again with every message
// and, once there is a loop, after a pause: a short one while the daemon reads, else one that grows
// from a second to a minute. When the queue is empty again, one message reports how many were lost.
//
// Messages of the loop's thread are also queued while the loop expects another thread's post. That
// post is the line that shuts a looped port, and it must not wait for the message about the loop.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/base/mutex.h"
#include "platform/base/system_log.h"

namespace qv {

class SyslogLog final : public SystemLog {
 public:
    static constexpr size_t kQueuedMessages = 1000;
    static constexpr std::chrono::milliseconds kReadingPause{10};
    static constexpr std::chrono::seconds kShortestPause{1};
    static constexpr std::chrono::seconds kLongestPause{60};

    explicit SyslogLog(std::string socket_path = "/dev/log");
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
    };

    static std::string datagram_of(const Message& message);
    static Message loss_report(uint64_t lost);
    bool connect_now() REQUIRES(mutex_);
    bool send_now(const Message& message) REQUIRES(mutex_);
    bool flush() REQUIRES(mutex_);
    bool retry_needed() REQUIRES(mutex_);
    void flush_or_retry() EXCLUDES(mutex_);
    void arm(Duration pause);
    void retry(Duration pause) EXCLUDES(mutex_);

    const std::string socket_path_;

    EventLoop::Handle retry_timer_;  // loop thread only, like the next
    EventLoop::Handle late_flush_;

    Mutex mutex_;
    int fd_ GUARDED_BY(mutex_) = -1;                // connected to the daemon
    std::deque<Message> queue_ GUARDED_BY(mutex_);  // oldest first
    uint64_t lost_ GUARDED_BY(mutex_) = 0;          // messages since the last report of a loss
    EventLoop* loop_ GUARDED_BY(mutex_) = nullptr;
    bool retrying_ GUARDED_BY(mutex_) = false;  // a retry is pending on the loop
};

}  // namespace qv
