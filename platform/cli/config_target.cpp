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

using Faults = std::vector<ConfigFault>;

// Empties comment lines, which would end a section. A "!" alone does end one. Stops after the end
// of the configuration.
std::string without_comments(std::string_view text, Faults& faults) {
    std::string kept;
    bool ended = false;
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const bool comment = line.size() > 1 && line.front() == '!';
        if (ended && !line.empty() && line.front() != '!') {
            faults.push_back({number, "Nothing but comments may follow the line 'end'."});
            return kept;
        }
        ended = ended || line == "end";
        kept.append(comment ? std::string_view{} : line).append("\n");
    }
    if (!ended) {
        faults.push_back({0, "The line 'end' is missing: the file is not whole."});
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

// Reports more lines or ports than can be applied. Returns false when the lines are too many to be
// checked.
bool within_limits(const std::vector<ConfigSection>& cut, Faults& faults) {
    size_t commands = 0;
    std::set<std::string_view> absent;
    for (const ConfigSection& section : cut) {
        commands += section.lines.size();
        if (commands > kMaxCommands) {
            faults.push_back(
                {0, "It has more than " + std::to_string(kMaxCommands) + " commands."});
            return false;
        }
        if (!section.port.empty() && !platform().ports().find(section.port)) {
            absent.insert(section.port);
        }
        if (absent.size() > PortSections::kMaxKept) {
            faults.push_back({section.number, "More than " +
                                                  std::to_string(PortSections::kMaxKept) +
                                                  " interfaces that do not exist."});
            return false;
        }
    }
    return true;
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

// Checks the lines until `limit` faults are known. Returns those that are commands, with keywords
// in full.
ConfigSections check_lines(const std::vector<ConfigSection>& cut, size_t limit, Faults& faults) {
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
            if (command.error.empty()) {
                into->lines.push_back({line.number, command.text});
                continue;
            }
            faults.push_back({line.number, command.error.substr(2)});
            if (faults.size() >= limit) {
                return checked;
            }
        }
    }
    return checked;
}

// Checks a whole text. At least one fault is looked for.
ConfigSections check(std::string_view text, size_t limit, Faults& faults) {
    if (text.find('\0') != std::string_view::npos) {
        faults.push_back({0, "It is a binary file."});
        return {};
    }
    const std::vector<ConfigSection> cut = parse_config(without_comments(text, faults));
    const bool checkable = within_limits(cut, faults);
    return checkable && faults.size() < limit ? check_lines(cut, limit, faults) : ConfigSections{};
}

}  // namespace

ConfigSections check_config(std::string_view text, std::string& fault) {
    Faults faults;
    ConfigSections checked = check(text, 1, faults);
    if (faults.empty()) {
        return checked;
    }
    const ConfigFault& first = faults.front();
    fault = first.line != 0 ? at_line(first.line, first.reason) : first.reason;
    return {};
}

std::vector<ConfigFault> find_faults(std::string_view text, size_t limit) {
    Faults faults;
    check(text, limit, faults);
    std::stable_sort(faults.begin(), faults.end(),
                     [](const auto& one, const auto& other) { return one.line < other.line; });
    return faults;
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
