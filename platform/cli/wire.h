// The requests and replies of the command-line socket: one JSON object on a line each.
//
//   {"exec": LINE}      executes the line; with "mode" and "ifx" in that mode, for this line only
//   {"complete": LINE}  words that can stand in place of the last one, one per line of "output"
//   {"help": LINE}      the same with their help texts
// Reply: {"output": TEXT, "prompt": TEXT, "result": NUMBER}, with "end": true when the session ends
// with it. A session that monitors also gets {"monitor": TEXT} between replies. Loop thread only.
#pragma once

#include <string>
#include <string_view>

#include "platform/cli/engine.h"

namespace qv::cli {

// Replies and events end in a line end.
std::string answer_request(std::string_view text, SessionState& session);
std::string error_reply(std::string_view reason, const SessionState& session);
std::string monitor_event(std::string_view text);

// Executes a line in a mode of its own, as cli_execute_cmd_buf_fd asks for it.
Result execute_in(std::string_view mode, uint64_t ifx, std::string_view line);

}  // namespace qv::cli
