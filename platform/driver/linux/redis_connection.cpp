#include "platform/driver/linux/redis_connection.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <utility>
#include <vector>

namespace qv {
namespace {

// Records are small; a message beyond this is somebody's mistake and must not eat the memory.
constexpr size_t kInputLimit_bytes = size_t{8} << 20;

}  // namespace

RedisConnection::RedisConnection(EventLoop& loop, const std::string& socket,
                                 std::function<void(const std::string&)> on_lost)
    : loop_(loop), on_lost_(std::move(on_lost)) {
    redisAsyncContext* const context = redisAsyncConnectUnix(socket.c_str());
    if (context != nullptr && context->err == 0) {
        attach(context);
        return;
    }
    std::string reason = context == nullptr ? "out of memory" : context->errstr;
    if (context != nullptr) {
        redisAsyncFree(context);
    }
    failed_ = loop_.after(Duration::zero(), [this, reason] { report_loss(reason); });
}

RedisConnection::~RedisConnection() {
    if (redisAsyncContext* const context = std::exchange(context_, nullptr)) {
        context->data = nullptr;
        context->ev = {};
        detach();  // before the descriptor is closed
        redisAsyncFree(context);
    }
}

// hiredis asks for events through these hooks; asking twice for the same is usual.
void RedisConnection::attach(redisAsyncContext* context) {
    context_ = context;
    context->data = this;
    context->ev.data = this;
    context->ev.addRead = [](void* self) {
        static_cast<RedisConnection*>(self)->want_read();
    };
    context->ev.delRead = [](void* self) {
        static_cast<RedisConnection*>(self)->read_.reset();
    };
    context->ev.addWrite = [](void* self) {
        static_cast<RedisConnection*>(self)->want_write();
    };
    context->ev.delWrite = [](void* self) {
        static_cast<RedisConnection*>(self)->write_.reset();
    };
    context->ev.cleanup = [](void* self) {
        static_cast<RedisConnection*>(self)->detach();
    };
    redisAsyncSetConnectCallback(context, on_connect);
    redisAsyncSetDisconnectCallback(context, on_disconnect);
}

void RedisConnection::detach() {
    read_.reset();
    write_.reset();
}

void RedisConnection::want_read() {
    if (!read_) {
        read_ =
            loop_.watch(context_->c.fd, true, false, [this](EventLoop::Ready) { on_readable(); });
    }
}

void RedisConnection::want_write() {
    if (!write_) {
        write_ = loop_.watch(context_->c.fd, false, true,
                             [this](EventLoop::Ready) { redisAsyncHandleWrite(context_); });
    }
}

// What arrives is consumed at once but for a message that is not complete yet.
void RedisConnection::on_readable() {
    const redisReader* const reader = context_->c.reader;
    if (reader->len - reader->pos > kInputLimit_bytes) {
        report_loss("a message is too long");
        return;
    }
    redisAsyncHandleRead(context_);  // `this` may be gone afterwards
}

void RedisConnection::report_loss(const std::string& reason) {
    if (const auto on_lost = std::exchange(on_lost_, nullptr)) {
        on_lost(reason);
    }
}

void RedisConnection::on_connect(const redisAsyncContext* context, int status) {
    auto* const self = static_cast<RedisConnection*>(context->data);
    if (status != REDIS_OK && self != nullptr) {
        self->context_ = nullptr;  // hiredis frees it
        self->detach();
        self->report_loss(context->errstr);
    }
}

void RedisConnection::on_disconnect(const redisAsyncContext* context, int /*status*/) {
    auto* const self = static_cast<RedisConnection*>(context->data);
    if (self != nullptr) {
        self->context_ = nullptr;  // hiredis frees it
        self->report_loss(context->err != 0 ? context->errstr : "closed");
    }
}

void RedisConnection::send(std::initializer_list<std::string_view> words, ReplyCallback callback,
                           void* context) {
    send(words.size(), words.begin(), callback, context);
}

void RedisConnection::send(size_t count, const std::string_view* words, ReplyCallback callback,
                           void* context) {
    if (context_ == nullptr) {
        return;
    }
    std::vector<const char*> texts(count);
    std::vector<size_t> lengths(count);
    for (size_t n = 0; n < count; n++) {
        texts[n] = words[n].data();
        lengths[n] = words[n].size();
    }
    redisAsyncCommandArgv(context_, callback, context, static_cast<int>(count), texts.data(),
                          lengths.data());
}

}  // namespace qv
