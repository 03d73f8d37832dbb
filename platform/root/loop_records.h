// Records about loops, for the switch's own knowledge of the ports that loop detection has shut
// (platform/cli/held_ports.h): the reports of the probe protocol, and the agent's entries for ports
// in the loop state.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/driver/store_driver.h"

namespace qv {

// Follows the records from its creation on. Lives as long as the process, one for each process.
// Loop thread only.
//
// The entries are set by this process, so they are known at once and without the database. The
// reports are read from the store itself and not by a client of qv/mom.h: the agent's client reads
// them too, and a damaged one is to be logged once.
class LoopRecords final : public StoreListener {
 public:
    explicit LoopRecords(StoreDriver& store);

    // Call when this process has deleted a record.
    void erased(uint32_t db, const std::string& key);

    void session_up(uint32_t db) override;
    void session_down(uint32_t) override {}
    void subscribed(uint64_t subscription) override;
    void notice(uint64_t subscription, Bytes notice) override;
    void scanned(uint64_t scan, std::string_view key, Bytes record) override;
    void scan_done(uint64_t) override;

 private:
    void added(uint32_t db, const std::string& key, const std::vector<uint8_t>& packed);
    void take(Bytes record, StoreOper oper, bool from_scan);

    std::map<std::string, std::string> entries_;  // port in the loop state, by key of its entry
    bool scanning_ = false;
    std::set<uint32_t> changed_;  // ports with a report that is newer than the running scan's
    std::unique_ptr<StoreClient> client_;
};

}  // namespace qv
