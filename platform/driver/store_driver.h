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
    // Subscriptions and scans of the database are forgotten; requests fail until it is up again.
    virtual void session_down(uint32_t db) = 0;
    virtual void subscribed(uint64_t subscription) = 0;
    virtual void notice(uint64_t subscription, Bytes notice) = 0;  // operation byte, packed record
    virtual void scanned(uint64_t scan, std::string_view key, Bytes record) = 0;
    virtual void scan_done(uint64_t scan) = 0;

    // For a store that may lose its records without ending a session: some of the keys that should
    // be there because this listener's program has set them, others with each call, 64 at most.
    // Empty when there are none.
    virtual StoreKeys keys_to_check() { return {}; }
    // A key of those is missing. The listener sets again what should be there.
    virtual void records_lost() {}
};

// One user of the store. Requests answer false when the database's session is not up; otherwise
// they take effect in the order of the calls.
class StoreClient {
 public:
    virtual ~StoreClient() = default;

    // Keeps a session with `db` from now on, coming back after every loss. Opening twice is one.
    virtual void open(uint32_t db) = 0;
    virtual bool up(uint32_t db) const = 0;

    // Stores `record` and tells the subscribers of `type`, in one step.
    virtual bool set(uint32_t db, std::string_view type, std::string_view key, Bytes record) = 0;
    // The same, unless the key exists; then it does nothing. Not repeated after a loss.
    virtual bool set_missing(uint32_t db, std::string_view type, std::string_view key,
                             Bytes record) = 0;
    // Deletes and tells the subscribers, also when there was no such key; `record` is the notice's.
    virtual bool erase(uint32_t db, std::string_view type, std::string_view key, Bytes record) = 0;
    // Deletes every key that matches the glob `pattern` and tells of each with its last record.
    virtual bool erase_matching(uint32_t db, std::string_view type, std::string_view pattern) = 0;
    // Tells the subscribers and stores nothing.
    virtual bool publish(uint32_t db, std::string_view type, Bytes record) = 0;

    // `subscription` and `scan` are the listener's numbers for what is reported. One subscription
    // for each database and type: a later one takes the place of an earlier one.
    virtual bool subscribe(uint32_t db, std::string_view type, uint64_t subscription) = 0;
    virtual bool scan(uint32_t db, std::string_view type, uint64_t scan) = 0;
};

class StoreDriver {
 public:
    virtual ~StoreDriver() = default;
    // The listener must outlive the client, the driver both.
    virtual std::unique_ptr<StoreClient> connect(StoreListener& listener) = 0;
};

// The text by which a notice names its type, in a key: everything before the first slash.
inline std::string_view type_of_key(std::string_view key) {
    return key.substr(0, key.find('/'));
}

}  // namespace qv
