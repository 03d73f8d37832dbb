#include "platform/driver/linux/redis_store.h"

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
using Type = RedisReply::Type;

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

Bytes bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A transaction answers with the answers of its commands.
const RedisReply* error_in(const RedisReply& reply) {
    if (reply.is(Type::kError)) {
        return &reply;
    }
    for (const RedisReply& part : reply.elements) {
        if (part.is(Type::kError)) {
            return &part;
        }
    }
    return nullptr;
}

// For the log: why `reply` is not the reply that `command` should have.
std::string complaint(const char* command, const RedisReply& reply) {
    if (reply.is(Type::kError)) {
        return reply.text;
    }
    return std::string("the server answers ") + command + " with " + name_of(reply.type);
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

    struct Write {
        uint32_t db;
        Kind kind;
        std::string key;  // or the pattern
        std::string channel;
        std::string notice;
    };
    static size_t size_of(const Write& write) {
        return sizeof write + write.key.size() + write.notice.size();
    }
    struct Scan {
        uint32_t db;
        std::string pattern;
        std::string cursor;
        std::vector<std::string> keys;  // of the page whose values are on their way
    };

    void connect();
    void greet(const RedisReply& pong);
    void greeted();
    void select(uint32_t db);
    void selected(uint32_t db, const RedisReply& reply);
    void use(uint32_t db);
    bool write(uint32_t db, Kind kind, std::string_view type, std::string_view key,
               std::string notice);
    void send(uint64_t number, const Write& write);
    void send_waiting();
    void written(uint64_t number, const RedisReply& reply);
    void confirmed(const std::string& channel, uint64_t subscription, const RedisReply& reply);
    void on_message(const RedisReply& message);
    void next_page(uint64_t number);
    void page_found(uint64_t number, const RedisReply& reply);
    void values_found(uint64_t number, const RedisReply& reply);
    void page_done(uint64_t number);
    void fail_later(const std::string& reason);
    void lose(const std::string& reason);

    EventLoop& loop_;
    const std::string socket_;
    StoreListener& listener_;

    std::map<uint32_t, bool> databases_;      // opened so far; true: the session is up
    std::map<uint64_t, Write> unconfirmed_;   // in the order of the calls
    std::map<std::string, uint64_t> topics_;  // subscriptions of this connection, by channel
    std::map<uint64_t, Scan> scans_;          // of this connection
    std::vector<uint64_t> waiting_;           // unconfirmed writes that are not sent yet
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
    subscriptions_ = std::make_unique<RedisConnection>(
        loop_, socket_, on_lost, [this](const RedisReply& message) { on_message(message); });
    commands_->send({"PING"}, [this](const RedisReply& reply) { greet(reply); });
    subscriptions_->send({"PING"}, [this](const RedisReply& reply) { greet(reply); });
}

// A server that is still loading its file accepts connections but refuses this.
void RedisClient::greet(const RedisReply& pong) {
    if (!pong.is(Type::kStatus)) {
        fail_later(complaint("PING", pong));
    } else if (++greetings_ == 2) {
        greeted();
    }
}

void RedisClient::greeted() {
    backoff_ = kFirstBackoff;
    if (std::exchange(away_logged_, false)) {
        printk_syslog(SYSLOG_SEVERITY_INFO, "MOM", "STORE_UP", "Object database at %s is back.",
                      socket_.c_str());
    }
    for (const auto& [db, up] : databases_) {
        select(db);
    }
}

void RedisClient::select(uint32_t db) {
    selected_ = db;
    commands_->send({"SELECT", std::to_string(db)},
                    [this, db](const RedisReply& reply) { selected(db, reply); });
}

void RedisClient::selected(uint32_t db, const RedisReply& reply) {
    if (reply.is(Type::kError)) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "MOM", "NO_DATABASE", "Database %u: %s", db,
                      reply.text.c_str());
        return;
    }
    if (!reply.is(Type::kStatus)) {
        fail_later(complaint("SELECT", reply));
        return;
    }
    databases_[db] = true;
    for (const auto& [number, write] : unconfirmed_) {
        if (write.db == db) {
            send(number, write);
        }
    }
    listener_.session_up(db);
}

