// qv/syslog.h over the messages of this process.
#include "qv/syslog.h"

#include <cstdarg>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/guarded.h"
#include "platform/base/message_log.h"
#include "platform/client/loop_metrics.h"
#include "platform/client/platform.h"

namespace {

// The subject of the agent's own messages about loops, known by their formats, whose only argument
// is the port. A loop that is found while no report of the probe protocol is delivered was judged
// by storm detection.
std::optional<qv::LogSubject> subject_of(std::string_view format, std::va_list arguments) {
    const bool found = format == "Detected loop error on interface %s.\r\n";
    if (!found && format != "Interface %s recovered from loop error.\r\n") {
        return {};
    }
    std::va_list copy;
    va_copy(copy, arguments);
    const char* const port = va_arg(copy, const char*);
    va_end(copy);
    qv::LogSubject subject{.port = port};
    if (found) {
        subject.source = qv::delivering_probe_report() ? "tarn" : "storm";
    }
    return subject;
}

// The first message may create the platform, and with it the system log.
__attribute__((format(printf, 4, 0))) std::string log(int severity, const char* facility,
                                                      const char* mnemonic, const char* format,
                                                      std::va_list arguments) {
    static_cast<void>(qv::platform());
    std::optional<qv::LogAbout> about;
    if (std::optional<qv::LogSubject> subject = subject_of(format, arguments)) {
        about.emplace(std::move(*subject));
    }
    return qv::vlog_message(severity, facility, mnemonic, format, arguments);
}

}  // namespace

void printk_syslog(int severity, const char* facility, const char* mnemonic, const char* format,
                   ...) {
    std::va_list arguments;
    va_start(arguments, format);
    qv::guarded([&] { log(severity, facility, mnemonic, format, arguments); });
    va_end(arguments);
}

void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, const char* format,
                       ...) {
    std::va_list arguments;
    va_start(arguments, format);
    qv::guarded(
        [&] { qv::show_on_monitors(log(severity, facility, mnemonic, format, arguments)); });
    va_end(arguments);
}
