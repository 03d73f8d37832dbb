#include "platform/base/system_log.h"

#include <cstdio>
#include <ctime>

namespace qv {

std::string render(const SystemLogMessage& message) {
    std::string_view text = message.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    std::string line = "%";
    line.append(message.facility).append("-").append(std::to_string(message.severity));
    line.append("-").append(message.mnemonic).append(": ").append(text);
    return line;
}

std::string loss_report(uint64_t lost) {
    constexpr int kWarning = 4;
    const std::string text = std::to_string(lost) +
                             (lost == 1 ? " message was" : " messages were") +
                             " lost while the system log could not take them.";
    return render({.severity = kWarning, .facility = "LOG", .mnemonic = "LOST", .text = text});
}

std::string wall_time_text(std::chrono::system_clock::time_point time) {
    using std::chrono::floor;
    const auto whole_seconds = floor<std::chrono::seconds>(time);
    const auto ms = floor<std::chrono::milliseconds>(time - whole_seconds).count();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(whole_seconds);
    std::tm local{};
    localtime_r(&seconds, &local);
    char date[32];
    std::strftime(date, sizeof date, "%F %T", &local);
    char milliseconds[8];
    std::snprintf(milliseconds, sizeof milliseconds, ".%03d", static_cast<int>(ms));
    return std::string(date) + milliseconds;
}

}  // namespace qv
