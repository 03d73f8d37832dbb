// Exec command "show notifications".
#pragma once

namespace qv {

// Adds the command under CLI_CHAIN_SHOW. Call once when the command line starts, with the switch's
// own commands. Loop thread only.
void register_notification_commands();

}  // namespace qv
