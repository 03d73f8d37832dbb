// The numbers of the NETCONF notifications and the log of the last ones, from which NETCONF
// sessions replay them. The log is in the local database: one record for each of
// kKeptNotifications slots, and one about the log (proto/p_nc.proto). Loop thread only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "p_nc.pb-c.h"
#include "platform/client/notification_ring.h"
#include "platform/driver/store_driver.h"

struct qv_mom_client;

namespace qv {

inline constexpr size_t kKeptNotifications = 1000;

class NotificationLog {
 public:
    // `client` owns the record about the log; `store` is its store and must outlive the log.
    NotificationLog(const qv_mom_client* client, StoreClient& store)
        : client_(client), store_(store) {}

    // Gives the notification its number, keeps it and publishes it. While the log is being read, it
    // waits for the end of that. 0, or ENOTCONN: no session, the notification is lost. Throws
    // std::bad_alloc.
    int send(const SentNotification& notification);

    // The rest is for the implementation of qv/mom.h.

    // Reads what is in the database, by two scans with these numbers: its session has begun, or it
    // has lost records.
    void read(uint64_t log_scan, uint64_t kept_scan);
    void session_down() { state_ = State::kAway; }
    // Reports of scans; those of other scans are ignored.
    void scanned(uint64_t scan, Bytes record);
    void scan_done(uint64_t scan);

 private:
    enum class State { kAway, kReading, kReady };

    void note_log(Bytes record);
    void note_kept(Bytes record);
    int publish(const SentNotification& notification);
    bool keep(PNc__Notification& record);
    void write_log();

    const qv_mom_client* const client_;
    StoreClient& store_;
    State state_ = State::kAway;
    uint64_t log_scan_ = 0;
    uint64_t kept_scan_ = 0;
    std::deque<SentNotification> waiting_;  // until the log has been read
    uint64_t sequence_ = 0;                 // the last number in use
    uint64_t created_ms_ = 0;               // since 1970, like the others; 0: there is no log
    uint64_t aged_ms_ = 0;                  // of the last notification that left the log
    std::array<uint64_t, kKeptNotifications> times_ms_{};  // of the kept ones, by slot; 0: empty
};

// The log of a client.
NotificationLog& notification_log(qv_mom_client& client);

}  // namespace qv
