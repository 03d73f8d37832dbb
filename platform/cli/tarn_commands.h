// Configuration of the peer protocol: "tarn enable", "tarn error-recover interval N", "tarn
// probe-interval N" and, on a port, "tarn port loop-detect warning". Kept here for whatever runs
// the protocol. Loop thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <set>

namespace qv::cli {

inline constexpr int64_t kDefaultProbeInterval_ms = 1000;

struct TarnConfig {
    bool enabled = false;
    int64_t error_recover_interval_s = 0;  // 0: not configured
    int64_t probe_interval_ms = kDefaultProbeInterval_ms;
    std::set<uint64_t> ports;  // interface indexes with loop detection
};

const TarnConfig& tarn_config();
bool tarn_enabled();
bool tarn_port_enabled(uint64_t ifx);

// `observer` is called after every change, for the life of the process.
void add_tarn_observer(std::function<void()> observer);

// Takes the lines of a port back: it was set to its defaults, or it is gone.
void tarn_forget_port(uint64_t ifx);

void register_tarn_commands();

}  // namespace qv::cli
