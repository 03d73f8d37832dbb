// The answers to clients of the control socket, as JSON. Any thread.
#pragma once

#include <cstdint>
#include <optional>

#include <nlohmann/json.hpp>

#include "services/tarnd/status_board.h"

namespace qv::tarnd {

using Json = nlohmann::ordered_json;

Json port_json(uint32_t ifx, const PortStatus& status);
// An event of BoardEvent's kinds but kState, kAsked and kReturned; those give null.
Json event_json(const BoardEvent& event);
// A member for each counter, by the name of its field in the record.
Json counters_json(const PBridge__TarnCounters& counters);

}  // namespace qv::tarnd
