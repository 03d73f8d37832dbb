// Logs who entered which configuration line ("%CLI-6-CONFIG"). Loop thread only.
//
// Only operators' lines are logged: lines of programs and those of a replay carry no caller.
#pragma once

#include <string>
#include <string_view>

#include "platform/cli/engine.h"

namespace qv::cli {

// `line` with the interface or range of its mode in front: "interface swp1; shutdown".
std::string entered_line(const SessionState& session, std::string_view line);

// Logs what an operator entered; nothing when the session is not an operator's. Control bytes and
// quotes are escaped. `refusal` is empty when the line was carried out.
void log_entered(const SessionState& session, std::string_view entered, std::string_view refusal);

}  // namespace qv::cli
