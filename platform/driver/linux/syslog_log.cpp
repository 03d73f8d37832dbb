#include "platform/driver/linux/syslog_log.h"

#include <algorithm>

#include <syslog.h>

namespace qv {

SyslogLog::SyslogLog() {
    openlog("lda", LOG_PID, LOG_DAEMON);
}

void SyslogLog::write(const SystemLogMessage& message) {
    // Severities of the two are the same numbers; anything else would spill into the facility bits.
    const int priority = std::clamp(message.severity, LOG_EMERG, LOG_DEBUG);
    syslog(priority, "%s", render(message).c_str());
}

}  // namespace qv
