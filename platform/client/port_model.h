// The one table of ports in the process. A driver feeds it; the LSM, bridge and mapping clients and
// the command line read it. Loop thread only.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// Called for every change, from the loop. An observer must not change the model from inside a call.
class PortObserver {
 public:
    virtual ~PortObserver() = default;
    virtual void on_added(const Port& port) = 0;
    // Called before a port is removed; model, clients and command line still know it.
    virtual void on_removing(const Port&) {}
    virtual void on_removed(const Port& port) = 0;  // the port as it was
    virtual void on_changed(const Port& before, const Port& after) = 0;
    // Called when a port has a new name; the LSM client reports that as a removal and an addition.
    // Follows on_changed(), either at once or when the old name is no longer in use.
    virtual void on_renamed(const Port&) {}
    virtual void on_default(const Port& port) = 0;      // configuration set back to its defaults
    virtual void on_left_bridge(const Port& port) = 0;  // the port as it was
    virtual void on_complete() = 0;
};

class PortModel final : public PortSink {
 public:
    explicit PortModel(SwitchDriver& driver);

    void start();  // call once, when the loop exists
    bool complete() const;

    const Port* find(uint32_t ifx) const;           // null when unknown
    const Port* find(std::string_view name) const;  // by short name
    const Port* find_phyid(uint32_t phyid) const;   // by forwarding-plane id; no port has 0
    uint32_t ifx_of_phyid(uint32_t phyid) const;    // 0 when unknown
    const std::map<uint32_t, Port>& ports() const;  // ascending interface index

    // Requests of the command line. Empty when done, else the reason.
    std::string set_admin(uint32_t ifx, bool up);
    std::string set_mode(uint32_t ifx, uint32_t mode);
    // The counters of a port, or of all when `ifx` is 0; see SwitchDriver::counters().
    std::map<uint32_t, PortCounters> counters(uint32_t ifx) const;
    // "default interface": notifies the observers after the command line has cleared the port's
    // lines.
    void restore_defaults(uint32_t ifx);

    // Observers stay registered for the life of the model.
    void add_observer(PortObserver& observer);

    // on_renamed() is deferred while `in_use` is true for the port's old name; settle_renames()
    // asks again. Without a function nothing is deferred.
    void set_name_in_use(std::function<bool(const std::string& name)> in_use);
    void settle_renames();

    void port_added(const Port& port) override;
    void port_removed(uint32_t ifx) override;
    void port_changed(const Port& port) override;
    void port_left_bridge(uint32_t ifx) override;
    void ports_complete() override;

 private:
    void index(const Port& port);
    void forget(const Port& port);
    void note_rename(uint32_t ifx, const std::string& old_name, const std::string& name);

    SwitchDriver& driver_;
    std::map<uint32_t, Port> ports_;
    std::map<std::string, uint32_t, std::less<>> names_;  // short name to interface index
    std::unordered_map<uint32_t, uint32_t> phyids_;       // forwarding-plane id to interface index
    std::vector<PortObserver*> observers_;
    std::map<uint32_t, std::string> renames_;  // deferred: the name that clients know
    std::function<bool(const std::string& name)> name_in_use_;
    bool complete_ = false;
};

}  // namespace qv
