#include "platform/base/clock.h"

#include <cmath>

namespace qv {

SteadyClock::SteadyClock(double speed) : speed_(speed), start_(std::chrono::steady_clock::now()) {}

// The scaled clock starts at the machine's own time, so that both agree while the speed is 1.
Time SteadyClock::now() const {
    const Time real = std::chrono::steady_clock::now();
    const double passed = static_cast<double>((real - start_).count()) * speed_;
    return start_ + Duration(static_cast<Duration::rep>(passed));
}

Duration SteadyClock::real_time_until(Time t) const {
    const Duration left = t - now();
    if (left <= Duration::zero()) {
        return Duration::zero();
    }
    // Rounded up: a waiter that wakes too early would find nothing to do and wait again.
    const double wait = std::ceil(static_cast<double>(left.count()) / speed_);
    return Duration(static_cast<Duration::rep>(wait));
}

}  // namespace qv
