// Serves the metrics of this process over HTTP under /metrics, in the text format of Prometheus.
//
// The library's threads accept and answer requests and read atomics only, so no client can hold up
// the loop. Their number, the waiting connections and the time for a request are limited: slow
// clients keep each other waiting, and nobody else. Loop thread only, but for those threads.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/base/metrics.h"

namespace prometheus {
class Exposer;
}

namespace qv {

class MetricsPage;

class MetricsServer {
 public:
    static constexpr std::chrono::seconds kRetryAfter{30};

    // `address` as parse_loopback_address() takes it. An address that cannot be used is logged once
    // and tried again every kRetryAfter.
    MetricsServer(EventLoop& loop, std::string address);
    // Waits for requests that are being answered, two seconds at most.
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // The figures that are served. They live as long as this object.
    Metrics& metrics() { return metrics_; }

 private:
    void listen();
    std::string try_listen();

    EventLoop& loop_;
    const std::string address_;
    Metrics metrics_;
    const std::shared_ptr<MetricsPage> page_;
    std::unique_ptr<prometheus::Exposer> exposer_;  // null while the address cannot be used
    std::string trouble_;                           // as logged
    EventLoop::Handle retry_;
};

}  // namespace qv
