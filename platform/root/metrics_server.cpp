#include "platform/root/metrics_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include <prometheus/exposer.h>

#include "platform/base/loopback_address.h"
#include "platform/base/message_log.h"
#include "platform/root/metrics_page.h"
#include "qv/syslog.h"

namespace qv {
namespace {

// Connections beyond the threads wait in the queue, then in the kernel's backlog, and are then
// refused. The time is for reading a request and for writing its answer.
std::vector<std::string> server_options(const std::string& address) {
    return {"listening_ports", address, "num_threads",        "2",    "connection_queue", "8",
            "listen_backlog",  "16",    "request_timeout_ms", "2000", "max_request_size", "4096"};
}

// Binds a socket for a moment, because the library does not tell why it cannot listen. Returns the
// reason; empty when the address is free.
std::string obstacle_to(const sockaddr_in& address) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return std::strerror(errno);
    }
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int reason = errno;
    ::close(fd);
    return bound ? "" : std::strerror(reason);
}

}  // namespace

MetricsServer::MetricsServer(EventLoop& loop, std::string address)
    : loop_(loop), address_(std::move(address)), page_(std::make_shared<MetricsPage>(metrics_)) {
    listen();
}

MetricsServer::~MetricsServer() = default;

void MetricsServer::listen() {
    const std::string trouble = try_listen();
    if (!trouble.empty()) {
        retry_ = loop_.after(kRetryAfter, [this] { listen(); });
    }
    if (!trouble.empty() && trouble != trouble_) {
        log_message(SYSLOG_SEVERITY_WARNING, "METRICS", "LISTEN",
                    "The metrics are not served on %s: %s.", address_.c_str(), trouble.c_str());
    } else if (trouble.empty() && !trouble_.empty()) {
        log_message(SYSLOG_SEVERITY_INFO, "METRICS", "LISTEN", "The metrics are served on %s.",
                    address_.c_str());
    }
    trouble_ = trouble;
}

// Returns the reason why it cannot listen; empty when it does.
std::string MetricsServer::try_listen() {
    const std::optional<sockaddr_in> address = parse_loopback_address(address_);
    std::string obstacle = address ? obstacle_to(*address) : "not a loopback address";
    if (!obstacle.empty()) {
        return obstacle;
    }
    try {
        exposer_ = std::make_unique<prometheus::Exposer>(server_options(address_));
        exposer_->RegisterCollectable(page_);
        return {};
    } catch (const std::exception& failure) {
        exposer_.reset();
        return failure.what();
    }
}

}  // namespace qv
