// A clock that only moves when a test moves it.
#pragma once

#include <atomic>
#include <functional>

#include "platform/base/clock.h"
#include "platform/base/event_loop.h"

namespace qv::test {

// now() may be read on any thread; the rest belongs to the loop's thread.
class ManualClock final : public Clock {
 public:
    Time now() const override;
    // Waiting never reaches a future time, so the loop waits only for descriptors and posts.
    Duration real_time_until(Time t) const override;
    bool idle() override;

    void advance(Duration step);
    void advance_to(Time t);  // a past time changes nothing

    // Runs each time the loop has nothing to do. True makes the loop look again, false makes it
    // wait for another thread or a descriptor. It may call anything but fetch(). It may throw: then
    // fetch() ends with that exception and the loop is unchanged.
    std::function<bool()> on_idle;

 private:
    std::atomic<Duration> since_start_{Duration::zero()};
};

// Runs the loop until nothing is ready at the present time. Throws std::runtime_error when that
// never happens.
void run_ready(EventLoop& loop, ManualClock& clock);

// Moves the clock by `step` and runs everything that becomes due, each timer at its own time.
void run_for(EventLoop& loop, ManualClock& clock, Duration step);

// Runs a loop on the real clock until `done`, for at most `limit`. Returns the result of `done`.
bool run_until(EventLoop& loop, const std::function<bool()>& done,
               Duration limit = std::chrono::seconds(60));

}  // namespace qv::test
