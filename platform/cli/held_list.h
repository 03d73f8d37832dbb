// The ports that loop detection holds shut now, as "show errdisable" and NETCONF show them. Loop
// thread only.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/cli/held_ports.h"

namespace qv::cli {

// A field is empty when its value is not known.
struct HeldPort {
    std::string name;
    LoopFacts facts;
    std::optional<WallTime> since;
    std::optional<Time> recovery_due;  // at the latest; also empty when a rule keeps it for ever
    size_t shut_last_day = 0;          // how often
    bool still_looped = false;         // as the probe protocol says
    std::string rule;                  // of recovery_rules.h, as its line says
    std::string refused;               // why the last recovery was refused
};

// By interface index.
std::vector<HeldPort> ports_held_shut();

// Empty also with a clock that does not move by itself.
std::optional<WallTime> wall_time_of(std::optional<Time> time);

}  // namespace qv::cli