// For the callbacks of the connections, which must not destroy them.
void RedisClient::fail_later(const std::string& reason) {
    if (!failing_) {
        commands_->stop();
        subscriptions_->stop();
        failing_ = loop_.after(Duration::zero(), [this, reason] { lose(reason); });
    }
}

// All sessions are down before the first one is reported: the listener's callbacks may write.
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
                      "Object database at %s is away (%s). Retrying; check that redis-server runs.",
                      socket_.c_str(), reason.c_str());
    }
    retry_ = loop_.after(backoff_, [this] { connect(); });
    backoff_ = std::min(backoff_ * 2, kLongestBackoff);
    std::vector<uint32_t> lost;
    for (auto& [db, up] : databases_) {
        if (std::exchange(up, false)) {
            lost.push_back(db);
        }
    }
    for (const uint32_t db : lost) {
        listener_.session_down(db);
    }
}

void RedisClient::open(uint32_t db) {
    const bool first = databases_.emplace(db, false).second;
    if (!first) {
        return;
    }
    if (databases_.size() == 1) {
        connect();
    } else if (greetings_ == 2) {
        select(db);
    }
}

bool RedisClient::up(uint32_t db) const {
    const auto database = databases_.find(db);
    return database != databases_.end() && database->second && !failing_;
}

void RedisClient::use(uint32_t db) {
    if (std::exchange(selected_, db) == db) {
        return;
    }
    commands_->send({"SELECT", std::to_string(db)}, [this](const RedisReply& reply) {
        if (!reply.is(Type::kStatus)) {
            fail_later(complaint("SELECT", reply));
        }
    });
}

bool RedisClient::write(uint32_t db, Kind kind, std::string_view type, std::string_view key,
                        std::string notice) {
    if (!up(db)) {
        return false;
    }
    const uint64_t number = ++writes_;
    const Write& kept = unconfirmed_
                            .emplace(number, Write{db, kind, std::string(key), channel_of(db, type),
                                                   std::move(notice)})
                            .first->second;
    unconfirmed_bytes_ += size_of(kept);
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
        send(number, unconfirmed_.at(number));
    }
}

void RedisClient::send(uint64_t number, const Write& write) {
    const auto done = [this, number](const RedisReply& reply) {
        written(number, reply);
    };
    use(write.db);
    switch (write.kind) {
        case Kind::kSet:
            commands_->send({"MULTI"});
            commands_->send({"SET", write.key, std::string_view(write.notice).substr(1)});
            commands_->send({"PUBLISH", write.channel, write.notice});
            commands_->send({"EXEC"}, done);
            return;
        case Kind::kErase:
            commands_->send({"MULTI"});
            commands_->send({"DEL", write.key});
            commands_->send({"PUBLISH", write.channel, write.notice});
            commands_->send({"EXEC"}, done);
            return;
        case Kind::kEraseMatching:
            commands_->send({"EVAL", kEraseScript, "0", write.key, write.channel}, done);
            return;
        case Kind::kPublish:
            commands_->send({"PUBLISH", write.channel, write.notice}, done);
            return;
    }
}

void RedisClient::written(uint64_t number, const RedisReply& reply) {
    const Write& write = unconfirmed_.at(number);
    const RedisReply* const error = error_in(reply);
    const bool transaction = write.kind == Kind::kSet || write.kind == Kind::kErase;
    if (error == nullptr && !reply.is(transaction ? Type::kArray : Type::kInteger)) {
        fail_later(complaint("a write", reply));
        return;
    }
    if (error != nullptr && !write_refused_) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "MOM", "WRITE_REFUSED", "Database %u, %s: %s",
                      write.db, write.key.c_str(), error->text.c_str());
    }
    write_refused_ = error != nullptr;
    unconfirmed_bytes_ -= size_of(write);
    unconfirmed_.erase(number);
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
    const std::string channel = channel_of(db, type);
    subscriptions_->send({"SUBSCRIBE", channel},
                         [this, channel, subscription](const RedisReply& reply) {
                             confirmed(channel, subscription, reply);
                         });
    return true;
}

