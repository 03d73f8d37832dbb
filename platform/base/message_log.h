// The messages of this process: each goes to the system log and is kept among the recent ones, and
// some are shown on the terminals that monitor.
#pragma once

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/system_log.h"

namespace qv {

// Logs the formatted text. A text whose conversion fails is logged as its format; one for which
// there is no memory is lost. Any thread.
void log_message(int severity, const char* facility, const char* mnemonic, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// The same, and returns the message as it is shown.
std::string vlog_message(int severity, const char* facility, const char* mnemonic,
                         const char* format, std::va_list arguments)
    __attribute__((format(printf, 4, 0)));

// The system log that messages go to from now on; there is none at first. It must outlive the last
// message. Any thread.
void use_system_log(SystemLog& log);

inline constexpr size_t kRecentLogMessages = 256;

struct LoggedMessage {
    std::chrono::system_clock::time_point time;
    std::string text;  // "%FACILITY-SEVERITY-MNEMONIC: text", without a line end
};

// A copy of the last kRecentLogMessages messages, oldest first. Any thread.
std::vector<LoggedMessage> recent_log();

// Shows a message, as vlog_message() has returned it, on the terminals that monitor. Any thread.
void show_on_monitors(const std::string& line);

// `sink` is what show_on_monitors() calls, on its thread and without any lock of the log held. An
// empty function takes the sink away; a call that had begun may still end afterwards. The sink must
// not wait and must not call show_on_monitors() itself. Any thread.
void set_monitor_sink(std::function<void(std::string_view text)> sink);

}  // namespace qv
