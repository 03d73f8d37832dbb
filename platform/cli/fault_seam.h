// Hooks through which tests and the simulated switch inject faults. Null, and therefore free,
// until the first fault is scripted. Any thread.
#pragma once

#include <atomic>
#include <string>

namespace qv::cli {

// Looks at a configuration line with its blanks squeezed. Returns true when the line must fail:
// then it prints `text`, returns `result` and is not executed.
using LineFault = bool (*)(const std::string& line, std::string& text, int& result);
inline std::atomic<LineFault> g_line_fault = nullptr;

// Returns true when the next session of a program must fail to open.
using SessionFault = bool (*)();
inline std::atomic<SessionFault> g_session_fault = nullptr;

}  // namespace qv::cli
