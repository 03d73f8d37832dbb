#include "platform/cli/socket_session.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/cli/wire.h"

namespace qv::cli {
namespace {

constexpr int kRequestsPerTurn = 16;
constexpr size_t kReadBytes = 16384;
constexpr int kRead = 1;
constexpr int kWrite = 2;

}  // namespace

SocketSession::SocketSession(EventLoop& loop, int fd, uint64_t number, Duration idle,
                             std::function<void()> on_closed)
    : loop_(loop),
      fd_(fd),
      idle_(idle),
      last_heard_(loop.clock().now()),
      last_used_(last_heard_),
      on_closed_(std::move(on_closed)) {
    state_.caller = caller_at(fd);
    state_.number = number;
    watch_idleness();
}

SocketSession::~SocketSession() {
    if (fd_ >= 0) {
        watch_.reset();
        ::close(fd_);
    }
}

void SocketSession::close() {
    if (fd_ < 0) {
        return;
    }
    watch_.reset();
    next_turn_.reset();
    stall_timer_.reset();
    idle_timer_.reset();
    ::close(fd_);
    fd_ = -1;
    on_closed_();
}

void SocketSession::on_ready(EventLoop::Ready ready) {
    if (ready.read && !read_some()) {
        close();
        return;
    }
    if (ready.write) {
        flush();
    }
    serve();
}

// One read per turn; false when the client is gone and has no request left.
bool SocketSession::read_some() {
    char bytes[kReadBytes];
    const ssize_t size = ::recv(fd_, bytes, sizeof bytes, 0);
    if (size > 0) {
        last_heard_ = loop_.clock().now();
        last_used_ = last_heard_;
        input_.append(bytes, static_cast<size_t>(size));
        return true;
    }
    if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    // A half-closed client still gets the replies to its complete requests.
    end_of_input_ = true;
    return true;
}

bool SocketSession::may_serve() const {
    return fd_ >= 0 && !closing_ && !answering_ && output_.size() - sent_ < kOutputHighMark;
}

// Executes waiting requests as far as the output buffer and this turn allow, then waits for what is
// needed next.
void SocketSession::serve() {
    serving_ = true;
    size_t end = input_.find('\n');
    for (int served = 0; served < kRequestsPerTurn && may_serve() && end != std::string::npos;
         ++served) {
        const std::string request = input_.substr(0, end);
        input_.erase(0, end + 1);
        start_request(request);
        end = input_.find('\n');
    }
    serving_ = false;
    if (may_serve() && end == std::string::npos) {
        if (input_.size() > kMaxRequestBytes) {
            send(reply(error_result("Request too long."), state_));
            closing_ = true;
        }
        closing_ = closing_ || end_of_input_;
    }
    if (fd_ >= 0) {
        flush();
    }
    if (may_serve() && end != std::string::npos) {
        next_turn_ = loop_.after(Duration::zero(), [this] { serve(); });
    }
}

void SocketSession::start_request(const std::string& request) {
    answering_ = true;
    if (request.size() > kMaxRequestBytes) {
        finish_request(error_result("Request too long."));
        return;
    }
    answer_request(request, state_, [this, alive = std::weak_ptr(alive_)](const Result& result) {
        if (!alive.expired() && fd_ >= 0) {
            finish_request(result);
        }
    });
}

void SocketSession::finish_request(const Result& result) {
    answering_ = false;
    send(reply(result, state_));
    closing_ = closing_ || state_.leaving;
    if (!serving_) {
        serve();
    }
}

void SocketSession::send(const std::string& reply) {
    output_ += reply;
}

void SocketSession::watch_idleness() {
    if (idle_ > Duration::zero()) {
        const Duration left = last_used_ + idle_ - loop_.clock().now();
        idle_timer_ = loop_.after(left, [this] { close_when_idle(); });
    }
}

// One timer for the whole session: it checks again when it fires instead of being set with every
// byte.
void SocketSession::close_when_idle() {
    const Time now = loop_.clock().now();
    if (state_.monitor || answering_ || sent_ < output_.size()) {
        last_used_ = now;
    }
    if (now - last_used_ < idle_) {
        watch_idleness();
        return;
    }
    state_.leaving = true;
    send(reply(error_result("Session closed: it was idle for too long."), state_));
    closing_ = true;
    flush();
}

void SocketSession::show_message(std::string_view text) {
    if (!state_.monitor || fd_ < 0 || output_.size() - sent_ >= kOutputHighMark) {
        return;
    }
    send(monitor_event(text));
    flush();
}

void SocketSession::flush() {
    bool progress = false;
    while (sent_ < output_.size()) {
        const ssize_t size =
            ::send(fd_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && errno == EAGAIN) {
            break;
        }
        if (size < 0) {
            close();
            return;
        }
        sent_ += static_cast<size_t>(size);
        progress = true;
    }
    if (sent_ == output_.size()) {
        output_.clear();
        sent_ = 0;
        stall_timer_.reset();
        if (closing_) {
            close();
            return;
        }
    } else if (progress || !stall_timer_) {
        watch_stall();
    }
    update_watch();
}

// Bytes that the kernel still holds for the client.
int SocketSession::queued() const {
    int bytes = 0;
    return ::ioctl(fd_, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

void SocketSession::watch_stall() {
    queued_before_ = queued();
    stall_timer_ = loop_.after(kStalledAfter, [this] {
        // The descriptor becomes writable only when most of the kernel's buffer is free: a slow
        // reader makes progress long before.
        if (queued() < queued_before_) {
            watch_stall();
        } else {
            close();
        }
    });
}

void SocketSession::update_watch() {
    const bool pending = sent_ < output_.size();
    const bool full = output_.size() - sent_ >= kOutputHighMark ||
                      input_.size() > kMaxRequestBytes || input_.find('\n') != std::string::npos;
    const bool read = !full && !closing_ && !end_of_input_;
    const int wanted = (read ? kRead : 0) | (pending ? kWrite : 0);
    if (wanted == watched_) {
        return;
    }
    watched_ = wanted;
    watch_.reset();
    if (wanted != 0) {
        watch_ = loop_.watch(fd_, read, pending, [this](EventLoop::Ready r) { on_ready(r); });
        if (!watch_) {
            close();  // without a watch its client would wait for ever
        }
    }
}

}  // namespace qv::cli
