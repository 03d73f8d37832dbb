// The object database as a session sees it: a Redis server on a Unix socket, laid out as
// docs/object-database.md says. A session does one thing at a time, so commands block, each for a
// limited time. An idle session holds only the connection of its subscription.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/database_names.h"
#include "platform/base/redis_server.h"

struct redisContext;
struct redisReply;

namespace netconf {

using qv::kApplicationDatabase;
using qv::kConfigurationDatabase;
using qv::kLocalDatabase;

// The server does not answer, or not in the expected form. The message says what happened.
struct DatabaseLost : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct FreeReply {
    void operator()(redisReply* reply) const;
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

// The time when a request must be answered at the latest.
using Deadline = std::chrono::steady_clock::time_point;

// A connection for commands.
class Database {
 public:
    // Connects and, when the server has a user, logs in. No command waits beyond `deadline`. Throws
    // DatabaseLost, like everything below.
    explicit Database(const qv::RedisServer& server, Deadline deadline = Deadline::max());

    // The value under `key`; nothing when there is none.
    std::optional<std::string> get(unsigned database, std::string_view key);
    // The values of all records of a type.
    std::vector<std::string> values(unsigned database, std::string_view type);
    // How many programs are subscribed to a type of records.
    long long listeners(unsigned database, std::string_view type);
    // Stores a singleton and notifies the subscribers, in one step. Returns their number.
    long long set(unsigned database, std::string_view type, std::string_view record);
    // Notifies the subscribers and stores nothing. Returns their number.
    long long publish(unsigned database, std::string_view type, std::string_view record);

 private:
    friend class Listener;
    struct Free {
        void operator()(redisContext* context) const;
    };

    Reply command(std::initializer_list<std::string_view> words);
    Reply command(const std::vector<std::string_view>& words);
    void log_in(const qv::RedisServer& server);
    void select(unsigned database);
    void limit_wait();

    Deadline deadline_;
    std::unique_ptr<redisContext, Free> context_;
};

// One change notice.
struct Notice {
    uint8_t operation;   // 0 set, 1 deleted, 2 published
    std::string record;  // packed
};

// A connection that is subscribed to one type of records.
class Listener {
 public:
    // Returns when the server has confirmed the subscription: from then on no notice is missed.
    // Does not wait for that beyond `deadline`. Throws DatabaseLost, like everything below.
    Listener(const qv::RedisServer& server, unsigned database, std::string_view type,
             Deadline deadline = Deadline::max());

    int fd() const;  // readable: call next()
    // The next notice that has arrived; nothing when that was all. Never waits.
    std::optional<Notice> next();
    // Waits for a notice until `deadline`; nothing when there was none.
    std::optional<Notice> wait(std::chrono::steady_clock::time_point deadline);

 private:
    std::optional<Notice> take();
    bool fill();

    Database link_;
};

}  // namespace netconf
