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

// From now on SIGTERM, SIGHUP, SIGINT, SIGALRM and the signals of a crash log one line and end the
// process at once. The kernel releases what it held. Call it again after log_as(): the line is
// composed here.
//
// The parser beneath is written in C and meets whatever a client sends. A message that breaks it
// must end this session alone, and not silently.
void arm_last_words();

// Gives the calling thread a stack of its own for signal handlers. Each thread that parses messages
// needs one: a message nested too deeply uses up the usual stack, and the handler could not run.
void use_signal_stack();

}  // namespace netconf
