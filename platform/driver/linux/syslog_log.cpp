#include "platform/driver/linux/syslog_log.h"

#include <algorithm>

#include <syslog.h>
#include <unistd.h>

namespace qv {

SyslogLog::SyslogLog() {
    openlog("lda", LOG_PID, LOG_DAEMON);
}

void SyslogLog::write(const SystemLogMessage& message) {
    // Without a syslog daemon the library would make a socket for every message and throw it away.
    if (access(_PATH_LOG, F_OK) != 0) {
        return;
    }
    // Severities of the two are the same numbers; anything else would spill into the facility bits.
    const int priority = std::clamp(message.severity, LOG_EMERG, LOG_DEBUG);
    syslog(priority, "%s", render(message).c_str());
}

}  // namespace qv
