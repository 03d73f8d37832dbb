// Commands about the configuration as a whole.
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_file.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/local_time.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/running_config.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/timed_return.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

// A configuration with its lines under "global", and under "interfaces" for each port.
Json config_as_json(std::string_view text) {
    Json config{{"global", Json::array()}, {"interfaces", Json::array()}};
    for (const ConfigSection& section : parse_config(text)) {
        Json lines = Json::array();
        for (const ConfigLine& line : section.lines) {
            lines.push_back(line.text);
        }
        if (section.port.empty()) {
            config["global"].insert(config["global"].end(), lines.begin(), lines.end());
        } else {
            config["interfaces"].push_back({{"name", section.port}, {"lines", lines}});
        }
    }
    return config;
}

void print_config_text(const std::string& text) {
    if (json_wanted()) {
        print_json(config_as_json(text));
    } else {
        cli_printf("%s", text.c_str());
    }
}

std::string running_config() {
    return generate_config(ConfigPurpose::kShow) + config_keeper()->absent_ports();
}

int show_running(cli_pcdb*) {
    print_config_text(running_config());
    return 0;
}

// Works for an absent port too while its section is kept.
int show_running_port(cli_pcdb* pcdb) {
    const std::string name = pcdb->word[0];
    for (const ConfigSection& section : parse_config(running_config())) {
        if (section.port == name) {
            print_config_text(section_text(section));
            return 0;
        }
    }
    return refuse("Unknown interface: '" + name + "'.");
}

int show_startup(cli_pcdb*) {
    const std::string& path = config_keeper()->path();
    if (path.empty()) {
        return refuse("No file is set for the saved configuration.");
    }
    const std::optional<std::string> text = read_config_file(path);
    struct stat status {};
    if (!text || ::stat(path.c_str(), &status) != 0) {
        return refuse(path + ": " + std::strerror(errno) + ".");
    }
    const auto saved_at = std::chrono::system_clock::from_time_t(status.st_mtime);
    const std::string& trouble = config_keeper()->saver().trouble();
    const UnsealedConfig saved = unseal_config(*text);
    const std::string& shown = saved.intact ? saved.text : *text;
    if (json_wanted()) {
        Json answer{{"saved", local_time(saved_at)},
                    {"goes_back", return_pending() ? Json(return_due()) : Json()},
                    {"trouble", trouble.empty() ? Json() : Json(trouble)}};
        answer.update(config_as_json(shown));
        print_json(answer);
        return 0;
    }
    cli_printf("! Last saved %s\n", local_time(saved_at).c_str());
    if (return_pending()) {
        cli_printf("! Goes back at %s unless 'configure confirm' is typed\n", return_due().c_str());
    }
    if (!trouble.empty()) {
        cli_printf("! Changes since then cannot be saved: %s\n", trouble.c_str());
    }
    cli_printf("%s", shown.c_str());
    return 0;
}

int write_running(cli_pcdb*) {
    const std::string obstacle = config_keeper()->obstacle();
    if (!obstacle.empty()) {
        return refuse("Not saved: " + obstacle + ".");
    }
    if (Completion answer = defer()) {
        config_keeper()->saver().save([answer](const std::string& reason) {
            answer(reason.empty() ? Result{0, ""} : Result{1, "% Not saved: " + reason + ".\n"});
        });
        return 0;
    }
    const std::string reason = config_keeper()->saver().save_here();
    return reason.empty() ? 0 : refuse("Not saved: " + reason + ".");
}

}  // namespace

void register_config_commands() {
    attach(CLI_CHAIN_SHOW,
           keyword("running-config", "The configuration in force",
                   keyword("interface", "Of one interface",
                           custom(port_name_action, end_of_line(show_running_port)),
                           end_of_line(show_running))),
           "show running-config");
    attach(CLI_CHAIN_SHOW,
           keyword("startup-config", "The saved configuration", end_of_line(show_startup)),
           "show startup-config");
    attach(kChainExec, keyword("write", "Save the configuration", end_of_line(write_running)),
           "write");
}

}  // namespace qv::cli
