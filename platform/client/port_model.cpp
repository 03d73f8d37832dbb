#include "platform/client/port_model.h"

#include <utility>

#include "qv/bridge.h"

namespace qv {

namespace {

bool same(const Port& a, const Port& b) {
    return a.phyid == b.phyid && a.name == b.name && a.type == b.type && a.flags == b.flags &&
           a.switchport == b.switchport && a.mode == b.mode && a.aggregate == b.aggregate &&
           a.vsl == b.vsl && a.admin_up == b.admin_up && a.oper_up == b.oper_up;
}

}  // namespace

PortModel::PortModel(SwitchDriver& driver) : driver_(driver) {}

void PortModel::start() {
    driver_.start(*this);
}

bool PortModel::complete() const {
    return complete_;
}

const Port* PortModel::find(uint32_t ifx) const {
    const auto found = ports_.find(ifx);
    return found == ports_.end() ? nullptr : &found->second;
}

const Port* PortModel::find(std::string_view name) const {
    const auto found = names_.find(name);
    return found == names_.end() ? nullptr : find(found->second);
}

const Port* PortModel::find_phyid(uint32_t phyid) const {
    return find(ifx_of_phyid(phyid));
}

uint32_t PortModel::ifx_of_phyid(uint32_t phyid) const {
    const auto found = phyids_.find(phyid);
    return found == phyids_.end() ? 0 : found->second;
}

const std::map<uint32_t, Port>& PortModel::ports() const {
    return ports_;
}

std::string PortModel::set_admin(uint32_t ifx, bool up) {
    return find(ifx) ? driver_.set_admin(ifx, up) : "no such port";
}

std::map<uint32_t, PortCounters> PortModel::counters(uint32_t ifx) const {
    return driver_.counters(ifx);
}

std::string PortModel::set_mode(uint32_t ifx, uint32_t mode) {
    return find(ifx) ? driver_.set_mode(ifx, mode) : "no such port";
}

void PortModel::restore_defaults(uint32_t ifx) {
    const Port* port = find(ifx);
    if (!port) {
        return;
    }
    for (PortObserver* observer : observers_) {
        observer->on_default(*port);
    }
}

void PortModel::add_observer(PortObserver& observer) {
    observers_.push_back(&observer);
}

void PortModel::port_added(const Port& port) {
    const auto [entry, fresh] = ports_.try_emplace(port.ifx, port);
    if (!fresh) {
        // A driver that reads the whole switch again reports known ports, too.
        port_changed(port);
        return;
    }
    index(port);
    for (PortObserver* observer : observers_) {
        observer->on_added(entry->second);
    }
}

void PortModel::port_removed(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    if (found == ports_.end()) {
        return;
    }
    for (PortObserver* observer : observers_) {
        observer->on_removing(found->second);
    }
    const Port gone = std::move(found->second);
    ports_.erase(found);
    renames_.erase(ifx);
    forget(gone);
    for (PortObserver* observer : observers_) {
        observer->on_removed(gone);
    }
}

void PortModel::port_changed(const Port& port) {
    const auto found = ports_.find(port.ifx);
    if (found == ports_.end() || same(found->second, port)) {
        return;
    }
    const Port before = std::exchange(found->second, port);
    if (before.name != port.name || before.phyid != port.phyid) {
        forget(before);
        index(port);
    }
    for (PortObserver* observer : observers_) {
        observer->on_changed(before, found->second);
    }
    if (before.name != port.name) {
        note_rename(port.ifx, before.name, port.name);
        settle_renames();
    }
}

// A port that is renamed again while its first rename is deferred keeps the name that clients
// know.
void PortModel::note_rename(uint32_t ifx, const std::string& old_name, const std::string& name) {
    const auto waiting = renames_.emplace(ifx, old_name).first;
    if (waiting->second == name) {
        renames_.erase(waiting);
    }
}

void PortModel::set_name_in_use(std::function<bool(const std::string& name)> in_use) {
    name_in_use_ = std::move(in_use);
}

void PortModel::settle_renames() {
    for (auto next = renames_.begin(); next != renames_.end();) {
        const auto rename = next++;
        if (name_in_use_ && name_in_use_(rename->second)) {
            continue;
        }
        const Port& port = ports_.at(rename->first);
        renames_.erase(rename);
        for (PortObserver* observer : observers_) {
            observer->on_renamed(port);
        }
    }
}

void PortModel::port_left_bridge(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    if (found == ports_.end()) {
        return;
    }
    const Port before = found->second;
    found->second.mode = SWPORT_MODE_NONE;
    for (PortObserver* observer : observers_) {
        observer->on_left_bridge(before);
    }
}

void PortModel::ports_complete() {
    if (complete_) {
        return;
    }
    complete_ = true;
    for (PortObserver* observer : observers_) {
        observer->on_complete();
    }
}

void PortModel::index(const Port& port) {
    names_[port.name] = port.ifx;
    if (port.phyid != 0) {
        phyids_[port.phyid] = port.ifx;
    }
}

// While two ports swap their names, both have the same one for a moment; the index then holds the
// port that was reported last. The same is true of ids.
void PortModel::forget(const Port& port) {
    const auto name = names_.find(port.name);
    if (name != names_.end() && name->second == port.ifx) {
        names_.erase(name);
    }
    const auto phyid = phyids_.find(port.phyid);
    if (phyid != phyids_.end() && phyid->second == port.ifx) {
        phyids_.erase(phyid);
    }
}

}  // namespace qv
