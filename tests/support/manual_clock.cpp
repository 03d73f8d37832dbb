#include "tests/support/manual_clock.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace qv::test {
namespace {

// An arbitrary start other than zero, as on a machine that has been up for a while.
constexpr Time kStart{std::chrono::hours(1000)};

struct Idle {};

// More work than any test has at once.
constexpr int kEndless = 100'000;

}  // namespace

Time ManualClock::now() const {
    return kStart + since_start_.load();
}

Duration ManualClock::real_time_until(Time t) const {
    return t <= now() ? Duration::zero() : Duration::max();
}

bool ManualClock::idle() {
    return on_idle && on_idle();
}

void ManualClock::advance(Duration step) {
    since_start_.store(since_start_.load() + step);
}

void ManualClock::advance_to(Time t) {
    if (t > now()) {
        advance(t - now());
    }
}

void run_ready(EventLoop& loop, ManualClock& clock) {
    auto before = std::exchange(clock.on_idle, []() -> bool { throw Idle(); });
    bool endless = true;
    try {
        for (int piece = 0; piece < kEndless && endless; ++piece) {
            endless = loop.fetch();
            if (endless) {
                loop.run();
            }
        }
    } catch (const Idle&) {
        endless = false;
    }
    clock.on_idle = std::move(before);
    if (endless) {
        throw std::runtime_error("test: the loop always has something ready");
    }
}

void run_for(EventLoop& loop, ManualClock& clock, Duration step) {
    const Time end = clock.now() + step;
    run_ready(loop, clock);
    while (loop.next_timer() && *loop.next_timer() <= end) {
        clock.advance_to(*loop.next_timer());
        run_ready(loop, clock);
        if (loop.next_timer() && *loop.next_timer() <= clock.now()) {
            throw std::runtime_error("test: a timer that is due does not fire");
        }
    }
    clock.advance_to(end);
}

bool run_until(EventLoop& loop, const std::function<bool()>& done, Duration limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    EventLoop::Handle guard;  // ends the wait; more than once when the loop's clock runs fast
    while (!done() && std::chrono::steady_clock::now() < end) {
        if (!guard) {
            guard = loop.after(limit, [] {});
        }
        if (!loop.fetch()) {
            break;
        }
        loop.run();
    }
    return done();
}

}  // namespace qv::test
