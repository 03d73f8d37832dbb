// Reports to a forwarding plane which of its ports have changed.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "platform/client/port_model.h"

namespace qv {

// Calls back with the forwarding-plane id of each port that was added, removed or changed, and with
// both ids when a port has got another one. Loop thread only.
class PortFollower final : public PortObserver {
 public:
    explicit PortFollower(std::function<void(uint32_t phyid)> changed)
        : changed_(std::move(changed)) {}

    void on_added(const Port& port) override { changed_(port.phyid); }
    void on_removed(const Port& port) override { changed_(port.phyid); }
    void on_changed(const Port& before, const Port& after) override {
        changed_(before.phyid);
        if (after.phyid != before.phyid) {
            changed_(after.phyid);
        }
    }
    void on_default(const Port&) override {}
    void on_left_bridge(const Port&) override {}
    void on_complete() override {}

 private:
    const std::function<void(uint32_t phyid)> changed_;
};

}  // namespace qv
