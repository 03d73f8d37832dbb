// Log lines of a session: to syslog ("lda-netconf", facility daemon), and to standard error on
// request. Standard error of a subsystem reaches the client's terminal, so it is not the default.
#pragma once

#include <string>

namespace netconf {

// Once, before the first line.
void open_log(bool also_to_stderr);

// From now on each line begins with `who`, for example "session 12 (admin)".
void log_as(const std::string& who);

// One line; `priority` is a LOG_* of <syslog.h>.
[[gnu::format(printf, 2, 3)]] void log_line(int priority, const char* format, ...);

// What SIGTERM, SIGHUP, SIGINT, an alarm() that rings and a crash do from now on: one line, then
// the process ends at once. The kernel releases what it held. Call again when log_as() has changed.
//
// The parser beneath is written in C and meets whatever a client sends; a message that breaks it
// must end this session alone, and not silently.
void arm_last_words();

// For each further thread that may crash: a message nested too deeply breaks the stack, so the last
// words are said on another one.
void use_signal_stack();

}  // namespace netconf
