#include "platform/cli/switch_commands.h"

#include "platform/cli/hostname_command.h"
#include "platform/cli/tarn_commands.h"
#include "platform/cli/tarn_show.h"

namespace qv::cli {

// The order is that of the lines in the running configuration.
void register_switch_commands() {
    register_session_commands();
    register_terminal_commands();
    register_hostname_command();
    register_config_commands();
    register_replace_commands();
    register_port_commands();
    register_interface_commands();
    register_errdisable_commands();
    register_loop_history_command();
    register_what_if_command();
    register_user_commands();
    register_tarn_commands();
    register_show_tarn();
    register_role_command();
    register_debug_commands();
    register_logging_commands();
    register_notification_commands();
    register_tech_support_command();
}

}  // namespace qv::cli
