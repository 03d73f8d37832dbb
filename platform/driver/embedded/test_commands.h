// Exec commands "test ..." of the embedded switch: they play what happens around it, from a cable
// that makes a loop to a database that goes away.
#pragma once

namespace qv {
class EmbeddedForwarding;
class EmbeddedSwitch;
class MemoryStore;
}  // namespace qv

namespace qv::cli {

// Adds the commands. `ports` and `plane` must live for ever, `store` too; without a store (null)
// there are no "test database" commands. Call once. Loop thread only.
void register_test_commands(EmbeddedSwitch& ports, EmbeddedForwarding& plane, MemoryStore* store);

}  // namespace qv::cli
