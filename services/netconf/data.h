// The data that <get> and <get-config> report.
#pragma once

#include "services/netconf/schema.h"
#include "services/netconf/session.h"

namespace netconf {

// The current policy; the default when the agent has published none, or one unknown to the model.
// Throws DatabaseLost.
uint32_t policy_in_force(Database& database);

// Adds the configuration to `tree`; a policy with its default value only with `defaults`. Throws
// DatabaseLost.
void add_configuration(const Session& session, Tree& tree, bool defaults);

// Adds the state: ports in the loop state, event streams, and the server's own state as in RFC
// 6022. Throws DatabaseLost.
void add_state(const Session& session, Tree& tree);

}  // namespace netconf
