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

// The policy in force, from the record that the agent keeps of it in the configuration database;
// nothing when it has never kept one. Throws DatabaseLost.
std::optional<uint32_t> published_policy(Database& database);

// The ports in the loop state, by name. Records that do not unpack are logged and left out. Throws
// DatabaseLost.
std::vector<LoopedPort> looped_ports(Database& database);

// The kind of a request. The number travels in the record.
enum class PolicyRequest : int32_t { kSet = 2, kDelete = 3, kRemove = 4 };

// The agent did not do what was asked; the message says why, and whether it may still do it.
struct RequestFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Asks the agent to put `policy` in force and waits for its answer, 2 s at most. Returns when the
// agent says that it is done. Throws RequestFailed or DatabaseLost. When no agent is there, nothing
// is written at all.
void request_policy(const std::string& socket, PolicyRequest request, uint32_t policy);

}  // namespace netconf
