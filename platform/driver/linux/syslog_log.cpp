#include "platform/driver/linux/syslog_log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace qv {

namespace {

std::string host_name() {
    char name[256] = "";
    // A name that does not fit may lack its end.
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

}  // namespace

// RFC 3164 section 4.1, as syslog(3) writes it: "<28>Jan  1 23:59:59 lda[4711]: text". Structured
// messages have another form.
std::string SyslogLog::datagram_of(const Message& message) const {
    // Both use the same numbers for severities; a larger one would change the facility's bits.
    const int priority = LOG_DAEMON | std::clamp(message.severity, LOG_EMERG, LOG_DEBUG);
    if (journal_path_) {
        const LogOrigin origin{.priority = priority,
                               .time = message.time,
                               .host = host_,
                               .program = "lda",
                               .pid = static_cast<int>(getpid())};
        return to_journal_ ? journal_datagram(origin, message.fields, message.text)
                           : rfc5424_datagram(origin, message.fields, message.text);
    }
    std::tm local{};
    localtime_r(&message.time, &local);
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char header[80];
    std::snprintf(header, sizeof header, "<%d>%s %2d %02d:%02d:%02d lda[%d]: ", priority,
                  kMonths[local.tm_mon], local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(getpid()));
    return header + message.text;
}

SyslogLog::Message SyslogLog::loss_report(uint64_t lost) const {
    Message report{LOG_WARNING, std::time(nullptr), qv::loss_report(lost)};
    if (journal_path_) {
        report.fields = {{"facility", "LOG"}, {"mnemonic", "LOST"}};
    }
    return report;
}

SyslogLog::SyslogLog(std::string socket_path, std::optional<std::string> journal)
    : socket_path_(std::move(socket_path)), journal_path_(std::move(journal)), host_(host_name()) {}

SyslogLog::~SyslogLog() {
    const MutexLock lock(mutex_);
    if (fd_ >= 0) {
        close(fd_);
    }
}

void SyslogLog::write(const SystemLogMessage& message) {
    Message kept{message.severity, std::time(nullptr), render(message)};
    if (journal_path_) {
        kept.fields = fields_of(message);
    }
    EventLoop* loop = nullptr;
    bool late = false;
    {
        const MutexLock lock(mutex_);
        late = loop_ != nullptr && loop_->on_loop_thread() && loop_->expects_post();
        if (!late && flush() && send_now(kept)) {
            return;
        }
        if (queue_.size() < kQueuedMessages) {
            queue_.push_back(std::move(kept));
        } else {
            ++lost_;
        }
        if (late || retry_needed()) {
            loop = loop_;
        }
    }
    if (late) {
        late_flush_ = loop->defer([this] { flush_or_retry(); });
    } else if (loop != nullptr) {
        loop->post([this] { arm(kShortestPause); });
    }
}

void SyslogLog::flush_or_retry() {
    bool needed = false;
    {
        const MutexLock lock(mutex_);
        needed = !flush() && retry_needed();
    }
    if (needed) {
        arm(kShortestPause);
    }
}

void SyslogLog::attach(EventLoop& loop) {
    {
        const MutexLock lock(mutex_);
        loop_ = &loop;
    }
    flush_or_retry();
}

// Returns true when the caller must arm the retry.
bool SyslogLog::retry_needed() {
    return loop_ != nullptr && !std::exchange(retrying_, true);
}

void SyslogLog::arm(Duration pause) {
    EventLoop* loop = nullptr;
    {
        const MutexLock lock(mutex_);
        loop = loop_;
    }
    retry_timer_ = loop->after(pause, [this, pause] { retry(pause); });
}

void SyslogLog::retry(Duration pause) {
    Duration next = std::clamp<Duration>(2 * pause, kShortestPause, kLongestPause);
    {
        const MutexLock lock(mutex_);
        const size_t before = queue_.size();
        retrying_ = !flush();
        if (!retrying_) {
            return;
        }
        if (queue_.size() < before) {
            next = kReadingPause;
        }
    }
    arm(next);
}

bool SyslogLog::connect_to(const std::string& path) {
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (fd_ >= 0 && path.size() < sizeof address.sun_path) {
        path.copy(address.sun_path, path.size());
        if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return true;
        }
    }
    if (fd_ >= 0) {
        close(std::exchange(fd_, -1));
    }
    return false;
}

// Returns false when there is no daemon to connect to.
bool SyslogLog::connect_now() {
    to_journal_ = journal_path_ && connect_to(*journal_path_);
    return to_journal_ || connect_to(socket_path_);
}

// Returns false when the message must wait. One that is too long ever to be sent counts as lost.
bool SyslogLog::send_now(const Message& message) {
    // A restarted daemon has a new socket, which the second attempt reaches.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (fd_ < 0 && !connect_now()) {
            return false;
        }
        const std::string datagram = datagram_of(message);
        if (send(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) {
            return true;
        }
        if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) {
            return false;
        }
        if (errno == EMSGSIZE) {
            ++lost_;
            return true;
        }
        close(std::exchange(fd_, -1));
    }
    return false;
}

// Sends the queue, then the report of a loss. Returns true when nothing is left.
bool SyslogLog::flush() {
    while (!queue_.empty()) {
        if (!send_now(queue_.front())) {
            return false;
        }
        queue_.pop_front();
    }
    if (lost_ == 0) {
        return true;
    }
    const uint64_t reported = lost_;
    if (!send_now(loss_report(reported))) {
        return false;
    }
    lost_ -= reported;
    return true;
}

}  // namespace qv
