// The agent, reached through its records in the object database.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "services/netconf/object_db.h"

namespace netconf {

struct LoopedPort {
    std::string name;
    uint32_t policy;
    bool src_port;
};

// The current policy, from the agent's record in the configuration database; nothing when there is
// no record. Throws DatabaseLost.
std::optional<uint32_t> published_policy(Database& database);

// The ports in the loop state, by name. Records that do not unpack are logged and skipped. Throws
// DatabaseLost.
std::vector<LoopedPort> looped_ports(Database& database);

// The kind of a request, by its number in the record.
enum class PolicyRequest : int32_t { kSet = 2, kDelete = 3, kRemove = 4 };

// The agent did not execute the request; the message says why, and whether it may still do so.
struct RequestFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Asks the agent to apply `policy` and waits for its answer, 2 s at most and not beyond `deadline`.
// Returns when the agent confirms it. Throws RequestFailed, or DatabaseLost when nothing was
// written. Without an agent nothing is written.
void request_policy(const qv::RedisServer& server, PolicyRequest request, uint32_t policy,
                    Deadline deadline = Deadline::max());

}  // namespace netconf
