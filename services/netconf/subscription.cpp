// A record passes three stages: the connection to the database, `records_` (packed, at most
// kMaxPending), and next(), which unpacks it, checks it against the model and the filter, and hands
// it to the session. It is unpacked late on purpose: a client that does not read makes this process
// keep bytes, not trees.
//
// receive() and next() are called by the session's loop (session.cpp). It polls fd() only while
// there is room in `records_`; beyond that the records wait in the socket, then in the server,
// which closes the connection when its own limit is reached.
//
// `listener_` is null while the database is away. lose() drops it, with a log line, and reconnect()
// makes a new one after 100 ms, then 200 ms, up to 5 s, without a line for each attempt. fd() is -1
// meanwhile, and wait_ms() gives the session's poll() its time limit. Records received before the
// loss stay and are sent.
//
// A replay subscribes first and reads the kept notifications afterwards, because the services keep
// a notification before they publish it: each one is among the kept ones, among the notices or in
// both, and its number tells that it was in both.
#include "services/netconf/subscription.h"

#include <syslog.h>

#include <algorithm>
#include <utility>

#include "services/netconf/log.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kNotificationType = "p_nc.notification";
constexpr milliseconds kFirstBackoff = 100ms;
constexpr milliseconds kLongestBackoff = 5s;
constexpr milliseconds kLongestWait = 60s;  // the clock may be set
constexpr uint8_t kPublished = 2;
constexpr int kSigned = 8;  // type codes of the record
constexpr int kUnsigned = 20;

struct FreeRecord {
    void operator()(PNc__Notification* record) const {
        p_nc__notification__free_unpacked(record, nullptr);
    }
};
using Record = std::unique_ptr<PNc__Notification, FreeRecord>;

EventTime time_of(const PNc__Notification& record) {
    return EventTime(milliseconds(record.time_ms));
}

EventTime now() {
    return std::chrono::floor<milliseconds>(std::chrono::system_clock::now());
}

uint64_t sequence_of(const PNc__Notification& record) {
    return record.index != nullptr ? record.index->sequence : 0;
}

std::string value_of(const PNc__NotificationLeaf& leaf) {
    switch (leaf.type) {
        case kSigned:
            return std::to_string(static_cast<int32_t>(leaf.value));
        case kUnsigned:
            return std::to_string(leaf.value);
    }
    throw std::runtime_error("unknown type code " + std::to_string(leaf.type));
}

// Throws std::runtime_error.
Record unpack(const std::string& packed) {
    Record record(p_nc__notification__unpack(nullptr, packed.size(),
                                             reinterpret_cast<const uint8_t*>(packed.data())));
    if (!record || record->n_leaves == 0) {
        throw std::runtime_error("does not unpack");
    }
    return record;
}

// Throws std::runtime_error when the record does not fit the model.
Event event_of(const ly_ctx* context, const PNc__Notification& record) {
    Event event{.tree = nullptr, .time = rfc3339(time_of(record))};
    const std::string start = "/" + std::string(record.name) + "/";
    for (size_t n = 0; n < record.n_leaves; n++) {
        const PNc__NotificationLeaf& leaf = *record.leaves[n];
        const std::string path = leaf.path;
        if (!path.starts_with(start)) {
            throw std::runtime_error("\"" + path + "\" is not of " + record.name);
        }
        add_node(context, event.tree, path, value_of(leaf));
    }
    if (const uint64_t sequence = sequence_of(record)) {
        add_node(context, event.tree, start + "sequence", std::to_string(sequence));
    }
    if (event.tree->schema->nodetype != LYS_NOTIF) {
        throw std::runtime_error(std::string(record.name) + " is not a notification");
    }
    if (lyd_validate_op(event.tree.get(), nullptr, LYD_TYPE_NOTIF_YANG, nullptr) != LY_SUCCESS) {
        throw std::runtime_error(ly_errmsg(context));
    }
    return event;
}

}  // namespace

Subscription::Subscription(const ly_ctx* context, qv::RedisServer server, Filter filter,
                           const std::optional<Replay>& wanted)
    : context_(context),
      server_(std::move(server)),
      filter_(std::move(filter)),
      listener_(std::make_unique<Listener>(server_, kLocalDatabase, kNotificationType)),
      backoff_(kFirstBackoff) {
    if (wanted) {
        replay(*wanted);
    }
}

