// One connection with a Redis server over a Unix socket: hiredis, driven by the event loop's
// watches, so that its callbacks run as pieces of work like all others. Loop thread only.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/client/event_loop.h"

struct redisAsyncContext;
struct redisReply;

namespace qv {

class RedisConnection {
 public:
    // `reply` is null when the connection went before the answer came; then nothing that `context`
    // points to may be touched.
    using ReplyCallback = void (*)(redisAsyncContext*, void* reply, void* context);

    // `on_lost` runs at most once, with the reason, never inside a call of this class, and may
    // destroy the connection. A socket that cannot be reached is reported the same way.
    RedisConnection(EventLoop& loop, const std::string& socket,
                    std::function<void(const std::string&)> on_lost);
    ~RedisConnection();  // not inside a ReplyCallback of this connection
    RedisConnection(const RedisConnection&) = delete;
    RedisConnection& operator=(const RedisConnection&) = delete;

    // Queues a command of these words. Without effect when the connection is lost already.
    void send(std::initializer_list<std::string_view> words, ReplyCallback callback = nullptr,
              void* context = nullptr);
    void send(size_t count, const std::string_view* words, ReplyCallback callback, void* context);

 private:
    void attach(redisAsyncContext* context);
    void detach();
    void want_read();
    void want_write();
    void on_readable();
    void report_loss(const std::string& reason);
    static void on_connect(const redisAsyncContext* context, int status);
    static void on_disconnect(const redisAsyncContext* context, int status);

    EventLoop& loop_;
    std::function<void(const std::string&)> on_lost_;
    redisAsyncContext* context_ = nullptr;  // owned by hiredis; null once lost
    EventLoop::Handle read_;
    EventLoop::Handle write_;
    EventLoop::Handle failed_;  // reports a connection that never came about
};

}  // namespace qv
