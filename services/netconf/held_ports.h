// The ports that loop detection holds shut, asked from the agent's process over the object
// database.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/netconf/notification_log.h"

namespace netconf {

// A field is empty or 0 when its value is not known.
struct HeldPort {
    std::string name;
    std::vector<std::string> sources;
    std::string other_port;
    uint32_t vlan;
    std::optional<EventTime> since;
    std::optional<EventTime> recovers_at;
    uint32_t shut_last_day;
    bool still_looped;
    std::string rule;
    std::string refused;
};

// In the order of the switch. Empty when no agent listens, and, with a log line, when it does not
// answer within a second. Throws DatabaseLost.
std::vector<HeldPort> held_ports(const qv::RedisServer& server);

}  // namespace netconf
