// The life of a client. open() of the first database connects: two connections, a PING on each.
// When both have answered (greeted), every open database is selected; each SELECT that succeeds
// sends the unconfirmed writes of that database and reports its session. A database that the server
// refuses stays down until the next connection.
//
// Any fault of either connection ends both: lose() drops what belongs to them (subscriptions,
// scans, timers), reports all sessions as down, and arms the next attempt. Callbacks for replies
// must not destroy their connection, so they call fail_later(), which stops both at once and calls
// lose() from the loop. From that moment up() is false and requests are refused.
//
// Writes. A write is accepted into `unconfirmed_` and waits in `waiting_` for an idle moment of the
// loop, so that urgent work, such as the shutdown of a port, goes first and several writes share a
// system call. Scans and checks send the waiting writes first, so requests keep their order. A
// write leaves `unconfirmed_` with its reply. After a loss the rest is sent again, except for
// set_missing(), which the listener repeats itself when the session is up. A server without memory
// or disk space refuses to set or delete a record; such a write stays, and is sent again until it
// is taken or a later one makes it pointless.
//
// Databases. Redis has one selected database per connection. `selected_` follows what the command
// connection will have selected when everything queued so far is executed; use() queues a SELECT
// only for a change. Channels do not belong to a database, so their names contain its number.
//
// A server that is emptied while it runs announces nothing. So check_records() asks it regularly
// for some of the keys that this process has set, as long as there are any.
#include "platform/driver/linux/redis_store.h"

#include <chrono>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "platform/base/database_names.h"
#include "platform/base/message_log.h"
#include "platform/base/metrics.h"
#include "platform/base/visible.h"
#include "platform/driver/linux/redis_connection.h"
#include "platform/driver/linux/redis_scripts.h"
#include "platform/driver/linux/redis_writes.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Kind = RedisWrite::Kind;
using Type = RedisReply::Type;

constexpr Duration kFirstBackoff = 100ms;
constexpr Duration kLongestBackoff = 5s;

// Bytes of writes that may wait for the server. Beyond this it counts as lost.
constexpr size_t kUnconfirmedLimit_bytes = size_t{8} << 20;

// Period of the check whether the server still has the records of this process, and of repeating
// refused writes and subscriptions.
constexpr Duration kCheckPeriod = 5s;

// A session that is shorter counts as a failed attempt: the pause before the next one grows.
constexpr Duration kProvenAfter = 10s;

constexpr std::string_view kRecordLimit_bytes = "8388608";  // below the limit of a reply, 9 MiB

std::string notice_of(StoreOper oper, Bytes record) {
    std::string notice;
    notice.reserve(1 + record.size());
    notice.push_back(static_cast<char>(oper));
    notice.append(record.begin(), record.end());
    return notice;
}

Bytes bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

class RedisClient final : public StoreClient {
 public:
    // Runs the task it is given at once, or later.
    using WhenAllowed = std::function<void(std::function<void()>)>;

    // `login_trouble` is shared by the clients of a store: the last reason why the server refused
    // their login, as it was logged; empty since it granted one.
    RedisClient(EventLoop& loop, const RedisServer& server, std::string& login_trouble,
                StoreListener& listener, WhenAllowed when_allowed)
        : loop_(loop),
          server_(server),
          login_trouble_(login_trouble),
          listener_(listener),
          when_allowed_(std::move(when_allowed)) {}

    void open(uint32_t db) override;
    bool up(uint32_t db) const override;
    bool set(uint32_t db, std::string_view type, std::string_view key, Bytes record) override;
    bool set_missing(uint32_t db, std::string_view type, std::string_view key,
                     Bytes record) override;
    bool erase(uint32_t db, std::string_view type, std::string_view key, Bytes record) override;
    bool erase_matching(uint32_t db, std::string_view type, std::string_view pattern) override;
    bool publish(uint32_t db, std::string_view type, Bytes record) override;
    bool subscribe(uint32_t db, std::string_view type, uint64_t subscription) override;
    bool scan(uint32_t db, std::string_view type, uint64_t scan) override;

 private:
    using Sizes = std::map<std::string, long long>;  // by key, in bytes

    struct Database {
        bool up = false;
        bool refused = false;  // as logged
    };
    struct Scan {
        uint32_t db;
        std::string pattern;
        std::string cursor;
        Sizes too_long;  // found so far
    };

