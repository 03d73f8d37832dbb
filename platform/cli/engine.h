// The engine between sessions and command trees: executes lines and completes them.
// Loop thread only.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/caller.h"

namespace qv::cli {

inline constexpr size_t kMaxLineBytes = 1024;
inline constexpr size_t kHistoryLines = 100;

struct ConfigClaim;

// The state of a session between two lines.
struct SessionState {
    std::string mode = "exec";
    uint64_t ifx = 0;              // mode interface
    std::vector<uint64_t> range;   // mode ifrange, in the order given
    std::string range_as_typed;    // mode ifrange, for messages
    bool privileged = true;        // false after "disable": only the view commands are there
    bool monitor = false;          // shows system log messages
    bool leaving = false;          // the session ends after this line
    bool program = false;          // belongs to a program of the switch, not to an operator
    bool from_file = false;        // its lines are those of a configuration file
    std::optional<int> length;     // "terminal length", 0: no pages; empty: the terminal's height
    std::optional<Caller> caller;  // of an operator's session; empty: the process itself
    uint64_t number = 0;           // of an operator's session
    std::deque<std::string> history;  // an operator's newest kHistoryLines lines, oldest first
    // On the configuration lock, see config_lock.h; null when the session did not take it.
    std::shared_ptr<ConfigClaim> claim;
};

struct Result {
    int code = 0;  // the command's own result; negative when the line could not be executed
    std::string output;
    // When the line is not a command: where the wrong word begins, in bytes, or its end when
    // something is missing there.
    std::optional<size_t> wrong_at = {};
};

// Takes the result of a line. Loop thread.
using Completion = std::function<void(Result)>;

// Executes one line. Its end may carry blanks and a line end; a line that is empty or begins with
// "!" does nothing. Commands cannot defer their answer.
Result execute(SessionState& session, std::string_view line);

// The same, for a caller that can wait: hands the result to `answer` exactly once, before this call
// returns or, when the command defers its answer, later. `session` may be destroyed meanwhile.
void execute(SessionState& session, std::string_view line, Completion answer);

// For handlers: defers the answer of the current command. The handler's return value is ignored
// then, and the function returned here must be called on the loop thread, with the result and the
// text to print after the output so far; a second call does nothing. The handler must not keep its
// parse context or its session for later. Empty when nobody can wait: the line runs inline, it runs
// for each port of a range, or its answer is deferred already. Then the handler must finish its
// work before it returns.
[[nodiscard]] Completion defer();

// Whether the line would be taken as a command of the session's mode. Calls no handler.
bool parses(SessionState& session, std::string_view line);

// A line of a configuration file, as it would be understood in the session's mode.
struct ConfigCommand {
    std::string text;   // with its keywords in full
    std::string error;  // "% REASON"; empty when the line is a command that configures
};
// Calls no handler. Lines that move the session ("interface ...", "exit") do not count. In
// mode ifrange without any port the line may be one for a port of any type.
ConfigCommand parse_config_command(const SessionState& session, std::string_view line);

// The words that can stand in place of the last one, one per line: with help texts for people, bare
// for completion.
std::string help_text(SessionState& session, std::string_view line);
std::string completions(SessionState& session, std::string_view line);

// The session's prompt, such as "lda(config-if-swp1)# ".
std::string prompt(const SessionState& session);

// The session of the command being executed, null when none is.
SessionState* current_session();
// Whether the line at hand comes from a privileged session.
bool privileged();

// The text of a printf call; empty when the format is broken.
std::string formatted(const char* format, std::va_list arguments)
    __attribute__((format(printf, 1, 0)));

// Prints "% REASON" and a line end, and returns 1: the answer of a command that is refused.
int refuse(std::string_view reason);

}  // namespace qv::cli
