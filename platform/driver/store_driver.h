// The store under the object-database client: sessions with numbered databases, writes with
// change notices, subscriptions and scans. Records are packed bytes here, and keys are the texts of
// docs/object-database.md ("<type>/<field>=<value>,...").
//
// Loop thread only. Reports arrive through the loop, never inside the request that causes them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

using Bytes = std::span<const uint8_t>;

// The first byte of a change notice.
enum class StoreOper : uint8_t { kSet = 0, kDelete = 1, kPublish = 2 };

// Keys of one database.
struct StoreKeys {
    uint32_t db = 0;
    std::vector<std::string> keys;
};

// The receiver of a store's reports. Bytes and texts, valid during the call, come from outside:
// a notice may be empty, its operation unknown, its record damaged.
class StoreListener {
 public:
    virtual ~StoreListener() = default;
    virtual void session_up(uint32_t db) = 0;
    // Subscriptions and scans of the database are dropped; requests fail until it is up again.
    virtual void session_down(uint32_t db) = 0;
    virtual void subscribed(uint64_t subscription) = 0;
    virtual void notice(uint64_t subscription, Bytes notice) = 0;  // operation byte, packed record
    virtual void scanned(uint64_t scan, std::string_view key, Bytes record) = 0;
    virtual void scan_done(uint64_t scan) = 0;

    // For a store that may lose its records without ending a session. Returns up to 64 keys of
    // records that this process has set and not deleted, the next ones with each call; empty when
    // there are none.
    virtual StoreKeys keys_to_check() { return {}; }
    // One of those keys is missing in the store. The listener sets its records again.
    virtual void records_lost() {}
};

// One user of the store. Requests return false when the database's session is not up; otherwise
// they take effect in the order of the calls.
class StoreClient {
 public:
    virtual ~StoreClient() = default;

    // Opens a session with `db` and reopens it after every loss. A second call does nothing.
    virtual void open(uint32_t db) = 0;
    virtual bool up(uint32_t db) const = 0;

    // Stores `record` and notifies the subscribers of `type`, in one step.
    virtual bool set(uint32_t db, std::string_view type, std::string_view key, Bytes record) = 0;
    // The same, but does nothing when the key exists. Not repeated after a loss of the session.
    virtual bool set_missing(uint32_t db, std::string_view type, std::string_view key,
                             Bytes record) = 0;
    // Deletes the key and notifies the subscribers with `record`, also when there was no such key.
    virtual bool erase(uint32_t db, std::string_view type, std::string_view key, Bytes record) = 0;
    // Deletes every key that matches the glob `pattern` and sends a notice for each with its last
    // record.
    virtual bool erase_matching(uint32_t db, std::string_view type, std::string_view pattern) = 0;
    // Notifies the subscribers and stores nothing.
    virtual bool publish(uint32_t db, std::string_view type, Bytes record) = 0;

    // `subscription` and `scan` are numbers that the listener chooses and gets back in reports.
    // There is one subscription for each database and type; a later call replaces its number.
    virtual bool subscribe(uint32_t db, std::string_view type, uint64_t subscription) = 0;
    virtual bool scan(uint32_t db, std::string_view type, uint64_t scan) = 0;
};

class StoreDriver {
 public:
    virtual ~StoreDriver() = default;
    // The listener must outlive the client, the driver both.
    virtual std::unique_ptr<StoreClient> connect(StoreListener& listener) = 0;
};

// The record type in a key: everything before the first slash.
inline std::string_view type_of_key(std::string_view key) {
    return key.substr(0, key.find('/'));
}

}  // namespace qv
