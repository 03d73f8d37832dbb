// Log lines of a session: to syslog ("lda-netconf", facility daemon), and to standard error on
// request. Standard error of a subsystem reaches the client's terminal, so it is not the default.
#pragma once

#include <string>

namespace netconf {

// Call once, before the first line.
void open_log(bool also_to_stderr);

// From now on each line begins with `who`, for example "session 12 (admin)".
void log_as(const std::string& who);

// One line; `priority` is a LOG_* of <syslog.h>.
[[gnu::format(printf, 2, 3)]] void log_line(int priority, const char* format, ...);

// From now on SIGTERM, SIGHUP, SIGINT, SIGALRM and the signals of a crash log one line and end the
// process at once; the kernel releases its locks. The lines are composed here, so call it again
// after log_as().
//
// The parsers are written in C and receive whatever a client sends. A message that crashes one must
// end only this session, and leave a line in the log.
void log_fatal_signals();

// Gives the calling thread a separate stack for signal handlers. Each thread that parses messages
// needs one: a deeply nested message overflows the ordinary stack, and without another one the
// handler could not run.
void use_signal_stack();

}  // namespace netconf
