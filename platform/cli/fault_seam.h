// Where tests and simulated switches come between the framework and its work. Null, and so no cost,
// until a fault is scripted for the first time. Any thread.
#pragma once

#include <atomic>
#include <string>

namespace qv::cli {

// Looks at a configuration line with its blanks squeezed. True when the line is not to be executed:
// it prints `text` and has the result `result`.
using LineFault = bool (*)(const std::string& line, std::string& text, int& result);
inline std::atomic<LineFault> g_line_fault = nullptr;

// True when the session about to be opened for a program is to fail.
using SessionFault = bool (*)();
inline std::atomic<SessionFault> g_session_fault = nullptr;

}  // namespace qv::cli
