// The simulated switch's part of the loop-probe service: its records, as tarnd writes them, from
// what the stand-in of the simulated switch finds. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>

#include "p_bridge.pb-c.h"
#include "platform/base/event_loop.h"
#include "platform/client/port_model.h"
#include "platform/driver/embedded/loop_probe.h"

struct qv_mom_client;

namespace qv {

// Lives as long as the process.
class SimulatedTarn final : public PortObserver {
 public:
    // Records are written at most once in this time, and only after a change.
    static constexpr std::chrono::seconds kPause{1};

    // Everything must outlive it.
    SimulatedTarn(EventLoop& loop, PortModel& ports);

    // The rules for the stand-in's probes, from the commands of the switch.
    LoopProbe::Rules rules();
    // Publishes a report, as the probe protocol does. Returns false when that is not possible now.
    bool publish(const LoopReport& report);
    // `guarded` tells whether a guard holds a port.
    void follow(std::function<bool(uint32_t ifx)> guarded) { guarded_ = std::move(guarded); }

    void on_added(const Port& port) override { changed(port.ifx); }
    void on_removed(const Port& port) override;
    void on_changed(const Port&, const Port& after) override { changed(after.ifx); }
    void on_default(const Port& port) override { changed(port.ifx); }
    void on_left_bridge(const Port&) override {}
    void on_complete() override {}

 private:
    uint32_t choose(uint32_t ifx, uint32_t peer) const;
    bool is_looped(uint32_t ifx) const;
    PBridge__TarnState state_of(const Port& port) const;
    void note_loop(const LoopReport& report);
    void changed(uint32_t ifx);
    void all_changed();
    void write();
    bool write_port(uint32_t ifx) const;

    EventLoop& loop_;
    PortModel& ports_;
    qv_mom_client* const client_;
    std::function<bool(uint32_t ifx)> guarded_ = [](uint32_t) {
        return false;
    };
    std::map<uint32_t, uint32_t> loops_;          // reporting port and the sender of the probe
    std::map<uint32_t, PBridge__TarnLoop> seen_;  // the latest loop of each port
    PBridge__TarnCounters counters_ = P_BRIDGE__TARN_COUNTERS__INIT;
    std::set<uint32_t> changed_;
    Time written_{};  // when records were written last
    EventLoop::Handle timer_;
};

}  // namespace qv
