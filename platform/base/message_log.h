// The messages of this process. Each one goes to the system log and into a list of recent messages;
// some are also shown on terminals that have typed "terminal monitor".
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

// Logs the formatted text. When the conversion fails the format itself is logged; without memory
// the message is lost. Any thread.
void log_message(int severity, const char* facility, const char* mnemonic, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// The same, and returns the message as terminals show it.
std::string vlog_message(int severity, const char* facility, const char* mnemonic,
                         const char* format, std::va_list arguments)
    __attribute__((format(printf, 4, 0)));

// While it exists, the messages of its thread are about this subject. An inner one replaces an
// outer one. It changes no text: a log that is structured has the subject in fields of their own.
// The thread that made it destroys it.
class LogAbout {
 public:
    explicit LogAbout(LogSubject subject);
    ~LogAbout();
    LogAbout(const LogAbout&) = delete;
    LogAbout& operator=(const LogAbout&) = delete;

 private:
    const LogSubject subject_;
    const LogSubject* const before_;
};

// Sets the system log for messages from now on; before the first call there is none. `log` must
// outlive the last message. Any thread.
void use_system_log(SystemLog& log);

inline constexpr size_t kRecentLogMessages = 256;

struct LoggedMessage {
    std::chrono::system_clock::time_point time;
    std::string text;  // "%FACILITY-SEVERITY-MNEMONIC: text", without a line end
};

// A copy of the last kRecentLogMessages messages, oldest first. Any thread.
std::vector<LoggedMessage> recent_log();
// Empties that list; the system log keeps what it has. Any thread.
void clear_recent_log();

// Shows a message, as vlog_message() returned it, on the monitoring terminals. Any thread.
void show_on_monitors(const std::string& line);

// Sets the function that show_on_monitors() calls, on its own thread and without holding a lock of
// the log. An empty function removes the sink; a call that has begun may still finish afterwards.
// The sink must not wait and must not call show_on_monitors(). Any thread.
void set_monitor_sink(std::function<void(std::string_view text)> sink);

}  // namespace qv
