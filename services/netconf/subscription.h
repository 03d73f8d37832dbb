// The notifications of one session: listens to the records that the services of the switch publish,
// and turns them into data of the model. Reconnects by itself after a loss of the object database;
// notifications sent meanwhile are lost, because the database keeps no notices.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "services/netconf/filter.h"
#include "services/netconf/object_db.h"

namespace netconf {

struct Event {
    Tree tree;         // valid
    std::string time;  // RFC 3339
};

class Subscription {
 public:
    static constexpr size_t kMaxPending = 1000;

    // Connects and subscribes before it returns. The context must outlive the object. Throws
    // DatabaseLost.
    Subscription(const ly_ctx* context, std::string socket, Filter filter);

    // Readable: call receive(). -1 while the database is away.
    int fd() const { return listener_ ? listener_->fd() : -1; }
    // Milliseconds until receive() must be called again to reconnect; -1 for never.
    int retry_ms() const;
    // Takes the notices that have arrived, until it is full; without a connection, reconnects when
    // retry_ms() has passed. Never throws for a lost database.
    void receive();
    // True while kMaxPending records wait for the client. Later ones stay in the connection.
    bool full() const { return records_.size() >= kMaxPending; }
    // The oldest event that passes the filter; nothing when there is none. Records that do not fit
    // the model are logged and dropped.
    std::optional<Event> next();

 private:
    void reconnect();
    void lose(const std::string& reason);

    const ly_ctx* const context_;
    const std::string socket_;
    const Filter filter_;
    std::unique_ptr<Listener> listener_;  // null while the database is away
    std::deque<std::string> records_;     // packed, oldest first
    std::chrono::milliseconds backoff_;
    std::chrono::steady_clock::time_point retry_at_;
};

}  // namespace netconf
