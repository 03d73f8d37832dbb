// The board as records of the object database: one p_bridge.tarn_port_state for each port of the
// bridge, and p_bridge.tarn_counters. Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "platform/base/event_loop.h"
#include "services/tarnd/status_board.h"

struct qv_mom_client;

namespace qv::tarnd {

// Lives as long as the process, one for each process.
class StatusRecords {
 public:
    // Records are written once in this time at most, when something has changed.
    static constexpr std::chrono::seconds kPause{1};

    // Everything must outlive the records.
    StatusRecords(EventLoop& loop, StatusBoard& board,
                  std::function<PBridge__TarnCounters()> counters);

    // A record that is in the database: one of a port that is not on the board is deleted.
    void take(const PBridge__TarnPortState& record);

 private:
    void connected();
    void write();
    bool write_port(uint32_t ifx) const;
    void write_counters();

    EventLoop& loop_;
    StatusBoard& board_;
    const std::function<PBridge__TarnCounters()> counters_;
    qv_mom_client* const client_;
    std::set<uint32_t> changed_;    // ports whose record may not be as the board says
    std::string counters_written_;  // packed; empty: not written yet
    EventLoop::Handle timer_;
};

}  // namespace qv::tarnd