    void connect();
    void greet(const RedisReply& pong);
    void greeted();
    void select(uint32_t db);
    void selected(uint32_t db, const RedisReply& reply);
    void refuse(uint32_t db, const std::string& error);
    void use(uint32_t db);
    bool write(uint32_t db, Kind kind, std::string_view type, std::string_view key,
               std::string notice);
    void send(uint64_t number, const RedisWrite& write);
    void send_waiting();
    void note_error(uint64_t number, const RedisReply& reply);
    void written(uint64_t number, const RedisReply& reply);
    void repeat_refused();
    void request_topic(const std::string& channel, uint64_t subscription);
    void confirmed(const std::string& channel, uint64_t subscription, const RedisReply& reply);
    void topic_refused(const std::string& channel, uint64_t subscription, const std::string& error);
    void on_message(const RedisReply& message);
    void read_page(uint64_t number, const std::vector<std::string_view>& keys);
    void page_read(uint64_t number, const RedisReply& reply);
    void note_too_long(Scan& scan, const std::string& key, long long size);
    void end_scan(uint64_t number);
    void arm_check();
    void check_records();
    void checked(size_t count, const RedisReply& reply);
    void fail_later(const std::string& reason);
    void report_loss(const std::string& reason);
    void lose(const std::string& reason);

    EventLoop& loop_;
    const RedisServer server_;
    std::string& login_trouble_;
    StoreListener& listener_;
    const WhenAllowed when_allowed_;  // for the first connection

    std::map<uint32_t, Database> databases_;  // opened so far
    RedisWrites unconfirmed_;
    std::map<std::string, uint64_t> topics_;   // subscriptions of this connection, by channel
    std::map<std::string, uint64_t> refused_;  // subscriptions to request again, by channel
    std::set<std::string> refused_logged_;     // channels; until they are confirmed
    std::map<uint64_t, Scan> scans_;           // of this connection
    std::vector<uint64_t> waiting_;            // unconfirmed writes that are not sent yet
    size_t unconfirmed_limit_bytes_ = kUnconfirmedLimit_bytes;  // of this connection

    int greetings_ = 0;      // connections that have answered; 2: ready
    uint32_t selected_ = 0;  // database of the command connection once all is sent
    Duration backoff_ = kFirstBackoff;
    bool away_logged_ = false;
    bool login_refused_ = false;  // since the sessions were last up
    bool write_refused_ = false;  // logged; until a write succeeds again
    std::map<std::pair<uint32_t, std::string>, Sizes> too_long_;  // logged; by database, pattern
    Time greeted_at_;             // when both connections had answered
    bool check_refused_ = false;  // logged; by this connection
    EventLoop::Handle check_;
    EventLoop::Handle resubscribe_;  // for the refused subscriptions
    EventLoop::Handle rewrite_;      // for the refused writes
    EventLoop::Handle retry_;
    EventLoop::Handle failing_;
    EventLoop::Handle sending_;

    // Last, so that they are destroyed first: their callbacks use the members above.
    std::unique_ptr<RedisConnection> commands_;
    std::unique_ptr<RedisConnection> subscriptions_;
};

void RedisClient::connect() {
    const auto on_lost = [this](const std::string& reason) {
        lose(reason);
    };
    commands_ = std::make_unique<RedisConnection>(loop_, server_, on_lost);
    subscriptions_ = std::make_unique<RedisConnection>(
        loop_, server_, on_lost, [this](const RedisReply& message) { on_message(message); });
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
    greeted_at_ = loop_.clock().now();
    // Writes that are sent again do not count against the limit of new ones.
    unconfirmed_limit_bytes_ =
        std::min(unconfirmed_.bytes() + kUnconfirmedLimit_bytes, 4 * kUnconfirmedLimit_bytes);
    login_trouble_.clear();
    const bool was_refused = std::exchange(login_refused_, false);
    if (std::exchange(away_logged_, false) || was_refused) {
        log_message(kLogInfo, "MOM", "STORE_UP", "Object database at %s is back.",
                    server_.socket.c_str());
    }
    for (const auto& [db, database] : databases_) {
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
        refuse(db, reply.text);
        return;
    }
    if (!reply.is(Type::kStatus)) {
        fail_later(complaint("SELECT", reply));
        return;
    }
    databases_[db] = {.up = true, .refused = false};
    for (const auto& [number, write] : unconfirmed_.all()) {
        if (write.db == db) {
            send(number, write);
        }
    }
    listener_.session_up(db);
}

