// A small peer protocol for the embedded switch: finds the loops that its cables make.
//
// A loop on a port where probing is enabled is reported at once when its cable is plugged,
// kInterval after one of its ports came up again, and every kInterval from then on. One more report
// follows when the loop ends or probing is disabled. A port with a guard is first probed for the
// guard's time, both when it is plugged and when it comes up.
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
    bool periodic = false;  // found by a periodic probe, not by one at link-up

    bool operator==(const LoopReport&) const = default;
};

// Loop thread only.
class LoopProbe {
 public:
    static constexpr std::chrono::seconds kInterval{5};

    struct Rules {
        std::function<bool(uint32_t ifx)> enabled;  // probing is enabled on this port
        // Returns which of the two ports reports their loop; 0: both do.
        std::function<uint32_t(uint32_t ifx, uint32_t peer)> choose;
        std::function<Duration(uint32_t ifx)> guard;  // zero: none
        std::function<void(uint32_t ifx)>
            guard_changed;  // the guard of this port has begun or ended
    };
    // Publishes a report. Returns false when that is not possible now: it is tried again later.
    using Publish = std::function<bool(const LoopReport& report)>;

    // Becomes the wiring listener of `ports`. Both `ports` and the loop must outlive the probe.
    LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Rules rules, Publish publish);

    // Whether a guard blocks the port now.
    bool guarded(uint32_t ifx) const;

 private:
    // A port's cable, kept until it is unplugged and the end of its loop is published.
    struct Cable {
        uint32_t peer = 0;      // as reported
        bool reported = false;  // a loop has been reported
        bool guarded = false;   // the timer is the guard's
        bool periodic = false;  // the timer is not the first since the port came up
        EventLoop::Handle timer;
    };

    void wiring_changed(uint32_t ifx);
    void probe(uint32_t ifx);
    void set_guarded(uint32_t ifx, Cable& cable, bool guarded);
    void arm(uint32_t ifx, Cable& cable, Duration delay);
    void report_end(uint32_t ifx, Cable& cable);

    EventLoop& loop_;
    EmbeddedSwitch& ports_;
    Rules rules_;
    Publish publish_;
    std::map<uint32_t, Cable> cables_;  // by port
};

}  // namespace qv
