// Finds the command that a line means, and the mode it belongs to. Loop thread only.
//
// A line belongs to the mode of its session. An operator's line may also be one of another mode:
// after "do" one of mode exec, in the interface modes one of mode config, and in every mode a
// "show" command. The session's own mode is tried first. A line that is ambiguous there is
// refused.
//
// After "no" an operator may type a whole line, as it stands in the running configuration: when
// the "no" form of the command ends earlier, the words after its end are ignored.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/engine.h"
#include "platform/cli/walk.h"

namespace qv::cli {

// The first word of a line; empty, at its end, when there is none.
std::string_view first_word(std::string_view line);
// The rest of the line after `word`, which is a part of it.
std::string_view rest_after(std::string_view line, std::string_view word);

struct Command {
    std::string mode;       // that the command belongs to
    std::string_view line;  // as it was parsed, without its prefix
    cli_pcdb pcdb{};        // the context for its handler
    Parsed parsed;
};

// Finds the command of a line; `parsed.handler` is null when there is none. Calls no handler.
Command find_command(const SessionState& session, std::string_view line);

// The same, only in the mode of the session.
Command find_own_command(const SessionState& session, std::string_view line);

// Whether a command that was found changes the configuration: not when it only moves the session.
bool changes_configuration(const SessionState& session, const Command& command);

// Returns the possible completions of the last word of `line`: keywords by name, then slots and
// the line end. Calls no handler.
std::vector<Hint> hints_for(const SessionState& session, std::string_view line);

// The context of a command of `mode` in this session.
cli_pcdb make_context(const SessionState& session, std::string_view mode, uint32_t prefix,
                      unsigned long flags);

// Takes the word "no" or "default" off the front, when another word or a blank follows it.
uint32_t take_prefix(std::string_view& line);

}  // namespace qv::cli
