// "configure replace" and "configure confirm".
//
// The file is read with the rights of the user who asks, and checked to its last line, before
// anything changes. Then the difference is executed: missing lines are executed and superfluous
// ones undone. With "confirm MINUTES" a timed return to the previous configuration is armed first.
#include "platform/cli/config_replace.h"

#include <algorithm>
#include <optional>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_check.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/config_lock.h"
#include "platform/cli/config_log.h"
#include "platform/cli/engine.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/timed_return.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

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

// The line that undoes `line`, empty when there is none.
std::string undoing(SessionState& session, const std::string& line) {
    constexpr std::string_view kNo = "no ";
    if (line.starts_with(kNo)) {
        return line.substr(kNo.size());
    }
    const std::string undo = std::string(kNo) + line;
    return parses(session, undo) ? undo : "";
}

bool execute_and_report(SessionState& session, const std::string& line, const std::string& where) {
    const Result result = execute(session, line);
    if (result.code == 0 && result.output.empty()) {
        return true;
    }
    cli_printf("%% %s%s: %s", where.c_str(), line.c_str(),
               result.output.empty() ? "refused\n" : result.output.c_str());
    return false;
}

// Like enter(), but keeps the section when its port does not exist.
bool enter_or_keep(const ConfigSection& section, SessionState& session) {
    if (enter(section.port, session)) {
        return true;
    }
    cli_printf("line %d: interface %s does not exist; its lines wait for it.\n", section.number,
               section.port.c_str());
    config_keeper()->keep_section(section);
    return false;
}

// During a line the driver may report that the port was removed. The session is therefore entered
// again for each line, so that no line runs as a global one.
bool add_missing(const ConfigSection& section, const ConfigSections& current) {
    SessionState session;
    bool done = true;
    const std::vector<ConfigLine> lines = lines_only_in({section}, current, section.port);
    for (auto line = lines.begin(); enter_or_keep(section, session) && line != lines.end();
         ++line) {
        const std::string where = "line " + std::to_string(line->number) + ": ";
        done = execute_and_report(session, line->text, where) && done;
    }
    return done;
}

// Keeps the section that `target` has for a port that does not exist.
void set_absent(const std::string& port, const ConfigSections& target) {
    const auto wanted = std::find_if(target.begin(), target.end(),
                                     [&](const auto& section) { return section.port == port; });
    if (wanted == target.end()) {
        config_keeper()->forget_port(port);
    } else {
        config_keeper()->keep_section(*wanted);
    }
}

bool remove_superfluous(const std::string& port, const ConfigSections& current,
                        const ConfigSections& target) {
    SessionState session;
    bool done = true;
    for (const ConfigLine& line : lines_only_in(current, target, port)) {
        if (!enter(port, session)) {
            break;
        }
        const std::string undo = undoing(session, line.text);
        if (undo.empty()) {
            cli_printf("%% %s: cannot be undone.\n", line.text.c_str());
        }
        done = !undo.empty() && execute_and_report(session, undo, "") && done;
    }
    if (!enter(port, session)) {
        set_absent(port, target);
    }
    return done;
}

// The file's configuration, or nothing when it was refused.
std::optional<ConfigSections> read_target(const std::string& path) {
    const std::optional<Caller>& caller = current_session()->caller;
    std::string reason;
    const std::optional<std::string> text = read_as(caller ? &*caller : nullptr, path, reason);
    if (!text) {
        refuse(path + ": " + reason + ".");
        return {};
    }
    std::string fault;
    ConfigSections sections = check_config(*text, fault);
    if (!fault.empty()) {
        refuse(path + ": " + fault);
        return {};
    }
    return sections;
}

int list(cli_pcdb* pcdb) {
    const std::optional<ConfigSections> target = read_target(pcdb->word[0]);
    if (!target) {
        return 1;
    }
    cli_printf("%s", difference(current_config(), *target).c_str());
    return 0;
}

// Without minutes the replacement is final.
int replace_by(const std::string& path, int64_t minutes) {
    const SessionState& session = *current_session();
    std::string obstacle = config_lock_refusal(session);
    if (obstacle.empty() && return_pending()) {
        obstacle = "The configuration goes back at " + return_due() +
                   " unless 'configure confirm' is typed: it cannot be replaced before.";
    }
    if (!obstacle.empty()) {
        return refuse(obstacle);
    }
    const std::optional<ConfigSections> target = read_target(path);
    if (!target) {
        return 1;
    }
    std::string line = "configure replace " + path;
    if (minutes > 0) {
        line += " confirm " + std::to_string(minutes);
        obstacle = begin_timed_return(minutes);
    }
    if (!obstacle.empty()) {
        return refuse(obstacle);
    }
    const bool done = apply_configuration(*target);
    log_entered(session, line, done ? "" : "some lines refused");
    return done ? 0 : 1;
}

int replace(cli_pcdb* pcdb) {
    return replace_by(pcdb->word[0], 0);
}

int replace_for_now(cli_pcdb* pcdb) {
    return replace_by(pcdb->word[0], pcdb->number[0]);
}

std::string unsafe(const std::string& reason) {
    return "Confirmed, but a restart would still go back: " + reason + ".";
}

int confirm(cli_pcdb*) {
    if (!return_pending()) {
        return refuse("There is nothing to confirm.");
    }
    log_entered(*current_session(), "configure confirm", "");
    if (Completion answer = defer()) {
        cancel_timed_return([answer](const std::string& reason) {
            answer(reason.empty() ? Result{0, ""} : Result{1, "% " + unsafe(reason) + "\n"});
        });
        return 0;
    }
    const std::string reason = cancel_timed_return_here();
    return reason.empty() ? 0 : refuse(unsafe(reason));
}

}  // namespace

bool apply_configuration(const ConfigSections& target) {
    bool done = true;
    const ConfigSections before = current_config();
    for (const ConfigSection& section : target) {
        done = add_missing(section, before) && done;
    }
    // Generated again, because a new line often replaces an old one by itself.
    const ConfigSections after = current_config();
    for (const ConfigSection& section : after) {
        done = remove_superfluous(section.port, after, target) && done;
    }
    return done;
}

void register_replace_commands() {
    const cli_node* minutes = number("Minutes until the configuration before is back", 1,
                                     kMaxReturnMinutes, end_of_line(replace_for_now));
    const cli_node* how = keyword(
        "list", "Show the difference and change nothing", end_of_line(list),
        keyword("confirm", "Go back unless it is confirmed", minutes, end_of_line(replace)));
    const cli_node* ways =
        keyword("replace", "By that of a file, without a restart",
                any_word("FILE", "Path of the file", how),
                keyword("confirm", "Keep the replaced configuration", end_of_line(confirm)));
    attach(kChainExec, keyword("configure", "Change the configuration", ways), "configure replace");
}

}  // namespace qv::cli
