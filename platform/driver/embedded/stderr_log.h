// System log on standard error, one line per message with the local time in front.
#pragma once

#include "platform/driver/system_log.h"

namespace qv {

class StderrLog final : public SystemLog {
 public:
    void write(const SystemLogMessage& message) override;
};

}  // namespace qv
