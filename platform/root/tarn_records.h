// The records from which the loop-probe service takes its configuration: p_bridge.tarn_config and
// one p_bridge.tarn_port for each port, in the configuration database.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "platform/base/event_loop.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/port_model.h"
#include "platform/driver/switch_driver.h"

struct qv_mom_client;

namespace qv {

// A switch driver that remembers which ports were shut through it. Loop thread only.
class ShutPorts final : public SwitchDriver {
 public:
    // `changed` is called after each request that the driver has carried out.
    ShutPorts(SwitchDriver& driver, std::function<void(uint32_t ifx)> changed)
        : driver_(driver), changed_(std::move(changed)) {}

    void start(PortSink& sink) override { driver_.start(sink); }
    std::string set_admin(uint32_t ifx, bool up) override;
    std::string set_mode(uint32_t ifx, uint32_t mode) override {
        return driver_.set_mode(ifx, mode);
    }
    std::map<uint32_t, PortCounters> counters(uint32_t ifx) override {
        return driver_.counters(ifx);
    }

    bool contains(uint32_t ifx) const { return shut_.contains(ifx); }
    void forget(uint32_t ifx) { shut_.erase(ifx); }

 private:
    SwitchDriver& driver_;
    const std::function<void(uint32_t ifx)> changed_;
    std::set<uint32_t> shut_;
};

// Keeps the records up to date, from its creation on. Lives as long as the process. Loop thread
// only.
class TarnRecords final : public PortObserver {
 public:
    // Everything must outlive the records.
    TarnRecords(EventLoop& loop, PortModel& ports, ShutPorts& shut);

    // Call when something in a port's record has changed.
    void port_changed(uint32_t ifx);

    void on_added(const Port& port) override { port_changed(port.ifx); }
    void on_removed(const Port& port) override;
    void on_changed(const Port&, const Port& after) override { port_changed(after.ifx); }
    void on_default(const Port& port) override { port_changed(port.ifx); }
    void on_left_bridge(const Port&) override {}
    void on_complete() override {}

 private:
    struct Published {
        cli::TarnPort lines;
        uint32_t vlan_mode;
        bool shut;

        bool operator==(const Published&) const = default;
    };

    void publish_all();
    void publish_switch();

    PortModel& ports_;
    ShutPorts& shut_;
    qv_mom_client* client_;
    std::map<uint32_t, Published> published_;  // contents of the records
};

}  // namespace qv
