// "configure replace": the difference between two configurations, executed line by line.
#include <algorithm>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/engine.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

bool has_line(const std::vector<ConfigSection>& sections, const std::string& port,
              const std::string& text) {
    return std::any_of(sections.begin(), sections.end(), [&](const ConfigSection& section) {
        return section.port == port &&
               std::any_of(section.lines.begin(), section.lines.end(),
                           [&](const ConfigLine& line) { return line.text == text; });
    });
}

// The session in which the lines of a section run; false when its port does not exist.
bool enter(const std::string& port, SessionState& session) {
    session.mode = kModeConfig;
    if (port.empty()) {
        return true;
    }
    const Port* found = platform().ports().find(port);
    if (found) {
        session.mode = kModeInterface;
        session.ifx = found->ifx;
    }
    return found != nullptr;
}

// The line that takes `line` back: with "no" in front and as many of its words as are taken.
// Empty when there is none.
std::string undoing(SessionState& session, const std::string& line) {
    constexpr std::string_view kNo = "no ";
    if (line.starts_with(kNo)) {
        return line.substr(kNo.size());
    }
    std::string undo = "no " + line;
    while (!parses(session, undo)) {
        undo.erase(std::min(undo.find_last_of(' '), undo.size()));
        if (undo.size() <= kNo.size()) {
            return {};
        }
    }
    return undo;
}

bool execute_or_tell(SessionState& session, const std::string& line, const std::string& where) {
    const Result result = execute(session, line);
    if (result.code == 0 && result.output.empty()) {
        return true;
    }
    cli_printf("%% %s%s: %s", where.c_str(), line.c_str(),
               result.output.empty() ? "refused\n" : result.output.c_str());
    return false;
}

bool add_missing(const ConfigSection& section, const std::vector<ConfigSection>& current) {
    SessionState session;
    if (!enter(section.port, session)) {
        cli_printf("%% line %d: interface %s does not exist.\n", section.number,
                   section.port.c_str());
        return false;
    }
    bool done = true;
    for (const ConfigLine& line : section.lines) {
        if (!has_line(current, section.port, line.text)) {
            const std::string where = "line " + std::to_string(line.number) + ": ";
            done = execute_or_tell(session, line.text, where) && done;
        }
    }
    return done;
}

bool remove_superfluous(const ConfigSection& section, const std::vector<ConfigSection>& target) {
    SessionState session;
    if (!enter(section.port, session)) {
        return true;
    }
    bool done = true;
    for (const ConfigLine& line : section.lines) {
        if (has_line(target, section.port, line.text)) {
            continue;
        }
        const std::string undo = undoing(session, line.text);
        if (undo.empty()) {
            cli_printf("%% %s: cannot be taken back.\n", line.text.c_str());
        }
        done = !undo.empty() && execute_or_tell(session, undo, "") && done;
    }
    return done;
}

}  // namespace

int replace_config(std::string_view text) {
    const std::vector<ConfigSection> target = parse_config(text);
    bool done = true;
    const auto before = parse_config(generate_config(ConfigPurpose::kSave));
    for (const ConfigSection& section : target) {
        done = add_missing(section, before) && done;
    }
    // Generated again: a new line often takes an old one's place by itself.
    for (const ConfigSection& section : parse_config(generate_config(ConfigPurpose::kSave))) {
        done = remove_superfluous(section, target) && done;
    }
    return done ? 0 : 1;
}

}  // namespace qv::cli
