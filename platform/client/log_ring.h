// The recent system log messages of this process, and the way to the terminals that monitor.
//
// Every message of qv/syslog.h passes through here after it went to the platform's system log.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

inline constexpr size_t kRecentLogMessages = 256;

struct LoggedMessage {
    std::chrono::system_clock::time_point time;
    std::string text;  // "%FACILITY-SEVERITY-MNEMONIC: text", without a line end
};

// A copy of the last kRecentLogMessages messages, oldest first. Any thread.
std::vector<LoggedMessage> recent_log();

// Called with the rendered text (no line end) of every printk_syslog_ext message, on the thread
// that logs and without any lock of the log held. An empty function takes the sink away; a call
// that had begun may still end afterwards. The sink must not wait and must not call
// printk_syslog_ext itself. Any thread.
void set_monitor_sink(std::function<void(std::string_view text)> sink);

}  // namespace qv
