// The destinations of system log messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace qv {

// Severities of RFC 5424, section 6.2.1. Messages may have any from 0 to 7.
inline constexpr int kLogError = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogInfo = 6;

// The subject of a message, as far as its writer knows it. Empty texts are not known.
struct LogSubject {
    std::string port = {};
    std::string source = {};  // of a loop: "tarn" or "storm"
    std::string cause = {};   // why something failed
};

struct SystemLogMessage {
    int severity;
    std::string_view facility;
    std::string_view mnemonic;
    std::string_view text;
    uint64_t number = 0;                  // of the message in this process, from 1; 0: not counted
    const LogSubject* subject = nullptr;  // null: not known
};

// "%FACILITY-SEVERITY-MNEMONIC: text" without the line ends at the end of the text. Any thread.
std::string render(const SystemLogMessage& message);

// "%LOG-4-LOST: 2 messages were lost while the system log could not take them." Any thread.
std::string loss_report(uint64_t lost);

// Local time for people, "2026-01-31 23:59:59.123". Any thread.
std::string wall_time_text(std::chrono::system_clock::time_point time);

// Any thread; the message is valid during the call.
class SystemLog {
 public:
    virtual ~SystemLog() = default;
    virtual void write(const SystemLogMessage& message) = 0;
};

}  // namespace qv
