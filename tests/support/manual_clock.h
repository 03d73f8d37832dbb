// A clock that stands still until a test moves it.
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
    // Waiting never brings a future time about, so the loop waits for descriptors and posts alone.
    Duration real_time_until(Time t) const override;
    bool idle() override;

    void advance(Duration step);
    void advance_to(Time t);  // a time that is past changes nothing

    // Runs each time the loop has nothing to do. True makes the loop look again, false makes it
    // wait for another thread or a descriptor. It may call anything but fetch() and throw: then
    // fetch() ends with that exception and the loop is as before.
    std::function<bool()> on_idle;

 private:
    std::atomic<Duration> since_start_{Duration::zero()};
};

// Runs the loop until nothing is ready at the present time. Throws std::runtime_error when that
// never happens.
void run_ready(EventLoop& loop, ManualClock& clock);

// Moves the clock by `step` and runs everything that becomes due, each timer at its own time.
void run_for(EventLoop& loop, ManualClock& clock, Duration step);

// Runs a loop on the real clock until `done`, for at most `limit`. The result is that of `done`.
bool run_until(EventLoop& loop, const std::function<bool()>& done,
               Duration limit = std::chrono::seconds(60));

}  // namespace qv::test
