// The metrics of this process as the metrics library collects them: names, units, help texts.
#pragma once

#include <vector>

#include <prometheus/collectable.h>

#include "platform/base/metrics.h"

namespace qv {

class MetricsPage final : public prometheus::Collectable {
 public:
    // `metrics` must outlive this.
    explicit MetricsPage(const Metrics& metrics) : metrics_(metrics) {}

    // Any thread; reads atomics only.
    std::vector<prometheus::MetricFamily> Collect() const override;

 private:
    const Metrics& metrics_;
};

}  // namespace qv
