// The data that <get> and <get-config> report.
#pragma once

#include "services/netconf/schema.h"
#include "services/netconf/session.h"

namespace netconf {

// The policy in force; its default when the agent has never published one, or one that the model
// does not have. Throws DatabaseLost.
uint32_t policy_in_force(Database& database);

// Adds the configuration to `tree`; a policy with its default value only with `defaults`. Throws
// DatabaseLost.
void add_configuration(const Session& session, Tree& tree, bool defaults);

// Adds the state: ports in the loop state, event streams, and the server's own state as RFC 6022
// has it. Throws DatabaseLost.
void add_state(const Session& session, Tree& tree);

}  // namespace netconf
