// Observes loops for the metrics (base/metrics.h): the reports that reach this process, the entries
// of its loop table in the object database, and the lines that programs execute on ports.
// Nothing is counted while metrics are off. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

#include "platform/base/clock.h"

namespace qv {

// A report that is older was not the reason for a shutdown.
inline constexpr std::chrono::seconds kLongestReaction{60};

// While it exists, `record` is delivered to its subscriber. A loop entry that the subscriber sets
// meanwhile is counted as found by a probe if the record is a report of the probe protocol. The
// first such report also begins the reaction time of its ports; the end of the loop does not end
// it, for the shutdown of one port ends the loop of the other. `deleted` is true for the record of
// a delete.
class RecordDelivery {
 public:
    RecordDelivery(const ProtobufCMessage& record, bool deleted);
    ~RecordDelivery();
    RecordDelivery(const RecordDelivery&) = delete;
    RecordDelivery& operator=(const RecordDelivery&) = delete;
};

// This process has set a record that it had not set before, or has deleted one of its own.
void count_own_record(std::string_view key);
void discount_own_record(std::string_view key);

// Whether a report of the probe protocol is being delivered.
bool delivering_probe_report();

// A program has executed "shutdown" or "no shutdown" (`up`) on a port. `changed` tells whether the
// port was in the other state before. A line that was executed ends the reaction time.
void count_admin_line(uint32_t ifx, bool up, bool changed);
void count_refused_admin_line(bool up);

// How many ports have a reaction time that has begun and not ended; never many more than there are
// ports. For tests.
size_t running_reactions();

}  // namespace qv
