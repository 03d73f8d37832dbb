#include "platform/cli/engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "platform/base/guarded.h"
#include "platform/base/visible.h"
#include "platform/cli/blanks.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/config_lock.h"
#include "platform/cli/config_log.h"
#include "platform/cli/fault_seam.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/hostname_command.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/port_sections.h"
#include "platform/cli/typed_line.h"
#include "platform/cli/walk.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

struct DeferredAnswer {
    Completion answer;   // empty once it was called
    std::string output;  // printed before the handler returned
};

// The current command. Commands nest when a handler executes a line of its own.
struct Running {
    SessionState* session;
    std::string* output;
    const char* wrong = nullptr;               // where the line stops being a command
    Completion* answer;                        // null when the answer cannot be deferred
    std::shared_ptr<DeferredAnswer> deferred;  // owns `output` once the answer is deferred
};
Running* g_running = nullptr;

class RunningScope {
 public:
    RunningScope(SessionState& session, std::string& output, Completion* answer = nullptr)
        : running_{&session, &output, nullptr, answer, nullptr}, before_(g_running) {
        g_running = &running_;
    }
    ~RunningScope() { g_running = before_; }
    RunningScope(const RunningScope&) = delete;
    RunningScope& operator=(const RunningScope&) = delete;
    const Running& running() const { return running_; }

 private:
    Running running_;
    Running* before_;
};

bool has_control_byte(std::string_view line) {
    return !is_visible(line, "\t");
}

void remember_line(SessionState& session, std::string_view line) {
    if (!session.caller) {
        return;
    }
    session.history.emplace_back(line);
    if (session.history.size() > kHistoryLines) {
        session.history.pop_front();
    }
}

std::string squeezed(std::string_view line) {
    std::string text;
    for (const char c : line) {
        const bool blank = kBlanks.find(c) != std::string_view::npos;
        if (!blank) {
            text += c;
        } else if (!text.empty() && text.back() != ' ') {
            text += ' ';
        }
    }
    return text;
}

bool port_exists(uint64_t ifx) {
    return platform().ports().find(static_cast<uint32_t>(ifx)) != nullptr;
}

std::string port_name(uint64_t ifx) {
    const Port* port = platform().ports().find(static_cast<uint32_t>(ifx));
    return port ? port->name : std::to_string(ifx);
}

// A port may be removed while a session is in its mode: the session falls back to mode config.
bool session_ports_exist(SessionState& session) {
    if (session.mode == kModeInterface && !port_exists(session.ifx)) {
        session.mode = kModeConfig;
        return false;
    }
    if (session.mode == kModeRange) {
        std::erase_if(session.range, [](uint64_t ifx) { return !port_exists(ifx); });
        if (session.range.empty()) {
            session.mode = kModeConfig;
            return false;
        }
    }
    return true;
}

// Whether a member of a range accepts the line.
bool applies_to(uint64_t ifx, uint32_t prefix, std::string_view line) {
    SessionState alone;
    alone.mode = kModeInterface;
    alone.ifx = ifx;
    cli_pcdb pcdb = make_context(alone, kModeInterface, prefix, CLI_FLAG_HELP);
    cli_walk walk(cli_walk::Purpose::kExecute, &pcdb);
    return port_exists(ifx) && walk.parse(cli_get_mode_root(kModeInterface), line).handler;
}

// Calls the handler for each port of the range. Ports that do not have the command are named.
int run_on_range(Command& command, const SessionState& session) {
    // The handler is called several times, but a line has one answer.
    g_running->answer = nullptr;
    cli_pcdb& pcdb = command.pcdb;
    const uint32_t prefix = pcdb.prefix;
    const uint32_t typed = (prefix & CLI_PREFIX_DEFAULT) ? CLI_PREFIX_DEFAULT : prefix;
    int result = 0;
    std::string skipped;
    const std::vector<uint64_t> range = session.range;
    for (const uint64_t ifx : range) {
        if (!applies_to(ifx, typed, command.line)) {
            skipped += (skipped.empty() ? "" : ", ") + port_name(ifx);
            continue;
        }
        pcdb.ifx = ifx;
        const int one = command.parsed.handler(&pcdb);
        result = result != 0 ? result : one;
    }
    if (skipped.empty()) {
        return result;
    }
    const int refused = refuse("Not a command for " + skipped + ".");
    return result != 0 ? result : refused;
}

int call_handler(Command& command, const SessionState& session) {
    if (command.pcdb.prefix & CLI_PREFIX_DEFAULT) {
        command.pcdb.prefix |= CLI_PREFIX_NO;  // "no" restores the default
    }
    return command.mode == kModeRange ? run_on_range(command, session)
                                      : command.parsed.handler(&command.pcdb);
}

