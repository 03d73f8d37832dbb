#include "platform/client/bad_records.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "platform/base/event_loop.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace qv {
namespace {

constexpr std::chrono::seconds kQuiet{1};

struct BadRecords {
    EventLoop::Handle quiet;  // set for a second after a line
    size_t unlogged = 0;      // in that second
};

// Never destroyed: clients live as long as the process.
BadRecords& bad_records() {
    static auto& records = *new BadRecords();
    return records;
}

void begin_quiet() {
    bad_records().quiet = platform().loop().after(kQuiet, [] {
        const size_t unlogged = std::exchange(bad_records().unlogged, 0);
        if (unlogged != 0) {
            printk_syslog(SYSLOG_SEVERITY_WARNING, "MOM", "BAD_REPEATED",
                          "%zu more invalid records or notices were dropped in the last second.",
                          unlogged);
            begin_quiet();
        }
    });
}

}  // namespace

bool may_log_bad_record() {
    if (bad_records().quiet) {
        bad_records().unlogged++;
        return false;
    }
    begin_quiet();
    return true;
}

}  // namespace qv
