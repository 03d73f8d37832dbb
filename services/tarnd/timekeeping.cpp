#include "services/tarnd/timekeeping.h"

#include <algorithm>

namespace qv::tarnd {

Time Timekeeping::wake_up(bool keeps_time, Time now, Time next) {
    const Time latest = now + kLongestWait;
    if (keeps_time) {
        kept_until_ = std::min(latest, next);
        return kept_until_;
    }
    return now < alert_until_ || next < kept_until_ ? std::min(latest, next) : latest;
}

}  // namespace qv::tarnd