// An operator who removes the agent's mark wants the port back, whatever its rules say.
void release_ports(const SessionState& session, const Command& command) {
    if (session.program || command.pcdb.prefix == 0 || command.parsed.text != kHeldLine) {
        return;
    }
    for (const uint64_t ifx :
         command.mode == kModeRange ? session.range : std::vector<uint64_t>{session.ifx}) {
        held_ports().release(port_name(ifx));
    }
}

// Runs a command of a configuration mode. One that does more than move the session is logged with
// the operator who entered it.
int run_config_command(SessionState& session, Command& command, std::string_view typed) {
    const bool operators = session.caller && changes_configuration(session, command);
    if (const std::string obstacle = operators ? config_lock_refusal(session) : "";
        !obstacle.empty()) {
        return refuse(obstacle);
    }
    session.mode = command.mode;  // mode config for its lines in the interface modes
    // The handler may find that the port was removed.
    const std::string entered = operators ? entered_line(session, squeezed(typed)) : "";
    release_ports(session, command);
    const int result = call_handler(command, session);
    if (operators) {
        const bool done = result == 0 && g_running->output->empty();
        const bool range = command.mode == kModeRange;
        log_entered(session, entered,
                    done    ? ""
                    : range ? "refused on at least one port"
                            : "refused");
    }
    if (ConfigKeeper* const keeper = config_keeper()) {
        keeper->request_save();
    }
    return result;
}

// Runs a line that is known to be clean; output goes to the current command.
int run_line(SessionState& session, std::string_view line) {
    ConfigKeeper* const keeper = config_keeper();
    const uint64_t ifx = session.mode == kModeInterface ? session.ifx : 0;
    if (!session_ports_exist(session)) {
        // Not refused: a program would go on believing that it holds the port shut, and might see
        // the refusal only when the port is back and up.
        const bool may = keeper && config_lock_refusal(session).empty();
        const std::string name = may ? keeper->accept_no_shutdown(ifx, squeezed(line)) : "";
        if (!name.empty()) {
            log_entered(session, "interface " + name + "; " + squeezed(line), "");
            if (!session.program) {
                cli_printf(
                    "The interface does not exist; it will be brought up when it returns.\n");
            }
            return 0;
        }
        cli_printf("%% The interface does not exist.\n");
        return -1;
    }
    Command command = find_command(session, line);
    const bool configures = command.mode != kModeExec;
    const LineFault fault = g_line_fault;
    int result = 0;
    if (std::string text; fault && configures && fault(squeezed(line), text, result)) {
        cli_printf("%s%s", text.c_str(), text.empty() || text.back() == '\n' ? "" : "\n");
        return result;
    }
    if (!command.parsed.handler) {
        cli_printf("%s\n", command.parsed.error.c_str());
        g_running->wrong = command.parsed.wrong.data();
        return -1;
    }
    if (configures && filtering()) {
        return refuse("Only a show command takes a filter.");
    }
    if (configures) {
        return run_config_command(session, command, line);
    }
    result = call_handler(command, session);
    if (!session.privileged) {
        session.mode = kModeExec;  // "do disable"
    }
    return result;
}

// Returns a completion that passes the filtered output to `answer`.
Completion filtered(std::shared_ptr<OutputFilter> filter, Completion answer) {
    return [filter = std::move(filter), answer = std::move(answer)](Result result) {
        apply(*filter, result.code, result.output);
        answer(std::move(result));
    };
}

// Runs a line that may end in a filter; output goes to `result`.
void run_filtered(SessionState& session, std::string_view line, Completion* answer,
                  Result& result) {
    const FilteredLine parts = take_filter(line);
    if (!parts.error.empty()) {
        cli_printf("%s\n", parts.error.c_str());
        result.code = -1;
        return;
    }
    const FilterScope scope(parts.filter.get());
    if (parts.filter && answer) {
        *answer = filtered(parts.filter, std::move(*answer));
    }
    result.code = run_line(session, parts.command);
    if (parts.filter && !answer) {
        apply(*parts.filter, result.code, result.output);
    }
}

// Returns nothing for a line that could not be executed either.
std::vector<Hint> safe_hints(SessionState& session, std::string_view line) {
    if (line.size() > kMaxLineBytes || has_control_byte(line)) {
        return {};
    }
    if (std::optional<std::vector<Hint>> hints = filter_hints(line)) {
        return std::move(*hints);
    }
    std::string unused;
    const RunningScope scope(session, unused);
    if (!session_ports_exist(session)) {
        return {};
    }
    std::vector<Hint> hints = hints_for(session, line);
    const bool complete = std::any_of(hints.begin(), hints.end(),
                                      [](const Hint& hint) { return hint.word == "<cr>"; });
    if (complete && takes_filter(line)) {
        hints.push_back({"|", "Filter the output", false});
    }
    return hints;
}

