#include "platform/cli/running_config.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/guarded.h"
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

// A line of the configuration being generated is missing, for lack of memory. The handlers in
// between cannot pass an exception on, so this is checked at the end of the walk.
bool g_incomplete = false;

// While it exists, generated lines go to its destination.
class Destination {
 public:
    Destination(std::string* text, std::vector<ConfigLine>* lines)
        : text_(std::exchange(g_text, text)),
          lines_(std::exchange(g_lines, lines)),
          incomplete_(std::exchange(g_incomplete, false)) {}
    ~Destination() {
        g_text = text_;
        g_lines = lines_;
        g_incomplete = incomplete_;
    }
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    // A part of the configuration must not pass for all of it.
    static void check() {
        if (g_incomplete) {
            throw std::bad_alloc();
        }
    }

 private:
    std::string* const text_;
    std::vector<ConfigLine>* const lines_;
    const bool incomplete_;
};

void add_line(std::vector<ConfigLine>& lines, const std::string& line) {
    const size_t start = line.find_first_not_of(' ');
    if (start != std::string::npos && line[start] != '!') {
        lines.push_back({0, line.substr(start, line.find_last_not_of(' ') + 1 - start)});
    }
}

void print_line(const cli_pcdb& pcdb, int indentation, std::string line) {
    line.erase(line.find_last_not_of("\r\n") + 1);
    if (g_lines) {
        add_line(*g_lines, line);
        return;
    }
    const bool global = std::strcmp(pcdb.mode, kModeConfig) == 0;
    g_text->append(static_cast<size_t>(global ? 0 : std::max(indentation, 0)), ' ');
    g_text->append(line);
    g_text->push_back('\n');
}

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
    const Destination destination(g_text, &section.lines);
    cli_pcdb pcdb{};
    pcdb.flags = CLI_FLAG_C2P;
    cli_change_mode(&pcdb, mode);
    pcdb.ifx = ifx;
    cli_walkthrought_node(cli_get_mode_root(mode), &pcdb);
    Destination::check();
    return section;
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
    const Destination destination(&text, nullptr);
    cli_pcdb pcdb{};
    pcdb.flags = purpose == ConfigPurpose::kShow ? CLI_FLAG_SHOW_RUN : CLI_FLAG_C2P;
    cli_change_mode(&pcdb, kModeConfig);
    cli_walkthrought_node(cli_get_mode_root(kModeConfig), &pcdb);
    if (g_interface_hook) {
        g_interface_hook(&pcdb);
    } else {
        generate_interfaces(pcdb);
    }
    Destination::check();
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
    qv::cli::g_incomplete |= !qv::guarded(false, [&] {
        qv::cli::print_line(*pcdb, indentation, qv::cli::formatted(format, arguments));
        return true;
    });
    va_end(arguments);
}

void cli_change_mode(cli_pcdb* pcdb, const char* mode) {
    std::snprintf(pcdb->mode, sizeof pcdb->mode, "%s", mode);
    // Outside the interface modes a context has no port.
    if (std::strcmp(mode, qv::cli::kModeInterface) != 0 &&
        std::strcmp(mode, qv::cli::kModeRange) != 0) {
        pcdb->ifx = 0;
    }
}

int cli_walkthrought_node(const cli_node* root, cli_pcdb* pcdb) {
    if (!root || !(pcdb->flags & CLI_FLAGS_GENERATING)) {
        return -1;
    }
    const int result = qv::guarded(-1, [&] {
        cli_walk walk(cli_walk::Purpose::kGenerate, pcdb);
        walk.visit(root);
        return 0;
    });
    qv::cli::g_incomplete |= result != 0;
    return result;
}

}  // extern "C"
