// Configuration of the peer protocol: "tarn ..." lines of the switch and of its ports. Kept here
// for the service that runs the protocol. Loop thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/base/tarn_limits.h"

namespace qv::cli {

struct TarnPort {
    bool loop_detect = false;
    int64_t guard_ms = 0;         // 0: no guard at link-up
    std::vector<uint16_t> vlans;  // probed beside the untagged frames, ascending

    bool operator==(const TarnPort&) const = default;
};

struct TarnConfig {
    bool enabled = false;
    int64_t error_recover_interval_s = 0;  // 0: not configured
    int64_t probe_interval_ms = kDefaultProbeInterval_ms;
    bool cut_one = false;  // of two ports of this switch in one loop, report only one
    int64_t priority = kDefaultTarnPriority;  // the switch with the lowest number cuts a loop
    std::string fabric_key;                   // path of the shared key; empty: a key of its own
    std::map<uint64_t, TarnPort> ports;       // by interface index; ports without a line are not in
};

const TarnConfig& tarn_config();
// The settings of a port; the defaults when it has no lines.
const TarnPort& tarn_port(uint64_t ifx);

bool tarn_enabled();
bool tarn_port_enabled(uint64_t ifx);

// Called after every change: of this port's lines, or of the switch's when `ifx` is 0.
using TarnObserver = std::function<void(uint64_t ifx)>;
// The observer is called until the process ends.
void add_tarn_observer(TarnObserver observer);
// Calls the observers: something else in the record of this port has changed.
void announce_tarn_port(uint32_t ifx);

// Call when a port is gone or back at its defaults.
void tarn_forget_port(uint64_t ifx);

void register_tarn_commands();

}  // namespace qv::cli
