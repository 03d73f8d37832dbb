#include "platform/cli/config_target.h"

#include <algorithm>
#include <set>

#include "platform/cli/blanks.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/port_sections.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

// Three times what a switch of 4096 ports needs. Every line takes some of the loop's time, and the
// loop must also watch the ports.
constexpr size_t kMaxCommands = 131072;

std::string at_line(int number, std::string_view reason) {
    return "line " + std::to_string(number) + ": " + std::string(reason);
}

// Empties comment lines, which would end a section. A "!" alone does end one.
std::string without_comments(std::string_view text, std::string& fault) {
    std::string kept;
    bool ended = false;
    for (int number = 1; !text.empty() && fault.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const bool comment = line.size() > 1 && line.front() == '!';
        if (ended && !line.empty() && line.front() != '!') {
            fault = at_line(number, "Nothing but comments may follow the line 'end'.");
        }
        ended = ended || line == "end";
        kept.append(comment ? std::string_view{} : line).append("\n");
    }
    if (fault.empty() && !ended) {
        fault = "The line 'end' is missing: the file is not whole.";
    }
    return kept;
}

ConfigSection& section_for(ConfigSections& sections, const ConfigSection& like) {
    const auto found = std::find_if(sections.begin(), sections.end(),
                                    [&](const auto& known) { return known.port == like.port; });
    return found != sections.end()
               ? *found
               : sections.emplace_back(ConfigSection{like.port, like.number, {}});
}

ConfigSections merged(const std::vector<ConfigSection>& cut) {
    ConfigSections sections(1);
    for (const ConfigSection& section : cut) {
        ConfigSection& known = section_for(sections, section);
        known.lines.insert(known.lines.end(), section.lines.begin(), section.lines.end());
    }
    return sections;
}

// The reason when a file has more lines or ports than can be applied, else empty.
std::string limit_fault(const std::vector<ConfigSection>& cut) {
    size_t commands = 0;
    std::set<std::string_view> absent;
    for (const ConfigSection& section : cut) {
        commands += section.lines.size();
        if (commands > kMaxCommands) {
            return "It has more than " + std::to_string(kMaxCommands) + " commands.";
        }
        if (!section.port.empty() && !platform().ports().find(section.port)) {
            absent.insert(section.port);
        }
        if (absent.size() > PortSections::kMaxKept) {
            return at_line(section.number, "More than " + std::to_string(PortSections::kMaxKept) +
                                               " interfaces that do not exist.");
        }
    }
    return {};
}

// A session in which the lines of a section can be parsed.
SessionState session_of(const ConfigSection& section) {
    SessionState session;
    session.mode = kModeConfig;
    if (!section.port.empty()) {
        const Port* const port = platform().ports().find(section.port);
        // An absent port may be of any type.
        session.mode = port ? kModeInterface : kModeRange;
        session.ifx = port ? port->ifx : 0;
    }
    return session;
}

bool has_text(const std::vector<ConfigLine>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const ConfigLine& line) { return line.text == text; });
}

const std::vector<ConfigLine>& lines_of(const ConfigSections& sections, const std::string& port) {
    static const std::vector<ConfigLine> kNone;
    const auto found = std::find_if(sections.begin(), sections.end(),
                                    [&](const auto& section) { return section.port == port; });
    return found == sections.end() ? kNone : found->lines;
}

std::string difference_of(const ConfigSections& current, const ConfigSections& target,
                          const std::string& port) {
    std::string text;
    for (const ConfigLine& line : lines_only_in(current, target, port)) {
        text += "- " + line.text + "\n";
    }
    for (const ConfigLine& line : lines_only_in(target, current, port)) {
        text += "+ " + line.text + "\n";
    }
    return text.empty() || port.empty() ? text : "interface " + port + "\n" + text;
}

}  // namespace

ConfigSections check_config(std::string_view text, std::string& fault) {
    const std::string kept = without_comments(text, fault);
    const std::vector<ConfigSection> cut = parse_config(kept);
    fault = fault.empty() ? limit_fault(cut) : fault;
    if (!fault.empty()) {
        return {};
    }
    const SessionState global = session_of({});
    ConfigSections checked(1);
    for (const ConfigSection& section : cut) {
        const SessionState session = session_of(section);
        bool ended = section.port.empty();
        ConfigSection* into = &section_for(checked, section);
        for (const ConfigLine& line : section.lines) {
            ConfigCommand command = parse_config_command(ended ? global : session, line.text);
            // A global line may follow a section that nothing has ended.
            if (!ended && !command.error.empty()) {
                const ConfigCommand other = parse_config_command(global, line.text);
                ended = other.error.empty();
                command = ended ? other : command;
                into = ended ? &checked.front() : into;
            }
            if (!command.error.empty()) {
                fault = at_line(line.number, std::string_view(command.error).substr(2));
                return {};
            }
            into->lines.push_back({line.number, command.text});
        }
    }
    return checked;
}

ConfigSections current_config() {
    return merged(
        parse_config(generate_config(ConfigPurpose::kSave) + config_keeper()->absent_ports()));
}

std::vector<ConfigLine> lines_only_in(const ConfigSections& these, const ConfigSections& others,
                                      const std::string& port) {
    std::vector<ConfigLine> found;
    const std::vector<ConfigLine>& known = lines_of(others, port);
    for (const ConfigLine& line : lines_of(these, port)) {
        if (!has_text(known, line.text)) {
            found.push_back(line);
        }
    }
    return found;
}

std::string difference(const ConfigSections& current, const ConfigSections& target) {
    std::string text;
    for (const ConfigSection& section : current) {
        text += difference_of(current, target, section.port);
    }
    for (const ConfigSection& section : target) {
        const bool done = std::any_of(current.begin(), current.end(), [&](const auto& known) {
            return known.port == section.port;
        });
        text += done ? "" : difference_of(current, target, section.port);
    }
    return text;
}

}  // namespace qv::cli
