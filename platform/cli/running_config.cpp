#include "platform/cli/running_config.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/walk.h"
#include "platform/client/platform.h"
#include "qv/cli.h"
#include "qv/lsm.h"

namespace qv::cli {
namespace {

int (*g_interface_hook)(cli_pcdb* pcdb) = nullptr;

// Set while a configuration is generated: the text of all of it, or the lines of one section, which
// go first.
std::string* g_text = nullptr;
std::vector<ConfigLine>* g_lines = nullptr;

// The framework's own interface sections, for a process without an interface hook.
void generate_interfaces(cli_pcdb& pcdb) {
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (port.flags & LSM_IF_FLAG_HIDDEN) {
            continue;
        }
        c2p_printf(&pcdb, 0, "interface %s", port.name.c_str());
        pcdb.ifx = ifx;
        cli_change_mode(&pcdb, kModeInterface);
        cli_walkthrought_node(cli_get_mode_root(kModeInterface), &pcdb);
        cli_change_mode(&pcdb, kModeConfig);
        c2p_printf(&pcdb, 0, "!");
    }
}

// The section that a walk through the trees of a mode prints.
ConfigSection walk_mode(const char* mode, uint32_t ifx) {
    ConfigSection section;
    std::vector<ConfigLine>* const before = std::exchange(g_lines, &section.lines);
    cli_pcdb pcdb{};
    pcdb.flags = CLI_FLAG_C2P;
    cli_change_mode(&pcdb, mode);
    pcdb.ifx = ifx;
    cli_walkthrought_node(cli_get_mode_root(mode), &pcdb);
    g_lines = before;
    return section;
}

void add_line(std::vector<ConfigLine>& lines, const std::string& line) {
    const size_t start = line.find_first_not_of(' ');
    if (start != std::string::npos && line[start] != '!') {
        lines.push_back({0, line.substr(start, line.find_last_not_of(' ') + 1 - start)});
    }
}

}  // namespace

ConfigSection generate_global() {
    return walk_mode(kModeConfig, 0);
}

ConfigSection generate_section(const Port& port) {
    ConfigSection section;
    if (!(port.flags & LSM_IF_FLAG_HIDDEN)) {
        section = walk_mode(kModeInterface, port.ifx);
    }
    section.port = port.name;
    return section;
}

std::string section_text(const ConfigSection& section) {
    const bool global = section.port.empty();
    std::string text;
    if (!global) {
        text.append("interface ").append(section.port).append("\n");
    }
    for (const ConfigLine& line : section.lines) {
        text.append(global ? "" : " ").append(line.text).append("\n");
    }
    text.append(global ? "" : "!\n");
    return text;
}

std::string generate_config(ConfigPurpose purpose) {
    std::string text;
    std::string* const before = std::exchange(g_text, &text);
    std::vector<ConfigLine>* const lines_before = std::exchange(g_lines, nullptr);
    cli_pcdb pcdb{};
    pcdb.flags = purpose == ConfigPurpose::kShow ? CLI_FLAG_SHOW_RUN : CLI_FLAG_C2P;
    cli_change_mode(&pcdb, kModeConfig);
    cli_walkthrought_node(cli_get_mode_root(kModeConfig), &pcdb);
    if (g_interface_hook) {
        g_interface_hook(&pcdb);
    } else {
        generate_interfaces(pcdb);
    }
    g_text = before;
    g_lines = lines_before;
    return text;
}

}  // namespace qv::cli

extern "C" {

void cli_interface_show_run_hook(int (*hook)(cli_pcdb* pcdb)) {
    qv::cli::g_interface_hook = hook;
}

void c2p_printf(cli_pcdb* pcdb, int indentation, const char* format, ...) {
    if (!qv::cli::g_text && !qv::cli::g_lines) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    std::string line = qv::cli::formatted(format, arguments);
    va_end(arguments);
    line.erase(line.find_last_not_of("\r\n") + 1);
    if (qv::cli::g_lines) {
        qv::cli::add_line(*qv::cli::g_lines, line);
        return;
    }
    const bool global = std::strcmp(pcdb->mode, qv::cli::kModeConfig) == 0;
    qv::cli::g_text->append(static_cast<size_t>(global ? 0 : std::max(indentation, 0)), ' ');
    qv::cli::g_text->append(line);
    qv::cli::g_text->push_back('\n');
}

void cli_change_mode(cli_pcdb* pcdb, const char* mode) {
    std::snprintf(pcdb->mode, sizeof pcdb->mode, "%s", mode);
    // Outside the interface modes a context is about no port.
    if (std::strcmp(mode, qv::cli::kModeInterface) != 0 &&
        std::strcmp(mode, qv::cli::kModeRange) != 0) {
        pcdb->ifx = 0;
    }
}

int cli_walkthrought_node(const cli_node* root, cli_pcdb* pcdb) {
    if (!root || !(pcdb->flags & CLI_FLAGS_GENERATING)) {
        return -1;
    }
    cli_walk walk(cli_walk::Purpose::kGenerate, pcdb);
    walk.visit(root);
    return 0;
}

}  // extern "C"