// Empties `answer` when the command defers its answer.
Result execute_now(SessionState& session, std::string_view line, Completion* answer) {
    Result result;
    const RunningScope scope(session, result.output, answer);
    if (line.size() > kMaxLineBytes) {
        cli_printf("%% Line too long (limit %zu bytes).\n", kMaxLineBytes);
        result.code = -1;
        return result;
    }
    const char* const start = line.data();
    line = trimmed(line);
    if (has_control_byte(line)) {
        cli_printf("%% Line contains control characters.\n");
        result.code = -1;
    } else if (!line.empty() && line.front() != '!') {
        remember_line(session, line);
        run_filtered(session, line, answer, result);
    }
    if (const char* const wrong = scope.running().wrong) {
        result.wrong_at = static_cast<size_t>(wrong - start);
    }
    return result;
}

}  // namespace

Result execute(SessionState& session, std::string_view line) {
    return execute_now(session, line, nullptr);
}

void execute(SessionState& session, std::string_view line, Completion answer) {
    Result result = execute_now(session, line, &answer);
    if (answer) {
        answer(std::move(result));
    }
}

Completion defer() {
    if (!g_running || !g_running->answer) {
        return {};
    }
    const auto deferred = std::make_shared<DeferredAnswer>();
    deferred->answer = std::exchange(*std::exchange(g_running->answer, nullptr), nullptr);
    deferred->output = std::move(*g_running->output);
    g_running->output = &deferred->output;
    g_running->deferred = deferred;
    return [deferred](Result result) {
        if (const Completion answer = std::exchange(deferred->answer, nullptr)) {
            result.output.insert(0, deferred->output);
            answer(std::move(result));
        }
    };
}

bool parses(SessionState& session, std::string_view line) {
    std::string unused;
    const RunningScope scope(session, unused);
    return find_own_command(session, line).parsed.handler != nullptr;
}

ConfigCommand parse_config_command(const SessionState& session, std::string_view line) {
    if (line.size() > kMaxLineBytes) {
        return {{}, "% Line too long."};
    }
    if (has_control_byte(line)) {
        return {{}, "% Line contains control characters."};
    }
    const uint32_t prefix = take_prefix(line);
    cli_pcdb pcdb = make_context(session, session.mode, prefix, CLI_FLAG_HELP);
    if (session.mode == kModeRange && session.range.empty()) {
        pcdb.ifrange_types = ~0U;
    }
    cli_walk walk(cli_walk::Purpose::kExecute, &pcdb);
    Parsed parsed = walk.parse(config_commands_root(session.mode), line);
    if (!parsed.handler) {
        return {{}, std::move(parsed.error)};
    }
    const char* const word = (prefix & CLI_PREFIX_NO)        ? "no "
                             : (prefix & CLI_PREFIX_DEFAULT) ? "default "
                                                             : "";
    return {word + parsed.text, {}};
}

std::string help_text(SessionState& session, std::string_view line) {
    std::string text;
    for (const Hint& hint : safe_hints(session, line)) {
        const size_t pad = hint.word.size() < 24 ? 24 - hint.word.size() : 1;
        text += "  " + hint.word;
        text += hint.help.empty() ? "\n" : std::string(pad, ' ') + hint.help + "\n";
    }
    return text;
}

std::string completions(SessionState& session, std::string_view line) {
    std::string text;
    for (const Hint& hint : safe_hints(session, line)) {
        text += hint.literal ? hint.word + "\n" : "";
    }
    return text;
}

std::string prompt(const SessionState& session) {
    if (session.mode == kModeConfig) {
        return host_name() + "(config)# ";
    }
    if (session.mode == kModeInterface) {
        return host_name() + "(config-if-" + port_name(session.ifx) + ")# ";
    }
    if (session.mode == kModeRange) {
        return host_name() + "(config-if-range)# ";
    }
    return host_name() + (session.privileged ? "# " : "> ");
}

SessionState* current_session() {
    return g_running ? g_running->session : nullptr;
}

bool privileged() {
    return !g_running || g_running->session->privileged;
}

std::string formatted(const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    char usual[256];
    const int size = std::vsnprintf(usual, sizeof usual, format, arguments);
    const size_t length = size > 0 ? static_cast<size_t>(size) : 0;
    std::string text(usual, std::min(length, sizeof usual - 1));
    if (length > text.size()) {
        text.resize(length);
        // The terminator overwrites the string's own.
        std::vsnprintf(text.data(), length + 1, format, again);
    }
    va_end(again);
    return text;
}

int refuse(std::string_view reason) {
    cli_printf("%% %.*s\n", static_cast<int>(reason.size()), reason.data());
    return 1;
}

}  // namespace qv::cli

extern "C" void cli_printf(const char* format, ...) {
    if (!qv::cli::g_running) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    qv::guarded([&] { *qv::cli::g_running->output += qv::cli::formatted(format, arguments); });
    va_end(arguments);
}
