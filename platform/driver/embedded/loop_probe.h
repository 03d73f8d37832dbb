// A small peer protocol for the embedded switch: finds the loops that its cables make.
//
// A loop on a port where probing is enabled is reported at once when its cable is plugged,
// kInterval after one of its ports came up again, and every kInterval from then on. One more report
// follows when the loop ends or probing is disabled.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "platform/base/event_loop.h"
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

    using Enabled = std::function<bool(uint32_t ifx)>;  // probing is enabled on this port
    // Publishes a report. False when that is not possible now: then it is tried again later.
    using Publish = std::function<bool(const LoopReport& report)>;

    // Takes the wiring listener of `ports`, which must outlive the probe, as must the loop.
    LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Enabled enabled, Publish publish);

 private:
    // A port's cable. It is kept until it is unplugged and the end of its loop is published.
    struct Cable {
        uint32_t peer = 0;      // as reported
        bool reported = false;  // a loop is on record
        EventLoop::Handle timer;
    };

    void wiring_changed(uint32_t ifx);
    void probe(uint32_t ifx);
    void arm(uint32_t ifx, Cable& cable, Duration delay);
    void report_end(uint32_t ifx, Cable& cable);

    EventLoop& loop_;
    EmbeddedSwitch& ports_;
    Enabled enabled_;
    Publish publish_;
    std::map<uint32_t, Cable> cables_;  // by port
};

}  // namespace qv
