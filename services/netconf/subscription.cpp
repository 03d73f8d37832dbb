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
// meanwhile, and retry_ms() gives the session's poll() its time limit. Records received before the
// loss stay and are sent.
#include "services/netconf/subscription.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "p_nc.pb-c.h"
#include "services/netconf/log.h"

namespace netconf {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kNotificationType = "p_nc.notification";
constexpr milliseconds kFirstBackoff = 100ms;
constexpr milliseconds kLongestBackoff = 5s;
constexpr uint8_t kPublished = 2;
constexpr int kSigned = 8;  // type codes of the record
constexpr int kUnsigned = 20;

struct FreeRecord {
    void operator()(PNc__Notification* record) const {
        p_nc__notification__free_unpacked(record, nullptr);
    }
};
using Record = std::unique_ptr<PNc__Notification, FreeRecord>;

std::string rfc3339(uint64_t time_ms) {
    const auto seconds = static_cast<time_t>(time_ms / 1000);
    tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 48> text;
    const size_t length = strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text.data() + length, text.size() - length, ".%03uZ",
             static_cast<unsigned>(time_ms % 1000));
    return text.data();
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

// Throws std::runtime_error when the record does not fit the model.
Event event_of(const ly_ctx* context, const std::string& packed) {
    const Record record(p_nc__notification__unpack(
        nullptr, packed.size(), reinterpret_cast<const uint8_t*>(packed.data())));
    if (!record || record->n_leaves == 0) {
        throw std::runtime_error("does not unpack");
    }
    Event event{.tree = nullptr, .time = rfc3339(record->time_ms)};
    const std::string start = "/" + std::string(record->name) + "/";
    for (size_t n = 0; n < record->n_leaves; n++) {
        const PNc__NotificationLeaf& leaf = *record->leaves[n];
        const std::string path = leaf.path;
        if (!path.starts_with(start)) {
            throw std::runtime_error("\"" + path + "\" is not of " + record->name);
        }
        add_node(context, event.tree, path, value_of(leaf));
    }
    if (event.tree->schema->nodetype != LYS_NOTIF) {
        throw std::runtime_error(std::string(record->name) + " is not a notification");
    }
    if (lyd_validate_op(event.tree.get(), nullptr, LYD_TYPE_NOTIF_YANG, nullptr) != LY_SUCCESS) {
        throw std::runtime_error(ly_errmsg(context));
    }
    return event;
}

}  // namespace

Subscription::Subscription(const ly_ctx* context, std::string socket, Filter filter)
    : context_(context),
      socket_(std::move(socket)),
      filter_(std::move(filter)),
      listener_(std::make_unique<Listener>(socket_, kLocalDatabase, kNotificationType)),
      backoff_(kFirstBackoff) {}

int Subscription::retry_ms() const {
    if (listener_) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(retry_at_ - steady_clock::now());
    return static_cast<int>(std::max(left, 0ms).count());
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
        listener_ = std::make_unique<Listener>(socket_, kLocalDatabase, kNotificationType);
        log_line(LOG_INFO, "notifications continue, the object database is back");
    } catch (const DatabaseLost&) {
        backoff_ = std::min(backoff_ * 2, kLongestBackoff);  // the reason is logged already
        retry_at_ = steady_clock::now() + backoff_;
    }
}

std::optional<Event> Subscription::next() {
    for (;;) {
        if (records_.empty() && listener_) {
            receive();  // the rest of a burst may have arrived while its start was sent
        }
        if (records_.empty()) {
            return std::nullopt;
        }
        const std::string packed = std::move(records_.front());
        records_.pop_front();
        try {
            Event event = event_of(context_, packed);
            if (filter_.matches(event.tree.get())) {
                return event;
            }
        } catch (const std::exception& error) {
            log_line(LOG_WARNING, "an invalid notification of the switch is dropped: %s",
                     error.what());
        }
    }
}

}  // namespace netconf
