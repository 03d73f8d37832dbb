// Exec commands "test ..." of the embedded switch: they simulate outside events, from a cable that
// makes a loop to a database that fails.
#pragma once

namespace qv {
class EmbeddedForwarding;
class EmbeddedSwitch;
class MemoryStore;
}  // namespace qv

namespace qv::cli {

// Adds the commands. `ports`, `plane` and `store` must never be destroyed; without a store (null)
// there are no "test database" commands. Call once. Loop thread only.
void register_simulation_commands(EmbeddedSwitch& ports, EmbeddedForwarding& plane,
                                  MemoryStore* store);

}  // namespace qv::cli
