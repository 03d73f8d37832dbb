#include "services/netconf/object_db.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <set>

namespace netconf {
namespace {

// A local server answers within microseconds; one that takes this long counts as gone.
constexpr timeval kReplyLimit{.tv_sec = 0, .tv_usec = 900'000};

// Records are small. A longer message is not one of the switch's.
constexpr size_t kInputLimit_bytes = size_t{1} << 20;

constexpr std::string_view kScanPage = "256";
constexpr const char* kUnknownForm = "the object database answers in an unknown form";

std::string_view text_of(const redisReply& reply) {
    return {reply.str, reply.len};
}

const redisReply& element(const redisReply& reply, size_t index, int type) {
    if (reply.type != REDIS_REPLY_ARRAY || index >= reply.elements ||
        reply.element[index]->type != type) {
        throw DatabaseLost(kUnknownForm);
    }
    return *reply.element[index];
}

}  // namespace

void FreeReply::operator()(redisReply* reply) const {
    freeReplyObject(reply);
}

void Database::Free::operator()(redisContext* context) const {
    redisFree(context);
}

Database::Database(const qv::RedisServer& server, Deadline deadline)
    : deadline_(deadline),
      context_(redisConnectUnixWithTimeout(server.socket.c_str(), kReplyLimit)) {
    if (!context_ || context_->err != 0) {
        throw DatabaseLost("the object database at " + server.socket + " cannot be reached: " +
                           (context_ ? context_->errstr : "out of memory"));
    }
    redisSetTimeout(context_.get(), kReplyLimit);
    if (!server.user.empty()) {
        log_in(server);
    }
}

void Database::log_in(const qv::RedisServer& server) {
    try {
        command({"AUTH", server.user, qv::read_redis_password(server)});
    } catch (const std::runtime_error& fault) {
        throw DatabaseLost("no login as " + server.user + ": " + fault.what());
    }
}

// A server that answers each command slowly must not delay the whole request.
void Database::limit_wait() {
    using std::chrono::microseconds;
    if (deadline_ == Deadline::max()) {
        return;
    }
    const auto left = std::chrono::ceil<microseconds>(deadline_ - std::chrono::steady_clock::now());
    if (left <= microseconds::zero()) {
        throw DatabaseLost("the object database answers too slowly");
    }
    if (left < microseconds(kReplyLimit.tv_usec)) {
        redisSetTimeout(context_.get(), {.tv_sec = 0, .tv_usec = left.count()});
    }
}

Reply Database::command(std::initializer_list<std::string_view> words) {
    return command(std::vector<std::string_view>(words));
}

Reply Database::command(const std::vector<std::string_view>& words) {
    limit_wait();
    std::vector<const char*> texts;
    std::vector<size_t> lengths;
    for (const std::string_view word : words) {
        texts.push_back(word.data());
        lengths.push_back(word.size());
    }
    Reply reply(static_cast<redisReply*>(redisCommandArgv(
        context_.get(), static_cast<int>(words.size()), texts.data(), lengths.data())));
    if (!reply) {
        throw DatabaseLost(std::string("the object database does not answer: ") + context_->errstr);
    }
    if (reply->type == REDIS_REPLY_ERROR) {
        throw DatabaseLost("the object database refuses: " + std::string(text_of(*reply)));
    }
    return reply;
}

void Database::select(unsigned database) {
    command({"SELECT", std::to_string(database)});
}

std::optional<std::string> Database::get(unsigned database, std::string_view key) {
    select(database);
    const Reply reply = command({"GET", key});
    if (reply->type != REDIS_REPLY_STRING) {
        return std::nullopt;
    }
    return std::string(text_of(*reply));
}

std::vector<std::string> Database::values(unsigned database, std::string_view type) {
    select(database);
    std::set<std::string> keys;  // a scan may come across a key twice
    std::string cursor = "0";
    do {
        const Reply page =
            command({"SCAN", cursor, "MATCH", std::string(type) + "/*", "COUNT", kScanPage});
        cursor = text_of(element(*page, 0, REDIS_REPLY_STRING));
        const redisReply& names = element(*page, 1, REDIS_REPLY_ARRAY);
        for (size_t n = 0; n < names.elements; n++) {
            keys.emplace(text_of(element(names, n, REDIS_REPLY_STRING)));
        }
    } while (cursor != "0");
    std::vector<std::string> found;
    for (const std::string& key : keys) {
        const Reply value = command({"GET", key});
        if (value->type == REDIS_REPLY_STRING) {  // not deleted in the meantime
            found.emplace_back(text_of(*value));
        }
    }
    return found;
}

long long Database::listeners(unsigned database, std::string_view type) {
    const Reply reply = command({"PUBSUB", "NUMSUB", qv::change_channel(database, type)});
    return element(*reply, 1, REDIS_REPLY_INTEGER).integer;
}

long long Database::set(unsigned database, std::string_view type, std::string_view record) {
    select(database);
    const std::string notice = '\0' + std::string(record);
    command({"MULTI"});
    command({"SET", std::string(type) + "/", record});
    command({"PUBLISH", qv::change_channel(database, type), notice});
    const Reply done = command({"EXEC"});
    return element(*done, 1, REDIS_REPLY_INTEGER).integer;
}

long long Database::publish(unsigned database, std::string_view type, std::string_view record) {
    const Reply reply =
        command({"PUBLISH", qv::change_channel(database, type), '\2' + std::string(record)});
    if (reply->type != REDIS_REPLY_INTEGER) {
        throw DatabaseLost(kUnknownForm);
    }
    return reply->integer;
}

Listener::Listener(const qv::RedisServer& server, unsigned database, std::string_view type,
                   Deadline deadline)
    : link_(server, deadline) {
    link_.command({"SUBSCRIBE", qv::change_channel(database, type)});
}

int Listener::fd() const {
    return link_.context_->fd;
}

// The next complete notice in the buffer. Skips everything that is not a message of the channel.
std::optional<Notice> Listener::take() {
    void* raw = nullptr;
    while (redisGetReplyFromReader(link_.context_.get(), &raw) == REDIS_OK && raw != nullptr) {
        const Reply reply(static_cast<redisReply*>(raw));
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3 ||
            reply->element[2]->type != REDIS_REPLY_STRING || reply->element[2]->len == 0) {
            continue;
        }
        const std::string_view payload = text_of(*reply->element[2]);
        return Notice{.operation = static_cast<uint8_t>(payload[0]),
                      .record = std::string(payload.substr(1))};
    }
    if (link_.context_->err != 0) {
        throw DatabaseLost(link_.context_->errstr);
    }
    return std::nullopt;
}

// Reads what has arrived into the buffer. Returns false when nothing has.
bool Listener::fill() {
    pollfd watched{.fd = fd(), .events = POLLIN, .revents = 0};
    if (poll(&watched, 1, 0) < 1) {
        return false;
    }
    const redisReader& reader = *link_.context_->reader;
    if (reader.len - reader.pos > kInputLimit_bytes) {
        throw DatabaseLost("a message is too long");
    }
    if (redisBufferRead(link_.context_.get()) != REDIS_OK) {
        throw DatabaseLost(link_.context_->errstr);
    }
    return true;
}

std::optional<Notice> Listener::next() {
    for (;;) {
        if (std::optional<Notice> notice = take()) {
            return notice;
        }
        if (!fill()) {
            return std::nullopt;
        }
    }
}

std::optional<Notice> Listener::wait(std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    for (;;) {
        if (std::optional<Notice> notice = next()) {
            return notice;
        }
        const auto left =
            std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= milliseconds::zero()) {
            return std::nullopt;
        }
        pollfd watched{.fd = fd(), .events = POLLIN, .revents = 0};
        poll(&watched, 1, static_cast<int>(left.count()));
    }
}

}  // namespace netconf
