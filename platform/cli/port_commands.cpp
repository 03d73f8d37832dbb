// Commands that configure ports: shutdown, VLAN mode, defaults.
#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/recovery_rules.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/loop_metrics.h"
#include "platform/client/platform.h"
#include "qv/bridge.h"

namespace qv::cli {
namespace {

const Port* port_of(const cli_pcdb* pcdb) {
    return platform().ports().find(static_cast<uint32_t>(pcdb->ifx));
}

// Prints nothing when done: the output of a configuration command is its refusal.
int answer(const std::string& reason) {
    return reason.empty() ? 0 : refuse(reason);
}

int set_shutdown(cli_pcdb* pcdb) {
    const bool up = (pcdb->prefix & (CLI_PREFIX_NO | CLI_PREFIX_DEFAULT)) != 0;
    const bool by_program = current_session()->program;
    const Port* const port = port_of(pcdb);
    const bool changes = port && port->admin_up != up;
    const auto ifx = static_cast<uint32_t>(pcdb->ifx);
    if (const std::string wait = by_program && up && port ? refuse_recovery(*port) : "";
        !wait.empty()) {
        return refuse(wait);
    }
    const std::string reason = config_keeper()->set_admin(ifx, up, by_program);
    if (by_program && reason.empty()) {
        count_admin_line(ifx, up, changes);
    } else if (by_program) {
        count_refused_admin_line(up);
    }
    return answer(reason);
}

int print_shutdown(cli_pcdb* pcdb) {
    const Port* port = port_of(pcdb);
    if (port && !port->admin_up) {
        c2p_printf(pcdb, 1, "shutdown");
    }
    return 0;
}

template <uint32_t mode>
int set_mode(cli_pcdb* pcdb) {
    const bool back = (pcdb->prefix & (CLI_PREFIX_NO | CLI_PREFIX_DEFAULT)) != 0;
    return answer(platform().ports().set_mode(static_cast<uint32_t>(pcdb->ifx),
                                              back ? SWPORT_MODE_ACCESS : mode));
}

int print_mode(cli_pcdb* pcdb) {
    const Port* port = port_of(pcdb);
    if (port && port->mode == SWPORT_MODE_TRUNK) {
        c2p_printf(pcdb, 1, "switchport mode trunk");
    }
    if (port && port->mode == SWPORT_MODE_HYBRID) {
        c2p_printf(pcdb, 1, "switchport mode hybrid");
    }
    return 0;
}

int restore_defaults(cli_pcdb* pcdb) {
    PortModel& ports = platform().ports();
    const Port* port = ports.find(std::string_view(pcdb->word[0]));
    if (!port && config_keeper()->forget_port(pcdb->word[0])) {
        return 0;
    }
    if (!port) {
        return refuse("Unknown interface: '" + std::string(pcdb->word[0]) + "'.");
    }
    const uint32_t ifx = port->ifx;
    tarn_forget_port(ifx);
    forget_recovery_rule(ifx);
    std::string reason;
    if (port->mode == SWPORT_MODE_TRUNK || port->mode == SWPORT_MODE_HYBRID) {
        reason = ports.set_mode(ifx, SWPORT_MODE_ACCESS);
    }
    port = ports.find(ifx);
    if (reason.empty() && port && !port->admin_up) {
        reason = config_keeper()->set_admin(ifx, true, false);
    }
    ports.restore_defaults(ifx);
    return answer(reason);
}

const cli_node* end_of_mode_tree() {
    const cli_node* modes =
        keyword("access", "One untagged VLAN", end_of_line(set_mode<SWPORT_MODE_ACCESS>),
                keyword("trunk", "Tagged VLANs", end_of_line(set_mode<SWPORT_MODE_TRUNK>),
                        keyword("hybrid", "Tagged and untagged VLANs",
                                end_of_line(set_mode<SWPORT_MODE_HYBRID>))));
    const cli_node* back = end_of_line(set_mode<SWPORT_MODE_ACCESS>);
    return with_no(back, with_default(back, modes));
}

}  // namespace

void register_port_commands() {
    const cli_node* shut = end_of_line(set_shutdown);
    attach(CLI_CHAIN_INTERFACE,
           keyword("switchport", "Switching",
                   keyword("mode", "VLAN mode of the interface",
                           print_config(print_mode, end_of_mode_tree()))),
           "switchport mode");
    attach(CLI_CHAIN_INTERFACE,
           keyword("shutdown", "Take the interface out of service",
                   print_config(print_shutdown, with_no(shut, with_default(shut, shut)))),
           "shutdown");
    register_recovery_rules();
    attach(CLI_CHAIN_CONFIG,
           with_default(keyword("interface", "Back to the defaults",
                                custom(port_name_action, end_of_line(restore_defaults))),
                        nullptr),
           "default interface");
}

}  // namespace qv::cli
