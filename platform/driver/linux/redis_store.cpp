#include "platform/driver/linux/redis_store.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "platform/driver/linux/redis_connection.h"
#include "qv/syslog.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

constexpr Duration kFirstBackoff = 100ms;
constexpr Duration kLongestBackoff = 5s;

// Writes that wait for the server. Beyond this it is taken for gone.
constexpr size_t kUnconfirmedLimit_bytes = size_t{8} << 20;

constexpr std::string_view kScanPage = "256";

// One step for the server: a record written by anybody in the meantime is either older and told of
// as deleted, or newer and untouched.
constexpr std::string_view kEraseScript =
    "for _, key in ipairs(redis.call('KEYS', ARGV[1])) do "
    "local record = redis.pcall('GET', key) "
    "redis.call('DEL', key) "
    "if type(record) == 'string' then redis.call('PUBLISH', ARGV[2], '\\1' .. record) end "
    "end "
    "return 0";

std::string channel_of(uint32_t db, std::string_view type) {
    return "mom/" + std::to_string(db) + "/" + std::string(type);
}

std::string notice_of(StoreOper oper, Bytes record) {
    std::string notice(1, static_cast<char>(oper));
    notice.append(record.begin(), record.end());
    return notice;
}

std::string_view text_of(const redisReply& reply) {
    return {reply.str, static_cast<size_t>(reply.len)};
}

Bytes bytes_of(const redisReply& reply) {
    return {reinterpret_cast<const uint8_t*>(reply.str), static_cast<size_t>(reply.len)};
}

// A transaction answers with the answers of its commands.
const redisReply* error_in(const redisReply& reply) {
    if (reply.type == REDIS_REPLY_ERROR) {
        return &reply;
    }
    for (size_t n = 0; reply.type == REDIS_REPLY_ARRAY && n < reply.elements; n++) {
        if (reply.element[n]->type == REDIS_REPLY_ERROR) {
            return reply.element[n];
        }
    }
    return nullptr;
}

class RedisClient final : public StoreClient {
 public:
    RedisClient(EventLoop& loop, const std::string& socket, StoreListener& listener)
        : loop_(loop), socket_(socket), listener_(listener) {}

    void open(uint32_t db) override;
    bool up(uint32_t db) const override;
    bool set(uint32_t db, std::string_view type, std::string_view key, Bytes record) override;
    bool erase(uint32_t db, std::string_view type, std::string_view key, Bytes record) override;
    bool erase_matching(uint32_t db, std::string_view type, std::string_view pattern) override;
    bool publish(uint32_t db, std::string_view type, Bytes record) override;
    bool subscribe(uint32_t db, std::string_view type, uint64_t subscription) override;
    bool scan(uint32_t db, std::string_view type, uint64_t scan) override;

 private:
    enum class Kind { kSet, kErase, kEraseMatching, kPublish };

    // The callbacks of hiredis get a pointer to one of these as their context.
    struct Database {
        RedisClient* client;
        uint32_t number;
        bool up;
    };
    struct Write {
        RedisClient* client;
        uint64_t number;
        uint32_t db;
        Kind kind;
        std::string key;  // or the pattern
        std::string channel;
        std::string notice;
    };
    struct Topic {
        RedisClient* client;
        uint64_t number;
    };
    struct Scan {
        RedisClient* client;
        uint64_t number;
        uint32_t db;
        std::string pattern;
        std::string cursor;
        std::vector<std::string> keys;  // of the page whose values are on their way
    };

    void connect();
    void greeted();
    void select(Database& database);
    void use(uint32_t db);
    bool write(uint32_t db, Kind kind, std::string_view type, std::string_view key,
               std::string notice);
    void send(Write& write);
    void send_waiting();
    void next_page(Scan& scan);
    void page_found(Scan& scan, const redisReply& reply);
    void values_found(Scan& scan, const redisReply& reply);
    void page_done(Scan& scan);
    void end_scan(Scan& scan, const redisReply& reply);
    void fail_later(const std::string& reason);
    void lose(const std::string& reason);

