// The last notifications of the switch, as its services keep them in the object database for
// replay.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/netconf/object_db.h"

namespace netconf {

using EventTime = std::chrono::sys_time<std::chrono::milliseconds>;

// RFC 3339, with milliseconds, in UTC.
std::string rfc3339(EventTime time);

struct KeptNotification {
    uint64_t sequence;
    EventTime time;
    std::string record;  // packed p_nc.notification
};

struct LogState {
    EventTime created;
    std::optional<EventTime> aged;  // time of the last notification that is no longer kept
};

// Nothing when no service keeps a log. Throws DatabaseLost, like the function below.
std::optional<LogState> log_state(Database& database);

// By sequence. Records that do not unpack are logged and left out.
std::vector<KeptNotification> kept_notifications(Database& database);

}  // namespace netconf
