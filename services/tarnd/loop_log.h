// The log lines about loops, kept few. The lines of a port's first loop are logged as they come.
// Loops that follow within a period are counted instead: at the end of the period the log has their
// number and the last one of their lines, and so on until a period passes without a loop.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/base/system_log.h"

namespace qv::tarnd {

// Main thread only. The loop must outlive it.
class LoopLog {
 public:
    static constexpr std::chrono::seconds kPeriod{600};

    struct Line {
        int severity;
        const char* mnemonic;  // a literal
        std::string text;
    };

    explicit LoopLog(EventLoop& loop) : loop_(loop) {}

    // The port was not part of a loop and is now. Its next lines are about this loop.
    void loop_begins(const std::string& port);
    // Logs the line now, or keeps it until the end of the port's period. `about` names the port.
    void say(const LogSubject& about, Line line);
    // Logs what is kept. Call when the process ends.
    void finish();

 private:
    struct Port {
        bool repeats = false;   // its first loop is over
        size_t more_loops = 0;  // of this period, not logged
        LogSubject about;
        std::optional<Line> last;  // of this period, not logged
        Time since;                // when the period began
        EventLoop::Handle period;
    };

    void begin_period(const std::string& port);
    void end_period(const std::string& port);

    EventLoop& loop_;
    std::map<std::string, Port> ports_;  // that looped in this period or the one before
};

}  // namespace qv::tarnd
