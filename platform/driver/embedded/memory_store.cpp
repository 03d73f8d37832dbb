#include "platform/driver/embedded/memory_store.h"

#include <fnmatch.h>

#include <utility>

namespace qv {
namespace {

std::string text_of(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

class MemoryStore::Client final : public StoreClient {
 public:
    Client(MemoryStore& store, StoreListener& listener);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

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

    void disconnect(uint32_t db);
    void reconnect(uint32_t db);
    void deliver(uint32_t db, std::string_view type, const std::string& notice);

 private:
    using Topic = std::pair<uint32_t, std::string>;  // database, type

    // Shared with posted reports, which check here whether they still apply.
    struct State {
        StoreListener* listener;                // null once the client is gone
        std::map<uint32_t, uint64_t> sessions;  // open databases, with a number for each session
    };

    template <typename Report>
    void report(Report call);
    template <typename Report>
    void report_in_session(uint32_t db, Report call);

    MemoryStore& store_;
    std::shared_ptr<State> state_;
    std::map<Topic, uint64_t> subscriptions_;
};

MemoryStore::Client::Client(MemoryStore& store, StoreListener& listener)
    : store_(store), state_(std::make_shared<State>()) {
    state_->listener = &listener;
    store_.clients_.insert(this);
}

MemoryStore::Client::~Client() {
    state_->listener = nullptr;
    store_.clients_.erase(this);
}

template <typename Report>
void MemoryStore::Client::report(Report call) {
    store_.loop_.post([state = state_, call = std::move(call)] {
        if (state->listener != nullptr) {
            call(*state->listener);
        }
    });
}

// The report is dropped when the session is lost before it runs.
template <typename Report>
void MemoryStore::Client::report_in_session(uint32_t db, Report call) {
    report([state = state_.get(), db, session = state_->sessions[db],
            call = std::move(call)](StoreListener& listener) {
        if (state->sessions[db] == session) {
            call(listener);
        }
    });
}

void MemoryStore::Client::open(uint32_t db) {
    const bool first = state_->sessions.emplace(db, 0).second;
    if (first && store_.up(db)) {
        report([db](StoreListener& listener) { listener.session_up(db); });
    }
}

bool MemoryStore::Client::up(uint32_t db) const {
    return state_->sessions.contains(db) && store_.up(db);
}

void MemoryStore::Client::disconnect(uint32_t db) {
    if (!state_->sessions.contains(db)) {
        return;
    }
    state_->sessions[db]++;
    std::erase_if(subscriptions_, [db](const auto& entry) { return entry.first.first == db; });
    report([db](StoreListener& listener) { listener.session_down(db); });
}

void MemoryStore::Client::reconnect(uint32_t db) {
    if (state_->sessions.contains(db)) {
        report([db](StoreListener& listener) { listener.session_up(db); });
    }
}

void MemoryStore::Client::deliver(uint32_t db, std::string_view type, const std::string& notice) {
    const auto found = subscriptions_.find(Topic(db, type));
    if (found == subscriptions_.end()) {
        return;
    }
    report_in_session(db, [number = found->second, notice](StoreListener& listener) {
        listener.notice(number, bytes_of(notice));
    });
}

bool MemoryStore::Client::set(uint32_t db, std::string_view /*type*/, std::string_view key,
                              Bytes record) {
    if (!up(db)) {
        return false;
    }
    store_.put(db, std::string(key), record);
    return true;
}

bool MemoryStore::Client::set_missing(uint32_t db, std::string_view /*type*/, std::string_view key,
                                      Bytes record) {
    if (!up(db)) {
        return false;
    }
    if (!store_.get(db, std::string(key))) {
        store_.put(db, std::string(key), record);
    }
    return true;
}

bool MemoryStore::Client::erase(uint32_t db, std::string_view /*type*/, std::string_view key,
                                Bytes record) {
    if (!up(db)) {
        return false;
    }
    store_.erase(db, std::string(key), record);
    return true;
}

bool MemoryStore::Client::erase_matching(uint32_t db, std::string_view /*type*/,
                                         std::string_view pattern) {
    if (!up(db)) {
        return false;
    }
    store_.erase_matching(db, std::string(pattern));
    return true;
}

bool MemoryStore::Client::publish(uint32_t db, std::string_view type, Bytes record) {
    if (!up(db)) {
        return false;
    }
    store_.publish(db, type, record);
    return true;
}

bool MemoryStore::Client::subscribe(uint32_t db, std::string_view type, uint64_t subscription) {
    if (!up(db)) {
        return false;
    }
    subscriptions_[Topic(db, type)] = subscription;
    report_in_session(
        db, [subscription](StoreListener& listener) { listener.subscribed(subscription); });
    return true;
}

bool MemoryStore::Client::scan(uint32_t db, std::string_view type, uint64_t scan) {
    if (!up(db)) {
        return false;
    }
    for (const auto& stored : store_.databases_[db]) {
        if (type_of_key(stored.first) == type) {
            report_in_session(db, [scan, stored](StoreListener& listener) {
                listener.scanned(scan, stored.first, bytes_of(stored.second));
            });
        }
    }
    report_in_session(db, [scan](StoreListener& listener) { listener.scan_done(scan); });
    return true;
}

MemoryStore::MemoryStore(EventLoop& loop) : loop_(loop) {}
MemoryStore::~MemoryStore() = default;

std::unique_ptr<StoreClient> MemoryStore::connect(StoreListener& listener) {
    return std::make_unique<Client>(*this, listener);
}

void MemoryStore::drop(uint32_t db) {
    if (!dropped_.insert(db).second) {
        return;
    }
    for (Client* client : clients_) {
        client->disconnect(db);
    }
}

void MemoryStore::restore(uint32_t db) {
    if (dropped_.erase(db) == 0) {
        return;
    }
    for (Client* client : clients_) {
        client->reconnect(db);
    }
}

bool MemoryStore::up(uint32_t db) const {
    return !dropped_.contains(db);
}

void MemoryStore::notify(uint32_t db, std::string_view type, Bytes notice) {
    const std::string text = text_of(notice);
    for (Client* client : clients_) {
        client->deliver(db, type, text);
    }
}

void MemoryStore::notify_change(uint32_t db, std::string_view type, StoreOper oper, Bytes record) {
    std::string notice(1, static_cast<char>(oper));
    notice.append(record.begin(), record.end());
    notify(db, type, bytes_of(notice));
}

void MemoryStore::put(uint32_t db, const std::string& key, Bytes record) {
    databases_[db][key] = text_of(record);
    notify_change(db, type_of_key(key), StoreOper::kSet, record);
}

void MemoryStore::erase(uint32_t db, const std::string& key, Bytes record) {
    databases_[db].erase(key);
    notify_change(db, type_of_key(key), StoreOper::kDelete, record);
}

void MemoryStore::publish(uint32_t db, std::string_view type, Bytes record) {
    notify_change(db, type, StoreOper::kPublish, record);
}

void MemoryStore::erase_matching(uint32_t db, const std::string& pattern) {
    for (const std::string& key : keys(db, pattern)) {
        const std::string record = databases_[db][key];
        erase(db, key, bytes_of(record));
    }
}

std::optional<std::string> MemoryStore::get(uint32_t db, const std::string& key) const {
    const auto database = databases_.find(db);
    if (database == databases_.end()) {
        return std::nullopt;
    }
    const auto record = database->second.find(key);
    return record == database->second.end() ? std::nullopt : std::optional(record->second);
}

std::vector<std::string> MemoryStore::keys(uint32_t db, const std::string& pattern) const {
    std::vector<std::string> matching;
    const auto database = databases_.find(db);
    if (database == databases_.end()) {
        return matching;
    }
    for (const auto& [key, record] : database->second) {
        if (fnmatch(pattern.c_str(), key.c_str(), 0) == 0) {
            matching.push_back(key);
        }
    }
    return matching;
}

}  // namespace qv
