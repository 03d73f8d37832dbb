// Replies of a Redis server, decoded by hiredis' reader. The byte stream is not trusted: any input
// results in replies or an error, within bounded memory.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct redisReadTask;
struct redisReader;

namespace qv {

struct RedisReply {
    enum class Type { kString, kArray, kInteger, kNil, kStatus, kError };

    bool is(Type wanted) const { return type == wanted; }

    Type type = Type::kNil;
    std::string text;  // of a string, a status or an error
    long long number = 0;
    std::vector<RedisReply> elements;  // of an array
};

// The error in `reply`: itself or, for the reply to a transaction, the first one in it. Null: none.
const RedisReply* error_in(const RedisReply& reply);

// For the log: the reason why `reply` cannot be the reply to `request`.
std::string complaint(const char* request, const RedisReply& reply);

class RedisReplyReader {
 public:
    RedisReplyReader();
    ~RedisReplyReader();
    RedisReplyReader(const RedisReplyReader&) = delete;
    RedisReplyReader& operator=(const RedisReplyReader&) = delete;

    void feed(std::string_view bytes);

    // The next complete reply of the stream. Nothing when more bytes are needed, or after an error.
    std::optional<RedisReply> next();

    // Empty while the stream is valid. An error is final.
    const std::string& error() const { return error_; }

 private:
    struct Functions;
    friend struct Functions;

    RedisReply* place(const redisReadTask& task, RedisReply::Type type);
    void fail(const std::string& reason);

    redisReader* const reader_;
    size_t parts_ = 0;             // of the reply that is being read
    size_t incomplete_bytes_ = 0;  // fed since the last complete reply
    std::string error_;
};

}  // namespace qv
