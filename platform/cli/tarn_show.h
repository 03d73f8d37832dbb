// "show tarn [interface NAME]": what the loop-probe service knows of the ports. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace qv::cli {

struct TarnLoop {
    uint32_t ifx = 0;      // port on which the probe came back
    uint32_t src_ifx = 0;  // port that had sent it
    uint32_t vid = 0;
    uint32_t path_us = 0;
    std::string found_by;
    std::chrono::system_clock::time_point time{};
};

struct TarnPortState {
    std::string state;
    uint32_t vlan_mode = 0;
    uint32_t guard_ms = 0;         // 0: no guard
    std::optional<TarnLoop> loop;  // the latest one
};

// By interface index.
using TarnPortStates = std::map<uint32_t, TarnPortState>;

// Sets the source of the states, for the life of the process: null while no service runs.
// Without a source none runs.
void set_tarn_states(std::function<const TarnPortStates*()> states);

void register_show_tarn();

}  // namespace qv::cli
