#include "platform/driver/linux/redis_connection.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

namespace qv {
namespace {

constexpr size_t kReadSize_bytes = size_t{64} << 10;

// A server that does not answer for this long hangs. It keeps its connections open, so nothing else
// would end the session.
constexpr std::chrono::seconds kAnswerTimeout{10};

bool is_readable(int fd) {
    pollfd ready{.fd = fd, .events = POLLIN, .revents = 0};
    return ::poll(&ready, 1, 0) > 0;
}

bool is_message(const RedisReply& reply) {
    return reply.is(RedisReply::Type::kArray) && !reply.elements.empty() &&
           reply.elements[0].text == "message";
}

}  // namespace

void RedisConnection::ContextFree::operator()(redisContext* context) const {
    redisFree(context);
}

RedisConnection::RedisConnection(EventLoop& loop, const RedisServer& server, LostCallback on_lost,
                                 MessageCallback on_message)
    : loop_(loop),
      on_lost_(std::move(on_lost)),
      on_message_(std::move(on_message)),
      context_(redisConnectUnixNonBlock(server.socket.c_str())) {
    if (!context_ || context_->err != 0) {
        fail_later(context_ ? context_->errstr : "out of memory");
        return;
    }
    read_ = loop_.watch(context_->fd, true, false, [this](EventLoop::Ready) { on_readable(); });
    if (!read_) {
        fail_later("its socket cannot be watched");
    } else if (!server.user.empty()) {
        log_in(server);
    }
}

RedisConnection::~RedisConnection() = default;

// Neither password nor its length is ever in a reason.
void RedisConnection::log_in(const RedisServer& server) {
    try {
        send({"AUTH", server.user, read_redis_password(server)}, [this, user = server.user](
                                                                     const RedisReply& reply) {
            if (!reply.is(RedisReply::Type::kStatus)) {
                refuse_login("the login of " + user + " is refused: " + complaint("AUTH", reply));
            }
        });
    } catch (const std::runtime_error& fault) {
        refuse_login(fault.what());
    }
}

void RedisConnection::refuse_login(const std::string& reason) {
    login_refused_ = true;
    fail_later(reason);
}

void RedisConnection::stop() {
    stopped_ = true;
    on_lost_ = nullptr;
    read_.reset();
    write_.reset();
    failed_.reset();
    overdue_.reset();
}

// Must be its caller's last action: `this` may be destroyed. So `reason` must not be a member.
void RedisConnection::fail(const std::string& reason) {
    const LostCallback on_lost = std::move(on_lost_);
    stop();
    if (on_lost) {
        on_lost(reason);
    }
}

void RedisConnection::fail_later(const std::string& reason) {
    failed_ = loop_.after(Duration::zero(), [this, reason] { fail(reason); });
}

void RedisConnection::send(std::initializer_list<std::string_view> words, ReplyCallback callback) {
    send(words.size(), words.begin(), std::move(callback));
}

void RedisConnection::send(size_t count, const std::string_view* words, ReplyCallback callback) {
    if (stopped_ || failed_) {
        return;
    }
    std::vector<const char*> texts(count);
    std::vector<size_t> lengths(count);
    for (size_t n = 0; n < count; n++) {
        texts[n] = words[n].data();
        lengths[n] = words[n].size();
    }
    if (redisAppendCommandArgv(context_.get(), static_cast<int>(count), texts.data(),
                               lengths.data()) != REDIS_OK) {
        fail_later(context_->errstr);
        return;
    }
    if (unanswered_.empty()) {
        waiting_since_ = loop_.clock().now();
    }
    unanswered_.push_back(std::move(callback));
    if (!overdue_) {
        expect_answer();
    }
    want_write();
}

// One timer serves all requests: when it fires it checks how long the oldest has waited.
void RedisConnection::expect_answer() {
    const Duration left = waiting_since_ + kAnswerTimeout - loop_.clock().now();
    overdue_ = loop_.after(left, [this] { check_answers(); });
}

void RedisConnection::check_answers() {
    if (unanswered_.empty()) {
        return;
    }
    const Time now = loop_.clock().now();
    // After a long pause of this process an answer may have arrived but not been read.
    if (is_readable(context_->fd)) {
        waiting_since_ = now;
    }
    if (now - waiting_since_ < kAnswerTimeout) {
        expect_answer();
    } else {
        fail("the server does not answer");
    }
}

void RedisConnection::want_write() {
    if (write_) {
        return;
    }
    write_ = loop_.watch(context_->fd, false, true, [this](EventLoop::Ready) { on_writable(); });
    if (!write_) {
        fail_later("its socket cannot be watched");
    }
}

void RedisConnection::on_writable() {
    int all_written = 0;
    if (redisBufferWrite(context_.get(), &all_written) != REDIS_OK) {
        fail(context_->errstr);
    } else if (all_written != 0) {
        write_.reset();
    }
}

void RedisConnection::on_readable() {
    try {
        if (!read_some()) {
            return;
        }
        while (!stopped_ && !failed_) {
            const std::optional<RedisReply> reply = replies_.next();
            if (!reply) {
                break;
            }
            dispatch(*reply);
        }
    } catch (const std::bad_alloc&) {
        fail("out of memory");
        return;
    }
    if (!stopped_ && !replies_.error().empty()) {
        fail(std::string(replies_.error()));
    }
}

// False when there is nothing to decode; then `this` may have been destroyed.
bool RedisConnection::read_some() {
    std::array<char, kReadSize_bytes> bytes;
    const ssize_t size = read(context_->fd, bytes.data(), bytes.size());
    if (size > 0) {
        replies_.feed({bytes.data(), static_cast<size_t>(size)});
        return true;
    }
    if (size == 0) {
        fail("the server closed the connection");
    } else if (errno != EAGAIN && errno != EINTR) {
        fail(strerror(errno));
    }
    return false;
}

void RedisConnection::dispatch(const RedisReply& reply) {
    if (on_message_ && is_message(reply)) {
        on_message_(reply);
        return;
    }
    if (unanswered_.empty()) {
        fail_later("the server answers what nobody asked");
        return;
    }
    waiting_since_ = loop_.clock().now();
    if (reply.is(RedisReply::Type::kError) && reply.text.starts_with("NOAUTH")) {
        login_refused_ = true;  // its callback ends the connection
    }
    const ReplyCallback callback = std::move(unanswered_.front());
    unanswered_.pop_front();
    if (callback) {
        callback(reply);
    }
}

}  // namespace qv
