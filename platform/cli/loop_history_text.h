// The history of loops as text: one JSON object on a line for each event, oldest first. The first
// line has the version of the format, the last one a checksum of everything before. Any thread.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "platform/cli/held_ports.h"

namespace qv::cli {

// "loop found", "shut", "waits", "brought back", "probation", "recovered" or "refused".
const char* action_name(LoopAction action);

std::string history_text(const std::deque<LoopEvent>& events);

struct ReadHistory {
    std::deque<LoopEvent> events;  // those before the first line that is damaged
    bool intact = false;           // the text is whole and unchanged
};
// Keeps the newest HeldPorts::kMaxEvents events.
ReadHistory read_history(std::string_view text);

}  // namespace qv::cli