void Subscription::replay(const Replay& wanted) {
    replaying_ = true;
    until_ = wanted.until;
    Database database(server_);
    for (KeptNotification& kept : kept_notifications(database)) {
        last_number_ = kept.sequence;
        last_time_ = std::max(last_time_, kept.time);
        if (kept.time >= wanted.from && (!until_ || kept.time <= *until_)) {
            replayed_.push_back(std::move(kept.record));
        }
    }
}

int Subscription::wait_ms(bool writable) const {
    std::optional<milliseconds> left;
    if (!listener_) {
        left = std::chrono::ceil<milliseconds>(retry_at_ - steady_clock::now());
    }
    if (until_ && writable) {
        left = std::min({left.value_or(kLongestWait), kLongestWait, *until_ - now() + 1ms});
    }
    return left ? static_cast<int>(std::max(*left, 0ms).count()) : -1;
}

void Subscription::receive() {
    if (!listener_) {
        reconnect();
        return;
    }
    try {
        while (!full()) {
            auto notice = listener_->next();
            if (!notice) {
                break;
            }
            if (notice->operation == kPublished) {  // notifications are published, never stored
                records_.push_back(std::move(notice->record));
            }
        }
    } catch (const DatabaseLost& lost) {
        lose(lost.what());
    }
}

void Subscription::lose(const std::string& reason) {
    log_line(LOG_WARNING, "notifications pause, the object database is away: %s", reason.c_str());
    listener_.reset();
    backoff_ = kFirstBackoff;
    retry_at_ = steady_clock::now() + backoff_;
}

void Subscription::reconnect() {
    if (steady_clock::now() < retry_at_) {
        return;
    }
    try {
        listener_ = std::make_unique<Listener>(server_, kLocalDatabase, kNotificationType);
        log_line(LOG_INFO, "notifications continue, the object database is back");
    } catch (const DatabaseLost&) {
        backoff_ = std::min(backoff_ * 2, kLongestBackoff);  // the reason is logged already
        retry_at_ = steady_clock::now() + backoff_;
    }
}

std::optional<Event> Subscription::next() {
    if (replaying_) {
        if (auto event = next_of(replayed_)) {
            return event;
        }
        replaying_ = false;
        return mark("replayComplete");
    }
    if (records_.empty() && listener_) {
        receive();  // the rest of a burst may have arrived while its start was sent
    }
    if (auto event = next_of(records_)) {
        return event;
    }
    if (until_ && now() > *until_) {
        over_ = true;
        return mark("notificationComplete");
    }
    return std::nullopt;
}

// The first of these records that the session is to get.
std::optional<Event> Subscription::next_of(std::deque<std::string>& records) {
    while (!records.empty()) {
        const std::string packed = std::move(records.front());
        records.pop_front();
        try {
            const Record record = unpack(packed);
            if (!replaying_ && not_wanted(*record)) {
                continue;
            }
            Event event = event_of(context_, *record);
            if (filter_.matches(event.tree.get())) {
                return event;
            }
        } catch (const RpcError&) {  // of the filter, and the next notification would meet it too
            throw;
        } catch (const std::exception& error) {
            log_line(LOG_WARNING, "an invalid notification of the switch is dropped: %s",
                     error.what());
        }
    }
    return std::nullopt;
}

// Whether a live notification has been replayed, or comes after the end. The numbers begin again
// when the database has lost the log; the time tells such a notification from a replayed one.
bool Subscription::not_wanted(const PNc__Notification& record) const {
    const EventTime time = time_of(record);
    const bool replayed = sequence_of(record) <= last_number_ && time <= last_time_;
    return replayed || (until_ && time > *until_);
}

// An event of the protocol, which no filter holds back (RFC 5277, section 2.1.1).
Event Subscription::mark(const char* notification) const {
    Event event{.tree = nullptr, .time = rfc3339(now())};
    add_node(context_, event.tree, std::string("/nc-notifications:") + notification);
    return event;
}

}  // namespace netconf
