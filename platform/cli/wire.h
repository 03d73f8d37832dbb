// The requests and replies of the command-line socket: one JSON object on a line each.
//
//   {"exec": LINE}      executes the line; with "mode" and "ifx" in that mode, for this line only
//   {"complete": LINE}  words that can stand in place of the last one, one per line of "output"
//   {"help": LINE}      the same with their help texts
//   {"check": FILE}     checks the configuration in the file and changes nothing; "output" has a
//   line
//                       for each fault
// Reply: {"output": TEXT, "prompt": TEXT, "result": NUMBER}, with "end": true when the session ends
// with it, and with "wrong_at": BYTES when LINE is not a command: where the wrong word begins, or
// the end of the line when something is missing there. "length": NUMBER is in the replies of a
// session that has set "terminal length". A session that monitors also gets {"monitor": TEXT}
// between replies. Loop thread only.
#pragma once

#include <string>
#include <string_view>

#include "platform/cli/engine.h"

namespace qv::cli {

// Serves one request and hands its result to `answer`, as execute() does: now, or later.
void answer_request(std::string_view text, SessionState& session, Completion answer);

// Replies and events end in a line end.
std::string reply(const Result& result, const SessionState& session);
std::string monitor_event(std::string_view text);

// "% REASON" with the code of a line that could not be executed.
Result error_result(std::string_view reason);

// Executes a line in a session of its own, which begins in `session.mode` (exec, config or
// interface). A line that may have changed the configuration has it saved soon.
Result execute_alone(SessionState session, std::string_view line);
void execute_alone(SessionState session, std::string_view line, Completion answer);

}  // namespace qv::cli