// Each new connection tries again: the server may have more databases by then.
void RedisClient::refuse(uint32_t db, const std::string& error) {
    if (std::exchange(databases_[db].refused, true)) {
        return;
    }
    if (error.find("DB index is out of range") != std::string::npos) {
        log_message(kLogError, "MOM", "NO_DATABASE",
                    "The object database at %s has no database %u. Put \"databases 32\" into the "
                    "configuration of redis-server and restart it.",
                    server_.socket.c_str(), db);
    } else {
        log_message(kLogError, "MOM", "NO_DATABASE",
                    "The object database at %s refuses database %u: %s", server_.socket.c_str(), db,
                    error.c_str());
    }
}

// For the callbacks of the connections, which must not destroy them.
void RedisClient::fail_later(const std::string& reason) {
    if (!failing_) {
        commands_->stop();
        subscriptions_->stop();
        failing_ = loop_.after(Duration::zero(), [this, reason] { lose(reason); });
    }
}

// Not at each retry: a refused login once for all clients, an absence once for each.
void RedisClient::report_loss(const std::string& reason) {
    if (commands_->login_refused() || subscriptions_->login_refused()) {
        login_refused_ = true;
        if (std::exchange(login_trouble_, reason) != reason) {
            log_message(kLogError, "MOM", "LOGIN_REFUSED",
                        "No login to the object database at %s (%s). Retrying; check [redis] user "
                        "and password_file.",
                        server_.socket.c_str(), reason.c_str());
        }
    } else if (!std::exchange(away_logged_, true)) {
        log_message(kLogWarning, "MOM", "STORE_AWAY",
                    "Object database at %s is away (%s). Retrying; check that redis-server runs.",
                    server_.socket.c_str(), reason.c_str());
    }
}

// All sessions are down before the first one is reported: the listener's callbacks may write.
void RedisClient::lose(const std::string& reason) {
    report_loss(reason);
    commands_.reset();
    subscriptions_.reset();
    failing_.reset();
    topics_.clear();
    refused_.clear();
    resubscribe_.reset();
    scans_.clear();
    waiting_.clear();  // sent again with the others
    rewrite_.reset();
    check_.reset();
    check_refused_ = false;
    unconfirmed_.lose_connection();  // the listener repeats kSetMissing in the next session
    if (greetings_ == 2 && loop_.clock().now() - greeted_at_ >= kProvenAfter) {
        backoff_ = kFirstBackoff;
    }
    greetings_ = 0;
    retry_ = loop_.after(backoff_, [this] { connect(); });
    backoff_ = std::min(backoff_ * 2, kLongestBackoff);
    std::vector<uint32_t> lost;
    for (auto& [db, database] : databases_) {
        if (std::exchange(database.up, false)) {
            lost.push_back(db);
        }
    }
    for (const uint32_t db : lost) {
        listener_.session_down(db);
    }
}

void RedisClient::open(uint32_t db) {
    const bool first = databases_.try_emplace(db).second;
    if (!first) {
        return;
    }
    if (databases_.size() == 1) {
        when_allowed_([this] { connect(); });
    } else if (greetings_ == 2) {
        select(db);
    }
}

bool RedisClient::up(uint32_t db) const {
    const auto database = databases_.find(db);
    return database != databases_.end() && database->second.up && !failing_;
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
    waiting_.push_back(unconfirmed_.add(
        {db, kind, std::string(key), change_channel(db, type), std::move(notice)}));
    if (kind == Kind::kSet || kind == Kind::kSetMissing) {
        arm_check();
    }
    if (!sending_) {
        sending_ = loop_.defer([this] { send_waiting(); });
    }
    if (unconfirmed_.bytes() > unconfirmed_limit_bytes_) {
        fail_later("it does not keep up with the writes");
    }
    return true;
}

void RedisClient::send_waiting() {
    for (const uint64_t number : std::exchange(waiting_, {})) {
        send(number, unconfirmed_.at(number));
    }
}

