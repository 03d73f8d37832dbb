// Figures about this process for a monitoring system; docs/metrics.md explains each. They are kept
// only while somebody serves them: without metrics an observation costs one test for null.
//
// Each figure is an atomic. Their writer is the loop's thread, and a reader on another thread never
// holds it up. Two figures that are read together may therefore differ by a moment.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace qv {

// Counts durations by their length.
class DurationHistogram {
 public:
    using Seconds = std::chrono::duration<double>;

    // The upper bounds of the buckets in seconds, ascending. One more bucket takes the rest.
    explicit DurationHistogram(std::initializer_list<double> bounds_s)
        : bounds_s_(bounds_s), counts_(bounds_s.size() + 1) {}

    // A duration that equals a bound belongs below it. Negative ones count as zero. Loop thread.
    void observe(Seconds duration);

    // The following may be called on any thread.

    const std::vector<double>& bounds_s() const { return bounds_s_; }
    // How many durations a bucket has; bucket bounds_s().size() is the last.
    uint64_t count(size_t bucket) const { return counts_[bucket]; }
    double sum_s() const { return sum_s_; }

 private:
    const std::vector<double> bounds_s_;
    std::vector<std::atomic<uint64_t>> counts_;
    std::atomic<double> sum_s_ = 0;
};

struct Metrics {
    using Figure = std::atomic<uint64_t>;

    Figure looped_ports = 0;
    Figure held_ports = 0;
    Figure loops_by_probe = 0;
    Figure loops_by_storm = 0;
    Figure shutdowns = 0;
    Figure shutdowns_refused = 0;
    Figure recoveries = 0;
    Figure recoveries_refused = 0;
    Figure deferred_tasks = 0;
    Figure databases_away = 0;
    Figure database_reconnects = 0;
    Figure records_set_again = 0;
    Figure config_saves = 0;
    Figure config_save_failures = 0;
    // From the report of a loop to the acknowledged shutdown of its port, on the clock of the
    // switch.
    DurationHistogram reaction{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 5};
    // Time that one piece of work takes from the loop, in real time.
    DurationHistogram turn{0.0001, 0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5};
};

// The metrics of this process, null when nobody serves them. Any thread.
Metrics* metrics();

// Sets them, or null to stop. They must outlive every observation. Loop thread, before other
// threads exist.
void use_metrics(Metrics* metrics);

// While it exists, one piece of work runs; then its time is counted. Loop thread.
class TurnTimer {
 public:
    TurnTimer();
    ~TurnTimer();
    TurnTimer(const TurnTimer&) = delete;
    TurnTimer& operator=(const TurnTimer&) = delete;

 private:
    Metrics* const metrics_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace qv