    static void on_pong(redisAsyncContext*, void* reply, void* context);
    static void on_selected(redisAsyncContext*, void* reply, void* context);
    static void on_written(redisAsyncContext*, void* reply, void* context);
    static void on_message(redisAsyncContext*, void* reply, void* context);
    static void on_page(redisAsyncContext*, void* reply, void* context);
    static void on_values(redisAsyncContext*, void* reply, void* context);

    EventLoop& loop_;
    const std::string socket_;
    StoreListener& listener_;

    std::map<uint32_t, Database> databases_;  // opened so far
    std::map<uint64_t, Write> unconfirmed_;   // in the order of the calls
    std::map<uint64_t, Topic> topics_;        // of the present connection
    std::map<uint64_t, Scan> scans_;          // of the present connection
    std::vector<uint64_t> waiting_;           // of those, the ones that are not sent yet
    uint64_t writes_ = 0;
    size_t unconfirmed_bytes_ = 0;

    int greetings_ = 0;      // connections that have answered; 2: ready
    uint32_t selected_ = 0;  // what the command connection stands on once all is sent
    Duration backoff_ = kFirstBackoff;
    bool away_logged_ = false;
    bool write_refused_ = false;  // logged; until a write succeeds again
    EventLoop::Handle retry_;
    EventLoop::Handle failing_;
    EventLoop::Handle sending_;

    // Last, so that nothing a callback may look at goes before them.
    std::unique_ptr<RedisConnection> commands_;
    std::unique_ptr<RedisConnection> subscriptions_;
};

void RedisClient::connect() {
    const auto on_lost = [this](const std::string& reason) {
        lose(reason);
    };
    selected_ = 0;
    commands_ = std::make_unique<RedisConnection>(loop_, socket_, on_lost);
    subscriptions_ = std::make_unique<RedisConnection>(loop_, socket_, on_lost);
    commands_->send({"PING"}, on_pong, this);
    subscriptions_->send({"PING"}, on_pong, this);
}

// A server that is still loading its file accepts connections but refuses this.
void RedisClient::on_pong(redisAsyncContext* /*connection*/, void* reply, void* context) {
    if (reply == nullptr) {
        return;
    }
    auto* const self = static_cast<RedisClient*>(context);
    const auto& answer = *static_cast<const redisReply*>(reply);
    if (answer.type == REDIS_REPLY_ERROR) {
        self->fail_later(std::string(text_of(answer)));
    } else if (++self->greetings_ == 2) {
        self->greeted();
    }
}

void RedisClient::greeted() {
    backoff_ = kFirstBackoff;
    if (std::exchange(away_logged_, false)) {
        printk_syslog(SYSLOG_SEVERITY_INFO, "MOM", "STORE_UP", "Object database at %s is back.",
                      socket_.c_str());
    }
    for (auto& [number, database] : databases_) {
        select(database);
    }
}

void RedisClient::select(Database& database) {
    selected_ = database.number;
    commands_->send({"SELECT", std::to_string(database.number)}, on_selected, &database);
}

void RedisClient::on_selected(redisAsyncContext* /*connection*/, void* reply, void* context) {
    if (reply == nullptr) {
        return;
    }
    auto& database = *static_cast<Database*>(context);
    RedisClient& self = *database.client;
    const auto& answer = *static_cast<const redisReply*>(reply);
    if (answer.type == REDIS_REPLY_ERROR) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "MOM", "NO_DATABASE", "Database %u: %.*s",
                      database.number, static_cast<int>(answer.len), answer.str);
        return;
    }
    database.up = true;
    for (auto& [number, write] : self.unconfirmed_) {
        if (write.db == database.number) {
            self.send(write);
        }
    }
    self.listener_.session_up(database.number);
}

void RedisClient::fail_later(const std::string& reason) {
    if (!failing_) {
        failing_ = loop_.after(Duration::zero(), [this, reason] { lose(reason); });
    }
}

// Never inside a callback of hiredis that could look at what goes away here.
void RedisClient::lose(const std::string& reason) {
    commands_.reset();
    subscriptions_.reset();
    failing_.reset();
    topics_.clear();
    scans_.clear();
    waiting_.clear();  // sent again with the others
    greetings_ = 0;
    if (!std::exchange(away_logged_, true)) {
        printk_syslog(SYSLOG_SEVERITY_WARNING, "MOM", "STORE_AWAY",
                      "Object database at %s is away: %s", socket_.c_str(), reason.c_str());
    }
    retry_ = loop_.after(backoff_, [this] { connect(); });
    backoff_ = std::min(backoff_ * 2, kLongestBackoff);
    for (auto& [number, database] : databases_) {
        if (std::exchange(database.up, false)) {
            listener_.session_down(number);
        }
    }
}

