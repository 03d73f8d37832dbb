// A small peer protocol for the embedded switch: finds the loops that its cables make.
//
// While probing is in force on a port whose cable closes a loop, the loop is reported when it
// closes and every kInterval after that; when the loop ends, or probing does, one report says so.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "platform/client/event_loop.h"
#include "platform/driver/embedded/embedded_switch.h"

namespace qv {

struct LoopReport {
    uint32_t ifx;      // the reporting port
    uint32_t src_ifx;  // the other end of its cable
    bool is_loop;

    bool operator==(const LoopReport&) const = default;
};

// Loop thread only.
class LoopProbe {
 public:
    static constexpr std::chrono::seconds kInterval{5};

    using Enabled = std::function<bool(uint32_t ifx)>;  // probing is in force on this port
    using Publish = std::function<void(const LoopReport& report)>;

    // Takes the wiring listener of `ports`, which must outlive the probe, as must the loop.
    LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Enabled enabled, Publish publish);

 private:
    void wiring_changed();
    void probe();
    void end_reports(const std::function<bool(uint32_t ifx, uint32_t peer)>& over);

    EventLoop& loop_;
    EmbeddedSwitch& ports_;
    Enabled enabled_;
    Publish publish_;
    std::map<uint32_t, uint32_t> reported_;  // looping port to the other end
    EventLoop::Handle timer_;                // runs while a cable is plugged
    bool running_ = false;
};

}  // namespace qv
