// Commands about the configuration as a whole.
#include <cerrno>
#include <cstring>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_file.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/running_config.h"
#include "platform/cli/switch_commands.h"

namespace qv::cli {
namespace {

int show_running(cli_pcdb*) {
    cli_printf("%s", generate_config(ConfigPurpose::kShow).c_str());
    return 0;
}

int show_startup(cli_pcdb*) {
    const std::string& path = config_keeper()->path();
    if (path.empty()) {
        return refuse("No file is set for the saved configuration.");
    }
    const std::optional<std::string> text = read_config_file(path);
    if (!text) {
        return refuse(path + ": " + std::strerror(errno) + ".");
    }
    cli_printf("%s", text->c_str());
    return 0;
}

int write_running(cli_pcdb*) {
    const std::string reason = config_keeper()->save();
    return reason.empty() ? 0 : refuse("Not saved: " + reason + ".");
}

int replace(cli_pcdb* pcdb) {
    const std::string path = pcdb->word[0];
    const std::optional<std::string> text = read_config_file(path);
    if (!text) {
        return refuse(path + ": " + std::strerror(errno) + ".");
    }
    return replace_config(*text);
}

}  // namespace

void register_config_commands() {
    attach(CLI_CHAIN_SHOW,
           keyword("running-config", "The configuration in force", end_of_line(show_running)),
           "show running-config");
    attach(CLI_CHAIN_SHOW,
           keyword("startup-config", "The saved configuration", end_of_line(show_startup)),
           "show startup-config");
    attach(kChainExec, keyword("write", "Save the configuration", end_of_line(write_running)),
           "write");
    attach(kChainExec,
           keyword("configure", "Change the configuration",
                   keyword("replace", "By that of a file, without a restart",
                           rest_of_line("FILE", "Path of the file", end_of_line(replace)))),
           "configure replace");
}

}  // namespace qv::cli