// The confirmation is an array of "subscribe", the channel and a count.
void RedisClient::confirmed(const std::string& channel, uint64_t subscription,
                            const RedisReply& reply) {
    if (reply.elements.size() != 3 || reply.elements[0].text != "subscribe" ||
        reply.elements[1].text != channel) {
        fail_later(complaint("SUBSCRIBE", reply));
        return;
    }
    topics_[channel] = subscription;
    listener_.subscribed(subscription);
}

// An array of "message", the channel and the payload.
void RedisClient::on_message(const RedisReply& message) {
    const auto topic =
        message.elements.size() == 3 ? topics_.find(message.elements[1].text) : topics_.end();
    if (topic == topics_.end() || !message.elements[2].is(Type::kString)) {
        fail_later("the server sends a message that nobody subscribed to");
        return;
    }
    listener_.notice(topic->second, bytes_of(message.elements[2].text));
}

bool RedisClient::scan(uint32_t db, std::string_view type, uint64_t scan) {
    if (!up(db)) {
        return false;
    }
    scans_[scan] = {db, std::string(type) + "/*", "0", {}};
    next_page(scan);
    return true;
}

// What was written before the scan is in it.
void RedisClient::next_page(uint64_t number) {
    send_waiting();
    const Scan& scan = scans_.at(number);
    use(scan.db);
    commands_->send({"SCAN", scan.cursor, "MATCH", scan.pattern, "COUNT", kScanPage},
                    [this, number](const RedisReply& reply) { page_found(number, reply); });
}

// A refused page ends the connection: the client scans again when it is back.
void RedisClient::page_found(uint64_t number, const RedisReply& reply) {
    if (reply.elements.size() != 2 || !reply.elements[0].is(Type::kString) ||
        !reply.elements[1].is(Type::kArray)) {
        fail_later(complaint("SCAN", reply));
        return;
    }
    Scan& scan = scans_.at(number);
    scan.cursor = reply.elements[0].text;
    scan.keys.clear();
    for (const RedisReply& key : reply.elements[1].elements) {
        scan.keys.push_back(key.text);
    }
    if (scan.keys.empty()) {
        page_done(number);
        return;
    }
    std::vector<std::string_view> words{"MGET"};
    words.insert(words.end(), scan.keys.begin(), scan.keys.end());
    use(scan.db);
    commands_->send(words.size(), words.data(),
                    [this, number](const RedisReply& values) { values_found(number, values); });
}

// A key that was deleted since its page was read, or that holds no string, has no value.
void RedisClient::values_found(uint64_t number, const RedisReply& reply) {
    const std::vector<std::string> keys = std::move(scans_.at(number).keys);
    if (reply.elements.size() != keys.size()) {
        fail_later(complaint("MGET", reply));
        return;
    }
    for (size_t n = 0; n < keys.size(); n++) {
        if (reply.elements[n].is(Type::kString)) {
            listener_.scanned(number, keys[n], bytes_of(reply.elements[n].text));
        }
    }
    page_done(number);
}

void RedisClient::page_done(uint64_t number) {
    if (scans_.at(number).cursor != "0") {
        next_page(number);
        return;
    }
    scans_.erase(number);
    listener_.scan_done(number);
}

}  // namespace

RedisStore::RedisStore(EventLoop& loop, std::string socket)
    : loop_(loop), socket_(std::move(socket)) {}

std::unique_ptr<StoreClient> RedisStore::connect(StoreListener& listener) {
    return std::make_unique<RedisClient>(loop_, socket_, listener);
}

}  // namespace qv
