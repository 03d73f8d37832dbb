// The switch's own commands, by theme. Each function adds its trees, once. Loop thread only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct cli_walk;
struct cli_node;

namespace qv::cli {

// All of them.
void register_switch_commands();

void register_session_commands();       // enable, configure ..., interface, exit, end
void register_terminal_commands();      // terminal ...
void register_config_commands();        // write, show running-config, show startup-config
void register_replace_commands();       // configure replace, configure confirm
void register_port_commands();          // shutdown, switchport mode, default interface
void register_interface_commands();     // show interfaces ...
void register_errdisable_commands();    // show errdisable ..., clear errdisable ...
void register_loop_history_command();   // show loop-detect history
void register_what_if_command();        // show loop-detect what-if
void register_user_commands();          // show users, show history
void register_role_command();           // show role
void register_debug_commands();         // debug NAME, show debugging, show version
void register_logging_commands();       // show logging, clear logging
void register_notification_commands();  // show notifications
void register_tech_support_command();   // show tech-support

// Action of a slot for a port's name: takes any word into word slot 0, offers the names there are.
void port_name_action(cli_walk* walk, const cli_node* node);

}  // namespace qv::cli
