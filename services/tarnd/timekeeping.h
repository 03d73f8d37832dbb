// Decides which of the probing threads wakes for work that is planned.
//
// One of them, the timekeeper, always does. The others help in two cases:
// - A storm is likely. It may keep the timekeeper's processor busy, so all of them wake.
// - The work is due before the timekeeper wakes. A descriptor wakes all of them, but one that has
//   been emptied by another thread meanwhile lets a thread sleep on without having seen the new
//   plan.
#pragma once

#include "platform/base/clock.h"

namespace qv::tarnd {

// One thread at a time.
class Timekeeping {
 public:
    static constexpr std::chrono::seconds kLongestWait{10};
    // A storm is likely for this long after a probe has returned or an address has moved.
    static constexpr std::chrono::seconds kAlert{1};

    void alert(Time now) { alert_until_ = now + kAlert; }
    // When the calling thread wakes if no descriptor does it; `next`: when the next work is due.
    Time wake_up(bool keeps_time, Time now, Time next);

 private:
    Time kept_until_{};  // the timekeeper's own wake-up
    Time alert_until_{};
};

}  // namespace qv::tarnd
