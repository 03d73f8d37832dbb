// qv/syslog.h over the messages of this process.
#include "qv/syslog.h"

#include <cstdarg>
#include <string>

#include "platform/base/guarded.h"
#include "platform/base/message_log.h"
#include "platform/client/platform.h"

namespace {

// The first message may create the platform, and with it the system log.
__attribute__((format(printf, 4, 0))) std::string log(int severity, const char* facility,
                                                      const char* mnemonic, const char* format,
                                                      std::va_list arguments) {
    static_cast<void>(qv::platform());
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
