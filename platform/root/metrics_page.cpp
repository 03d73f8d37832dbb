#include "platform/root/metrics_page.h"

#include <limits>
#include <string>
#include <utility>

#include <prometheus/metric_family.h>

namespace qv {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

MetricFamily counter(const char* name, const char* help, uint64_t value) {
    ClientMetric metric;
    metric.counter.value = static_cast<double>(value);
    return {name, help, MetricType::Counter, {metric}};
}

MetricFamily gauge(const char* name, const char* help, uint64_t value) {
    ClientMetric metric;
    metric.gauge.value = static_cast<double>(value);
    return {name, help, MetricType::Gauge, {metric}};
}

MetricFamily histogram(const char* name, const char* help, const DurationHistogram& durations) {
    ClientMetric metric;
    uint64_t total = 0;
    const std::vector<double>& bounds = durations.bounds_s();
    for (size_t bucket = 0; bucket <= bounds.size(); bucket++) {
        const double bound =
            bucket < bounds.size() ? bounds[bucket] : std::numeric_limits<double>::infinity();
        total += durations.count(bucket);
        metric.histogram.bucket.push_back({total, bound});
    }
    metric.histogram.sample_count = total;
    metric.histogram.sample_sum = durations.sum_s();
    return {name, help, MetricType::Histogram, {metric}};
}

MetricFamily loops_found(const Metrics& metrics) {
    ClientMetric by_probe;
    by_probe.label = {{"source", "tarn"}};
    by_probe.counter.value = static_cast<double>(metrics.loops_by_probe);
    ClientMetric by_storm;
    by_storm.label = {{"source", "storm"}};
    by_storm.counter.value = static_cast<double>(metrics.loops_by_storm);
    return {"lda_loops_found_total",
            "Ports that entered the loop table, by the source that found the loop.",
            MetricType::Counter,
            {by_probe, by_storm}};
}

MetricFamily build_info() {
    ClientMetric metric;
    metric.label = {{"version", LDA_VERSION}};
    metric.gauge.value = 1;
    return {"lda_build_info", "Always 1; the label has the version.", MetricType::Gauge, {metric}};
}

}  // namespace

std::vector<MetricFamily> MetricsPage::Collect() const {
    const Metrics& now = metrics_;
    return {
        build_info(),
        gauge("lda_looped_ports", "Ports in the loop table.", now.looped_ports),
        gauge("lda_held_ports", "Ports that the agent holds shut.", now.held_ports),
        loops_found(now),
        counter("lda_shutdowns_total", "Ports that the agent shut.", now.shutdowns),
        counter("lda_shutdowns_refused_total", "Shutdowns that the switch refused.",
                now.shutdowns_refused),
        counter("lda_recoveries_total", "Ports that the agent brought up.", now.recoveries),
        counter("lda_recoveries_refused_total", "Recoveries that the switch refused.",
                now.recoveries_refused),
        histogram("lda_reaction_seconds",
                  "Time from the report of a loop to the acknowledged shutdown of its port.",
                  now.reaction),
        gauge("lda_deferred_tasks", "Tasks that wait until the event loop has nothing else to do.",
              now.deferred_tasks),
        histogram("lda_loop_turn_seconds", "Time that one piece of work takes from the event loop.",
                  now.turn),
        gauge("lda_databases_away", "Databases that the agent needs and cannot reach.",
              now.databases_away),
        counter("lda_database_reconnects_total", "Databases that came back after a loss.",
                now.database_reconnects),
        counter("lda_records_set_again_total", "Records that a database had lost.",
                now.records_set_again),
        counter("lda_config_saves_total", "Saves of the configuration.", now.config_saves),
        counter("lda_config_save_failures_total", "Saves of the configuration that failed.",
                now.config_save_failures),
    };
}

}  // namespace qv