void RedisClient::open(uint32_t db) {
    const auto [database, first] = databases_.try_emplace(db, Database{this, db, false});
    if (!first) {
        return;
    }
    if (databases_.size() == 1) {
        connect();
    } else if (greetings_ == 2) {
        select(database->second);
    }
}

bool RedisClient::up(uint32_t db) const {
    const auto database = databases_.find(db);
    return database != databases_.end() && database->second.up && !failing_;
}

void RedisClient::use(uint32_t db) {
    if (std::exchange(selected_, db) != db) {
        commands_->send({"SELECT", std::to_string(db)});
    }
}

bool RedisClient::write(uint32_t db, Kind kind, std::string_view type, std::string_view key,
                        std::string notice) {
    if (!up(db)) {
        return false;
    }
    const uint64_t number = ++writes_;
    Write& kept = unconfirmed_
                      .emplace(number, Write{this, number, db, kind, std::string(key),
                                             channel_of(db, type), std::move(notice)})
                      .first->second;
    unconfirmed_bytes_ += sizeof kept + kept.key.size() + kept.notice.size();
    waiting_.push_back(number);
    if (!sending_) {
        sending_ = loop_.put_off([this] { send_waiting(); });
    }
    if (unconfirmed_bytes_ > kUnconfirmedLimit_bytes) {
        fail_later("it does not keep up with the writes");
    }
    return true;
}

void RedisClient::send_waiting() {
    for (const uint64_t number : std::exchange(waiting_, {})) {
        send(unconfirmed_.at(number));
    }
}

void RedisClient::send(Write& write) {
    use(write.db);
    switch (write.kind) {
        case Kind::kSet:
            commands_->send({"MULTI"});
            commands_->send({"SET", write.key, std::string_view(write.notice).substr(1)});
            commands_->send({"PUBLISH", write.channel, write.notice});
            commands_->send({"EXEC"}, on_written, &write);
            return;
        case Kind::kErase:
            commands_->send({"MULTI"});
            commands_->send({"DEL", write.key});
            commands_->send({"PUBLISH", write.channel, write.notice});
            commands_->send({"EXEC"}, on_written, &write);
            return;
        case Kind::kEraseMatching:
            commands_->send({"EVAL", kEraseScript, "0", write.key, write.channel}, on_written,
                            &write);
            return;
        case Kind::kPublish:
            commands_->send({"PUBLISH", write.channel, write.notice}, on_written, &write);
            return;
    }
}

void RedisClient::on_written(redisAsyncContext* /*connection*/, void* reply, void* context) {
    if (reply == nullptr) {
        return;  // not confirmed: kept for the next connection
    }
    auto& write = *static_cast<Write*>(context);
    RedisClient& self = *write.client;
    const redisReply* const error = error_in(*static_cast<const redisReply*>(reply));
    if (error != nullptr && !self.write_refused_) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "MOM", "WRITE_REFUSED", "Database %u, %s: %.*s",
                      write.db, write.key.c_str(), static_cast<int>(error->len), error->str);
    }
    self.write_refused_ = error != nullptr;
    self.unconfirmed_bytes_ -= sizeof write + write.key.size() + write.notice.size();
    self.unconfirmed_.erase(write.number);
}

bool RedisClient::set(uint32_t db, std::string_view type, std::string_view key, Bytes record) {
    return write(db, Kind::kSet, type, key, notice_of(StoreOper::kSet, record));
}

bool RedisClient::erase(uint32_t db, std::string_view type, std::string_view key, Bytes record) {
    return write(db, Kind::kErase, type, key, notice_of(StoreOper::kDelete, record));
}

bool RedisClient::erase_matching(uint32_t db, std::string_view type, std::string_view pattern) {
    return write(db, Kind::kEraseMatching, type, pattern, {});
}

bool RedisClient::publish(uint32_t db, std::string_view type, Bytes record) {
    return write(db, Kind::kPublish, type, {}, notice_of(StoreOper::kPublish, record));
}

