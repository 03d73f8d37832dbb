#include "platform/driver/embedded/stderr_log.h"

#include <cstdio>

namespace qv {

void StderrLog::write(const SystemLogMessage& message) {
    const std::string line =
        wall_time_text(std::chrono::system_clock::now()) + " " + render(message) + "\n";
    // One call per line: standard error is unbuffered, so lines of two threads do not mix.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace qv
