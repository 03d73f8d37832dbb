// The object store of the embedded switch: in memory, with controls that play other programs and a
// server that fails. Loop thread only.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/driver/store_driver.h"

namespace qv {

class MemoryStore final : public StoreDriver {
 public:
    explicit MemoryStore(EventLoop& loop);
    ~MemoryStore() override;
    MemoryStore(const MemoryStore&) = delete;
    MemoryStore& operator=(const MemoryStore&) = delete;

    std::unique_ptr<StoreClient> connect(StoreListener& listener) override;

    // Ends the sessions with `db`: subscriptions and scans are dropped, requests fail. The records
    // stay. restore() opens the sessions again.
    void drop(uint32_t db);
    void restore(uint32_t db);
    bool up(uint32_t db) const;

    // Writes as another program, even while the sessions are lost.
    void put(uint32_t db, const std::string& key, Bytes record);
    void erase(uint32_t db, const std::string& key, Bytes record);
    void publish(uint32_t db, std::string_view type, Bytes record);
    void erase_matching(uint32_t db, const std::string& pattern);
    // Sends a change notice, valid or not.
    void notify(uint32_t db, std::string_view type, Bytes notice);

    // The stored record, packed, and the stored keys that match a glob, ascending.
    std::optional<std::string> get(uint32_t db, const std::string& key) const;
    std::vector<std::string> keys(uint32_t db, const std::string& pattern = "*") const;

 private:
    class Client;

    void notify_change(uint32_t db, std::string_view type, StoreOper oper, Bytes record);

    EventLoop& loop_;
    std::map<uint32_t, std::map<std::string, std::string>> databases_;
    std::set<uint32_t> dropped_;
    std::set<Client*> clients_;
};

}  // namespace qv
