// System log on standard error, one line per message preceded by the local time.
//
// A pipe or a terminal that nobody reads fills up, and a write to it would then block the loop. So
// no write waits: a line that does not fit is lost and counted, and the next one that fits is
// preceded by a report of the loss.
#pragma once

#include <cstdint>
#include <string>

#include "platform/base/mutex.h"
#include "platform/base/system_log.h"

namespace qv {

class StderrLog final : public SystemLog {
 public:
    // Writes to the present standard error, even if that is redirected later.
    StderrLog();
    ~StderrLog() override;
    StderrLog(const StderrLog&) = delete;
    StderrLog& operator=(const StderrLog&) = delete;

    // Never waits.
    void write(const SystemLogMessage& message) override EXCLUDES(mutex_);

 private:
    bool write_line(const std::string& line) REQUIRES(mutex_);
    bool flush() REQUIRES(mutex_);
    size_t write_some(const std::string& text) const;

    const int fd_;
    Mutex mutex_;
    std::string rest_ GUARDED_BY(mutex_);   // of a line that was written in part
    uint64_t lost_ GUARDED_BY(mutex_) = 0;  // lines since the last report of a loss
};

}  // namespace qv