void RedisClient::send(uint64_t number, const RedisWrite& write) {
    const auto done = [this, number](const RedisReply& reply) {
        written(number, reply);
    };
    const auto queued = [this, number](const RedisReply& reply) {
        note_error(number, reply);
    };
    const std::string_view notice = write.notice;  // empty for a delete of many
    const std::string_view record = notice.substr(notice.empty() ? 0 : 1);
    use(write.db);
    switch (write.kind) {
        case Kind::kSet:
            commands_->send({"MULTI"}, queued);
            commands_->send({"SET", write.key, record}, queued);
            commands_->send({"PUBLISH", write.channel, write.notice}, queued);
            commands_->send({"EXEC"}, done);
            return;
        case Kind::kSetMissing:
            commands_->send({"EVAL", kSetMissingScript, "1", write.key, record, write.channel},
                            done);
            return;
        case Kind::kErase:
            commands_->send({"MULTI"}, queued);
            commands_->send({"DEL", write.key}, queued);
            commands_->send({"PUBLISH", write.channel, write.notice}, queued);
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

// EXEC only says that an earlier command of the transaction was refused, not why.
void RedisClient::note_error(uint64_t number, const RedisReply& reply) {
    RedisWrite& write = unconfirmed_.at(number);
    if (reply.is(Type::kError) && write.error.empty()) {
        write.error = reply.text;
    }
}

void RedisClient::written(uint64_t number, const RedisReply& reply) {
    RedisWrite& write = unconfirmed_.at(number);
    const bool transaction = write.kind == Kind::kSet || write.kind == Kind::kErase;
    const RedisReply* const error = error_in(reply);
    if (error != nullptr) {
        note_error(number, *error);
    } else if (!reply.is(transaction ? Type::kArray : Type::kInteger)) {
        fail_later(complaint("a write", reply));
        return;
    }
    if (Metrics* const figures = metrics(); figures && write.kind == Kind::kSetMissing) {
        figures->records_set_again += reply.number == 1 ? 1 : 0;
    }
    if (!write.error.empty() && !write_refused_) {
        log_message(kLogError, "MOM", "WRITE_REFUSED",
                    "Database %u: %s was not written: %s. Further refusals are not logged until "
                    "a write succeeds.",
                    write.db, write.key.empty() ? write.channel.c_str() : write.key.c_str(),
                    write.error.c_str());
    }
    write_refused_ = !write.error.empty();
    if (!write_refused_) {
        unconfirmed_.forget(number);
    } else if (unconfirmed_.keep_refused(number) && !rewrite_) {
        rewrite_ = loop_.after(kCheckPeriod, [this] { repeat_refused(); });
    }
}

void RedisClient::repeat_refused() {
    if (failing_) {
        return;  // everything unconfirmed is sent again in the next session
    }
    for (const uint64_t number : unconfirmed_.take_refused()) {
        send(number, unconfirmed_.at(number));
    }
}

bool RedisClient::set(uint32_t db, std::string_view type, std::string_view key, Bytes record) {
    return write(db, Kind::kSet, type, key, notice_of(StoreOper::kSet, record));
}

bool RedisClient::set_missing(uint32_t db, std::string_view type, std::string_view key,
                              Bytes record) {
    return write(db, Kind::kSetMissing, type, key, notice_of(StoreOper::kSet, record));
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
    request_topic(change_channel(db, type), subscription);
    return true;
}

void RedisClient::request_topic(const std::string& channel, uint64_t subscription) {
    refused_.erase(channel);
    subscriptions_->send({"SUBSCRIBE", channel},
                         [this, channel, subscription](const RedisReply& reply) {
                             confirmed(channel, subscription, reply);
                         });
}

// The confirmation is an array of "subscribe", the channel and a count.
void RedisClient::confirmed(const std::string& channel, uint64_t subscription,
                            const RedisReply& reply) {
    if (reply.is(Type::kError)) {
        topic_refused(channel, subscription, reply.text);
        return;
    }
    if (reply.elements.size() != 3 || reply.elements[0].text != "subscribe" ||
        reply.elements[1].text != channel) {
        fail_later(complaint("SUBSCRIBE", reply));
        return;
    }
    refused_logged_.erase(channel);
    topics_[channel] = subscription;
    listener_.subscribed(subscription);
}

// A client without its subscriptions gets no notices, so they are repeated until the server grants
// them.
void RedisClient::topic_refused(const std::string& channel, uint64_t subscription,
                                const std::string& error) {
    if (refused_logged_.insert(channel).second) {
        log_message(kLogError, "MOM", "SUBSCRIBE_REFUSED",
                    "The object database at %s refuses the subscription to %s: %s",
                    server_.socket.c_str(), channel.c_str(), error.c_str());
    }
    refused_[channel] = subscription;
    if (!resubscribe_) {
        resubscribe_ = loop_.after(kCheckPeriod, [this] {
            for (const auto& [refused, number] : std::exchange(refused_, {})) {
                request_topic(refused, number);
            }
        });
    }
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
    read_page(scan, {});
    return true;
}

// Reads the records under `keys`, or the next page when there are none. Waiting writes are sent
// first, so that the scan sees them.
void RedisClient::read_page(uint64_t number, const std::vector<std::string_view>& keys) {
    send_waiting();
    const Scan& scan = scans_.at(number);
    const std::string count = std::to_string(keys.size());
    std::vector<std::string_view> words{"EVAL", kScanScript, count};
    words.insert(words.end(), keys.begin(), keys.end());
    words.insert(words.end(), {scan.cursor, scan.pattern, kRecordLimit_bytes});
    use(scan.db);
    commands_->send(words.size(), words.data(),
                    [this, number](const RedisReply& reply) { page_read(number, reply); });
}

// A page that the server refuses ends the session; the client scans again when it is back.
void RedisClient::page_read(uint64_t number, const RedisReply& reply) {
    if (!is_scan_page(reply)) {
        fail_later(complaint("a scan", reply));
        return;
    }
    Scan& scan = scans_.at(number);
    scan.cursor = reply.elements[0].text;
    const std::vector<RedisReply>& records = reply.elements[1].elements;
    const std::vector<RedisReply>& left = reply.elements[2].elements;
    const std::vector<RedisReply>& too_long = reply.elements[3].elements;
    for (size_t n = 0; n < too_long.size(); n += 2) {
        note_too_long(scan, too_long[n].text, too_long[n + 1].number);
    }
    for (size_t n = 0; n < records.size(); n += 2) {
        listener_.scanned(number, records[n].text, bytes_of(records[n + 1].text));
    }
    if (left.empty() && scan.cursor == "0") {
        end_scan(number);
        return;
    }
    std::vector<std::string_view> keys;
    keys.reserve(left.size());
    for (const RedisReply& key : left) {
        keys.push_back(key.text);
    }
    read_page(number, keys);
}

// Logged once for each key, and again when its size has changed.
void RedisClient::note_too_long(Scan& scan, const std::string& key, long long size) {
    scan.too_long[key] = size;
    long long& logged = too_long_[{scan.db, scan.pattern}].try_emplace(key, -1).first->second;
    if (std::exchange(logged, size) != size) {
        log_message(kLogError, "MOM", "RECORD_TOO_LONG",
                    "Database %u: %s is ignored: its %lld bytes or its key are too long. Delete "
                    "it.",
                    scan.db, visible(key).c_str(), size);
    }
}

void RedisClient::end_scan(uint64_t number) {
    Scan& scan = scans_.at(number);
    too_long_[{scan.db, scan.pattern}] = std::move(scan.too_long);
    scans_.erase(number);
    listener_.scan_done(number);
}

void RedisClient::arm_check() {
    if (!check_ && !check_refused_) {
        check_ = loop_.after(kCheckPeriod, [this] { check_records(); });
    }
}

// Some of the keys are enough, because a server that is emptied loses them all. With nothing to
// check the timer stays off until the next set.
void RedisClient::check_records() {
    const StoreKeys own = listener_.keys_to_check();
    if (own.keys.empty()) {
        return;
    }
    if (!up(own.db)) {
        arm_check();
        return;
    }
    send_waiting();
    use(own.db);
    std::vector<std::string_view> words{"EXISTS"};
    words.insert(words.end(), own.keys.begin(), own.keys.end());
    commands_->send(
        words.size(), words.data(),
        [this, count = own.keys.size()](const RedisReply& reply) { checked(count, reply); });
}

void RedisClient::checked(size_t count, const RedisReply& reply) {
    if (reply.is(Type::kError)) {
        check_refused_ = true;
        log_message(kLogError, "MOM", "CHECK_REFUSED",
                    "The object database at %s refuses EXISTS (%s), so records that it loses "
                    "while it runs are not written again.",
                    server_.socket.c_str(), reply.text.c_str());
        return;
    }
    if (!reply.is(Type::kInteger)) {
        fail_later(complaint("EXISTS", reply));
        return;
    }
    arm_check();
    if (reply.number != static_cast<long long>(count)) {
        listener_.records_lost();
    }
}

}  // namespace

RedisStore::RedisStore(EventLoop& loop, RedisServer server)
    : loop_(loop), server_(std::move(server)) {}

std::unique_ptr<StoreClient> RedisStore::connect(StoreListener& listener) {
    return std::make_unique<RedisClient>(loop_, server_, login_trouble_, listener,
                                         [this](std::function<void()> connect_client) {
                                             if (held_) {
                                                 waiting_.push_back(std::move(connect_client));
                                             } else {
                                                 connect_client();
                                             }
                                         });
}

void RedisStore::hold() {
    held_ = true;
}

void RedisStore::release() {
    held_ = false;
    for (const std::function<void()>& connect_client : std::exchange(waiting_, {})) {
        connect_client();
    }
}

}  // namespace qv
