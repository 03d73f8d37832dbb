// The requests and replies of the command-line socket: one JSON object on a line each.
//
//   {"exec": LINE}      executes the line; with "mode" and "ifx" in that mode, for this line only.
//                       After "disable" that mode can only be exec, with the view commands.
//   {"complete": LINE}  words that can stand in place of the last one, one per line of "output"
//   {"help": LINE}      the same with their help texts
//   {"check": FILE}     checks the configuration in the file and changes nothing; "output" has a
//                       line for each fault
// Reply: {"output": TEXT, "prompt": TEXT, "result": NUMBER}, with "end": true when the session ends
// with it, and with "wrong_at": BYTES when LINE is not a command: where the wrong word begins, or
// the end of the line when something is missing there. "length": NUMBER is in the replies of a
// session that has set "terminal length". A session that monitors also gets {"monitor": TEXT}
// between replies. Loop thread only.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/cli/engine.h"

namespace qv::cli {

// Serves one request and hands its result to `answer`, as execute() does: now, or later.
void answer_request(std::string_view text, SessionState& session, Completion answer);

// The text of an answer before it is written as JSON. A longer one is cut at the end of a line, and
// says so. Configurations and their files are limited to as much.
inline constexpr size_t kMaxOutputBytes = size_t{16} << 20;

// Replies and events end in a line end. "output" has at most kMaxOutputBytes and the line that says
// that it is cut.
std::string reply(const Result& result, const SessionState& session);
std::string monitor_event(std::string_view text);

// "% REASON" with the code of a line that could not be executed.
Result error_result(std::string_view reason);

// Executes a line in a session of its own, which begins in `session.mode` (exec, config or
// interface). A line that may have changed the configuration has it saved soon.
Result execute_alone(SessionState session, std::string_view line);
void execute_alone(SessionState session, std::string_view line, Completion answer);

}  // namespace qv::cli
