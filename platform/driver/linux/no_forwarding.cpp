#include "platform/driver/linux/no_forwarding.h"

#include <cerrno>

#include "qv/syslog.h"

namespace qv {

NoForwarding::NoForwarding(SystemLog& log) : log_(log) {}

void NoForwarding::start(ForwardingSink& sink) {
    sink_ = &sink;
}

void NoForwarding::reserve(ForwardingId id, Table) {
    sink_->done(id);
}

void NoForwarding::install(ForwardingId id, std::optional<uint32_t>, const ForwardingRule&) {
    if (!reported_) {
        reported_ = true;
        log_.write({.severity = SYSLOG_SEVERITY_ERROR,
                    .facility = "FORWARDING",
                    .mnemonic = "UNAVAILABLE",
                    .text = "This switch has no forwarding-plane rules: storm-loop-detect finds "
                            "nothing."});
    }
    sink_->failed(id, EOPNOTSUPP);
}

void NoForwarding::remove(ForwardingId) {}

void NoForwarding::remove_leftovers() {}

}  // namespace qv
