// The monotonic clock behind every timer of the platform.
#pragma once

#include <chrono>

namespace qv {

using Duration = std::chrono::nanoseconds;
using Time = std::chrono::time_point<std::chrono::steady_clock, Duration>;

// Any thread may call now(); the rest belongs to the loop's thread.
class Clock {
 public:
    virtual ~Clock() = default;

    virtual Time now() const = 0;

    // The real time that passes until this clock shows `t`: zero when `t` is past, Duration::max()
    // when no waiting moves the clock.
    virtual Duration real_time_until(Time t) const = 0;

    // Called by the loop before it waits. A clock that a test moves by hand may move here; true
    // makes the loop look for work again instead of waiting.
    virtual bool idle() { return false; }
};

// The machine's monotonic clock, `speed` times as fast.
class SteadyClock final : public Clock {
 public:
    explicit SteadyClock(double speed = 1.0);
    Time now() const override;
    Duration real_time_until(Time t) const override;

 private:
    double speed_;
    Time start_;
};

}  // namespace qv
