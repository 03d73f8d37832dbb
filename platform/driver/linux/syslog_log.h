// System log through syslog(3), facility "daemon".
#pragma once

#include "platform/driver/system_log.h"

namespace qv {

// One per process, since syslog(3) has one identity; it lives as long as the process logs.
class SyslogLog final : public SystemLog {
 public:
    SyslogLog();
    void write(const SystemLogMessage& message) override;
};

}  // namespace qv
