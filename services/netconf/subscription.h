// The notifications of one session: listens to the records that the services of the switch publish,
// and turns them into data of the model; before that, on request, those that are kept. Reconnects
// by itself after a loss of the object database; what was published meanwhile is not sent, but can
// be replayed to a new subscription.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "p_nc.pb-c.h"
#include "services/netconf/filter.h"
#include "services/netconf/notification_log.h"
#include "services/netconf/object_db.h"

namespace netconf {

struct Event {
    Tree tree;         // valid
    std::string time;  // RFC 3339
};

// What a session asks for (RFC 5277, section 2.1.1).
struct Replay {
    EventTime from;
    std::optional<EventTime> until;  // when the subscription ends
};

class Subscription {
 public:
    static constexpr size_t kMaxPending = 1000;

    // Connects, subscribes and reads what is to be replayed before it returns. The context must
    // outlive the object. Throws DatabaseLost.
    Subscription(const ly_ctx* context, qv::RedisServer server, Filter filter,
                 const std::optional<Replay>& wanted);

    // Readable: call receive(). -1 while the database is away.
    int fd() const { return listener_ ? listener_->fd() : -1; }
    // Milliseconds until receive() must be called again to reconnect or, when the client can be
    // written to, next() because the end of the subscription may have come; -1 for never.
    int wait_ms(bool writable) const;
    // Takes the notices that have arrived, until it is full; without a connection, reconnects when
    // its pause has passed. Never throws for a lost database.
    void receive();
    // True while kMaxPending records wait for the client. Later ones stay in the connection.
    bool full() const { return records_.size() >= kMaxPending; }
    // The oldest event that passes the filter; nothing when there is none. After the replayed ones
    // comes replayComplete, at the end of the subscription notificationComplete. Records that do
    // not fit the model are logged and dropped. Throws RpcError when the filter takes too much
    // time.
    std::optional<Event> next();
    // True after notificationComplete.
    bool over() const { return over_; }

 private:
    void replay(const Replay& wanted);
    void reconnect();
    void lose(const std::string& reason);
    std::optional<Event> next_of(std::deque<std::string>& records);
    bool not_wanted(const PNc__Notification& record) const;
    Event mark(const char* notification) const;

    const ly_ctx* const context_;
    const qv::RedisServer server_;
    Filter filter_;
    std::unique_ptr<Listener> listener_;  // null while the database is away
    std::deque<std::string> replayed_;    // packed, oldest first
    bool replaying_ = false;              // until replayComplete
    uint64_t last_number_ = 0;            // in the log when it was read
    EventTime last_time_{};               // likewise
    std::optional<EventTime> until_;
    bool over_ = false;
    std::deque<std::string> records_;  // packed, oldest first
    std::chrono::milliseconds backoff_;
    std::chrono::steady_clock::time_point retry_at_;
};

}  // namespace netconf
