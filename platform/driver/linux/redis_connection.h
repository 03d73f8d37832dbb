// One non-blocking connection to a Redis server over a Unix socket. hiredis connects, formats and
// writes; this class reads and distributes the replies, so that a server that answers unasked only
// ends the connection. Loop thread only.
#pragma once

#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/event_loop.h"
#include "platform/base/redis_server.h"
#include "platform/driver/linux/redis_reply.h"

struct redisContext;

namespace qv {

class RedisConnection {
 public:
    using LostCallback = std::function<void(const std::string& reason)>;
    // Neither may destroy the connection.
    using ReplyCallback = std::function<void(const RedisReply&)>;
    using MessageCallback = std::function<void(const RedisReply&)>;

    // `on_lost` runs at most once, with the reason, never inside a call of this class, and may
    // destroy the connection. It also reports a socket that cannot be reached, and a server that
    // answers none of the waiting requests for 10 s. With `on_message` the connection may carry
    // subscriptions: the callback gets each array that begins with "message". When the server has a
    // user, the login is the first request; a password file that is refused ends the connection,
    // too.
    RedisConnection(EventLoop& loop, const RedisServer& server, LostCallback on_lost,
                    MessageCallback on_message = nullptr);
    ~RedisConnection();
    RedisConnection(const RedisConnection&) = delete;
    RedisConnection& operator=(const RedisConnection&) = delete;

    // Queues a command of these words; `callback` gets its reply, unless the connection is lost
    // before it arrives. No effect once the connection is lost.
    void send(std::initializer_list<std::string_view> words, ReplyCallback callback = nullptr);
    void send(size_t count, const std::string_view* words, ReplyCallback callback);

    // Whether the connection was lost because of the login: the password file, the user or the
    // password, or a server that asks for one.
    bool login_refused() const { return login_refused_; }

    // No callback runs from now on.
    void stop();

 private:
    struct ContextFree {
        void operator()(redisContext* context) const;
    };

    void log_in(const RedisServer& server);
    void refuse_login(const std::string& reason);
    void want_write();
    void on_writable();
    void on_readable();
    bool read_some();
    void dispatch(const RedisReply& reply);
    void expect_answer();
    void check_answers();
    void fail(const std::string& reason);
    void fail_later(const std::string& reason);

    EventLoop& loop_;
    LostCallback on_lost_;
    const MessageCallback on_message_;
    const std::unique_ptr<redisContext, ContextFree> context_;
    RedisReplyReader replies_;
    std::deque<ReplyCallback> unanswered_;  // in the order of the commands
    Time waiting_since_{};                  // the last answer, or the first of the waiting requests
    bool stopped_ = false;
    bool login_refused_ = false;

    // Last, so that the watches end before the descriptor is closed.
    EventLoop::Handle read_;
    EventLoop::Handle write_;
    EventLoop::Handle failed_;
    EventLoop::Handle overdue_;
};

}  // namespace qv
