// hiredis builds a reply through the functions below. Elements are appended to their array as they
// arrive, so a length that the server only announces allocates nothing. hiredis finishes an element
// before it starts the next one of the same array, so no pointer it holds is moved by the append.
#include "platform/driver/linux/redis_reply.h"

#include <hiredis/hiredis.h>

#include <new>

namespace qv {
namespace {

// Records are small. A longer message is a mistake and must not fill the memory.
constexpr size_t kMessageLimit_bytes = size_t{9} << 20;

// Elements cost more memory than their bytes on the wire, so they have their own limit.
constexpr size_t kPartLimit = 65536;

const char* name_of(RedisReply::Type type) {
    switch (type) {
        case RedisReply::Type::kString:
            return "a string";
        case RedisReply::Type::kArray:
            return "an array";
        case RedisReply::Type::kInteger:
            return "a number";
        case RedisReply::Type::kNil:
            return "nothing";
        case RedisReply::Type::kStatus:
            return "a status";
        case RedisReply::Type::kError:
            return "an error";
    }
    return "";
}

}  // namespace

const RedisReply* error_in(const RedisReply& reply) {
    if (reply.is(RedisReply::Type::kError)) {
        return &reply;
    }
    for (const RedisReply& part : reply.elements) {
        if (part.is(RedisReply::Type::kError)) {
            return &part;
        }
    }
    return nullptr;
}

std::string complaint(const char* request, const RedisReply& reply) {
    if (reply.is(RedisReply::Type::kError)) {
        return reply.text;
    }
    return std::string("the server answers ") + request + " with " + name_of(reply.type);
}

// C calls these: no exception leaves them. A null result ends the reading.
struct RedisReplyReader::Functions {
    template <typename Fill>
    static void* make(const redisReadTask* task, RedisReply::Type type, Fill fill) {
        try {
            auto* const self = static_cast<RedisReplyReader*>(task->privdata);
            RedisReply* const reply = self->place(*task, type);
            if (reply != nullptr) {
                fill(*reply);
            }
            return reply;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    static void* text(const redisReadTask* task, char* bytes, size_t size) {
        const RedisReply::Type type = task->type == REDIS_REPLY_ERROR ? RedisReply::Type::kError
                                      : task->type == REDIS_REPLY_STATUS
                                          ? RedisReply::Type::kStatus
                                          : RedisReply::Type::kString;
        return make(task, type, [&](RedisReply& reply) { reply.text.assign(bytes, size); });
    }
    static void* array(const redisReadTask* task, int /*size*/) {
        return make(task, RedisReply::Type::kArray, [](RedisReply&) {});
    }
    static void* integer(const redisReadTask* task, long long number) {
        return make(task, RedisReply::Type::kInteger,
                    [number](RedisReply& reply) { reply.number = number; });
    }
    static void* nil(const redisReadTask* task) {
        return make(task, RedisReply::Type::kNil, [](RedisReply&) {});
    }
    static void release(void* reply) { delete static_cast<RedisReply*>(reply); }

    static redisReader* create() {
        static redisReplyObjectFunctions functions = {text, array, integer, nil, release};
        redisReader* const reader = redisReaderCreateWithFunctions(&functions);
        return reader != nullptr ? reader : throw std::bad_alloc();
    }
};

RedisReplyReader::RedisReplyReader() : reader_(Functions::create()) {
    reader_->privdata = this;
}

RedisReplyReader::~RedisReplyReader() {
    redisReaderFree(reader_);
}

// Null when the reply has too many parts.
RedisReply* RedisReplyReader::place(const redisReadTask& task, RedisReply::Type type) {
    if (task.parent == nullptr) {
        parts_ = 0;
        auto* const root = new RedisReply;
        root->type = type;
        return root;
    }
    if (++parts_ > kPartLimit) {
        fail("a message has too many parts");
        return nullptr;
    }
    RedisReply& part = static_cast<RedisReply*>(task.parent->obj)->elements.emplace_back();
    part.type = type;
    return &part;
}

void RedisReplyReader::fail(const std::string& reason) {
    if (error_.empty()) {
        error_ = reason;
    }
}

void RedisReplyReader::feed(std::string_view bytes) {
    incomplete_bytes_ += bytes.size();
    if (redisReaderFeed(reader_, bytes.data(), bytes.size()) != REDIS_OK) {
        fail(reader_->errstr);
    }
}

std::optional<RedisReply> RedisReplyReader::next() {
    void* reply = nullptr;
    if (error_.empty() && redisReaderGetReply(reader_, &reply) != REDIS_OK) {
        fail(reader_->errstr);
    }
    if (reply != nullptr) {
        incomplete_bytes_ = reader_->len - reader_->pos;
        const std::unique_ptr<RedisReply> owned(static_cast<RedisReply*>(reply));
        return std::move(*owned);
    }
    if (incomplete_bytes_ > kMessageLimit_bytes) {
        fail("a message is longer than 9 MiB");
    }
    return std::nullopt;
}

}  // namespace qv
