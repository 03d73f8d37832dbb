// A forwarding plane that can install nothing: every rule is refused, with one message in the
// system log.
#pragma once

#include "platform/driver/forwarding_driver.h"
#include "platform/driver/system_log.h"

namespace qv {

// Loop thread only.
class NoForwarding final : public ForwardingDriver {
 public:
    // The log must outlive the driver.
    explicit NoForwarding(SystemLog& log);

    void start(ForwardingSink& sink) override;
    void reserve(ForwardingId id, Table table) override;
    void install(ForwardingId id, std::optional<uint32_t> phyid,
                 const ForwardingRule& rule) override;
    void remove(ForwardingId id) override;
    void remove_leftovers() override;

 private:
    SystemLog& log_;
    ForwardingSink* sink_ = nullptr;
    bool reported_ = false;
};

}  // namespace qv