bool RedisClient::subscribe(uint32_t db, std::string_view type, uint64_t subscription) {
    if (!up(db)) {
        return false;
    }
    Topic& topic = topics_.try_emplace(subscription, Topic{this, subscription}).first->second;
    subscriptions_->send({"SUBSCRIBE", channel_of(db, type)}, on_message, &topic);
    return true;
}

// The server sends "subscribe" or "message", the channel, and the count or the payload.
void RedisClient::on_message(redisAsyncContext* /*connection*/, void* reply, void* context) {
    const auto* const message = static_cast<const redisReply*>(reply);
    if (message == nullptr || message->type != REDIS_REPLY_ARRAY || message->elements != 3) {
        return;
    }
    const auto& topic = *static_cast<const Topic*>(context);
    if (message->element[2]->type == REDIS_REPLY_STRING) {
        topic.client->listener_.notice(topic.number, bytes_of(*message->element[2]));
    } else {
        topic.client->listener_.subscribed(topic.number);
    }
}

bool RedisClient::scan(uint32_t db, std::string_view type, uint64_t scan) {
    if (!up(db)) {
        return false;
    }
    Scan& kept = scans_[scan];
    kept = {this, scan, db, std::string(type) + "/*", "0", {}};
    next_page(kept);
    return true;
}

// What was written before the scan is in it.
void RedisClient::next_page(Scan& scan) {
    send_waiting();
    use(scan.db);
    commands_->send({"SCAN", scan.cursor, "MATCH", scan.pattern, "COUNT", kScanPage}, on_page,
                    &scan);
}

void RedisClient::on_page(redisAsyncContext* /*connection*/, void* reply, void* context) {
    if (reply != nullptr) {
        auto& scan = *static_cast<Scan*>(context);
        scan.client->page_found(scan, *static_cast<const redisReply*>(reply));
    }
}

void RedisClient::page_found(Scan& scan, const redisReply& reply) {
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2) {
        end_scan(scan, reply);
        return;
    }
    scan.cursor = text_of(*reply.element[0]);
    const redisReply& keys = *reply.element[1];
    scan.keys.clear();
    std::vector<std::string_view> words{"MGET"};
    for (size_t n = 0; n < keys.elements; n++) {
        scan.keys.emplace_back(text_of(*keys.element[n]));
        words.push_back(text_of(*keys.element[n]));
    }
    if (scan.keys.empty()) {
        page_done(scan);
        return;
    }
    use(scan.db);
    commands_->send(words.size(), words.data(), on_values, &scan);
}

void RedisClient::on_values(redisAsyncContext* /*connection*/, void* reply, void* context) {
    if (reply != nullptr) {
        auto& scan = *static_cast<Scan*>(context);
        scan.client->values_found(scan, *static_cast<const redisReply*>(reply));
    }
}

// A key that was deleted since its page was read, or that holds no string, has no value.
void RedisClient::values_found(Scan& scan, const redisReply& reply) {
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != scan.keys.size()) {
        end_scan(scan, reply);
        return;
    }
    for (size_t n = 0; n < reply.elements; n++) {
        if (reply.element[n]->type == REDIS_REPLY_STRING) {
            listener_.scanned(scan.number, scan.keys[n], bytes_of(*reply.element[n]));
        }
    }
    page_done(scan);
}

void RedisClient::page_done(Scan& scan) {
    if (scan.cursor != "0") {
        next_page(scan);
        return;
    }
    const uint64_t number = scan.number;
    scans_.erase(number);
    listener_.scan_done(number);
}

// The server refused a page. What was to come is lost, so the connection goes too: the client scans
// again when it is back.
void RedisClient::end_scan(Scan& scan, const redisReply& reply) {
    scan.client->fail_later(reply.type == REDIS_REPLY_ERROR ? std::string(text_of(reply))
                                                            : "the answer to a scan is no list");
}

}  // namespace

RedisStore::RedisStore(EventLoop& loop, std::string socket)
    : loop_(loop), socket_(std::move(socket)) {}

std::unique_ptr<StoreClient> RedisStore::connect(StoreListener& listener) {
    return std::make_unique<RedisClient>(loop_, socket_, listener);
}

}  // namespace qv
