#include "platform/base/metrics.h"

#include <algorithm>

namespace qv {
namespace {

Metrics* g_metrics = nullptr;

}  // namespace

void DurationHistogram::observe(Seconds duration) {
    const double seconds = std::max(duration.count(), 0.0);
    const auto bound = std::lower_bound(bounds_s_.begin(), bounds_s_.end(), seconds);
    counts_[static_cast<size_t>(bound - bounds_s_.begin())]++;
    sum_s_ = sum_s_ + seconds;  // there is one writer
}

Metrics* metrics() {
    return g_metrics;
}

void use_metrics(Metrics* metrics) {
    g_metrics = metrics;
}

TurnTimer::TurnTimer() : metrics_(metrics()) {
    if (metrics_) {
        start_ = std::chrono::steady_clock::now();
    }
}

TurnTimer::~TurnTimer() {
    if (metrics_) {
        metrics_->turn.observe(std::chrono::steady_clock::now() - start_);
    }
}

}  // namespace qv
