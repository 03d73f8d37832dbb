#include "platform/driver/linux/bridge_ports.h"

#include <utility>
#include <vector>

#include "qv/bridge.h"
#include "qv/lsm.h"

namespace qv {
namespace {

bool same(const Port& a, const Port& b) {
    return a.phyid == b.phyid && a.name == b.name && a.type == b.type && a.mode == b.mode &&
           a.admin_up == b.admin_up && a.oper_up == b.oper_up;
}

Port port_of(const LinkMessage& link, uint32_t mode) {
    const bool aggregate = link.kind == "bond" || link.kind == "team";
    Port port;
    port.ifx = link.ifx;
    port.phyid = link.bridge_port;
    port.name = link.name;
    port.type = aggregate ? LSM_TYPE_AGGREGATE : LSM_TYPE_ETHERNET;
    port.mode = mode;
    port.admin_up = link.admin_up;
    port.oper_up = link.oper_up;
    return port;
}

}  // namespace

BridgePorts::BridgePorts(std::string bridge, PortSink& sink)
    : bridge_(std::move(bridge)), sink_(sink) {}

void BridgePorts::begin_dump() {
    ++dump_;
    dumping_ = true;
}

void BridgePorts::end_dump() {
    dumping_ = false;
    std::erase_if(links_, [this](const auto& entry) { return entry.second.dump != dump_; });
    if (!links_.contains(bridge_ifx_)) {
        bridge_ifx_ = 0;
    }
    report_all();
}

void BridgePorts::take(const LinkMessage& message) {
    if (message.removed) {
        links_.erase(message.ifx);
    } else {
        links_.insert_or_assign(message.ifx, Link{message, dump_});
    }
    const bool bridge_changed = follow_bridge(message);
    if (dumping_) {
        return;
    }
    if (bridge_changed) {
        report_all();
    } else {
        report(message.ifx);
    }
}

const Port* BridgePorts::find(uint32_t ifx) const {
    const auto found = reported_.find(ifx);
    return found != reported_.end() ? &found->second : nullptr;
}

void BridgePorts::set_mode(uint32_t ifx, uint32_t mode) {
    const auto found = reported_.find(ifx);
    if (found == reported_.end() || found->second.mode == mode) {
        return;
    }
    found->second.mode = mode;
    sink_.port_changed(Port(found->second));
}

void BridgePorts::set_admin(uint32_t ifx, bool up) {
    const auto found = reported_.find(ifx);
    if (found == reported_.end() || found->second.admin_up == up) {
        return;
    }
    // A port that is shut passes nothing; a message reports when a port that is up can pass
    // packets.
    Port& port = found->second;
    port.admin_up = up;
    port.oper_up = port.oper_up && up;
    if (const auto link = links_.find(ifx); link != links_.end()) {
        link->second.state.admin_up = port.admin_up;
        link->second.state.oper_up = port.oper_up;
    }
    sink_.port_changed(Port(port));
}

// Returns the link when it is a member of our bridge, else null.
const LinkMessage* BridgePorts::member(uint32_t ifx) const {
    const auto found = links_.find(ifx);
    if (found == links_.end() || bridge_ifx_ == 0 || found->second.state.master != bridge_ifx_) {
        return nullptr;
    }
    return &found->second.state;
}

// Updates bridge_ifx_; true when it has changed. A link of another kind with the bridge's name does
// not count, and neither does a bridge that was renamed.
bool BridgePorts::follow_bridge(const LinkMessage& message) {
    const uint32_t before = bridge_ifx_;
    if (!message.removed && message.kind == "bridge" && message.name == bridge_) {
        bridge_ifx_ = message.ifx;
    } else if (message.ifx == bridge_ifx_) {
        bridge_ifx_ = 0;
    }
    return bridge_ifx_ != before;
}

void BridgePorts::report(uint32_t ifx) {
    const LinkMessage* const link = member(ifx);
    const auto found = reported_.find(ifx);
    if (link == nullptr) {
        if (found != reported_.end()) {
            report_removed(ifx);
        }
        return;
    }
    // The sink gets copies, because it may request a change from inside the call.
    if (found == reported_.end()) {
        const Port port = port_of(*link, SWPORT_MODE_ACCESS);
        reported_.emplace(ifx, port);
        sink_.port_added(port);
        return;
    }
    const Port port = port_of(*link, found->second.mode);
    if (!same(port, found->second)) {
        found->second = port;
        sink_.port_changed(port);
    }
}

void BridgePorts::report_removed(uint32_t ifx) {
    reported_.erase(ifx);
    if (links_.contains(ifx)) {
        sink_.port_left_bridge(ifx);
    }
    sink_.port_removed(ifx);
}

void BridgePorts::report_all() {
    std::vector<uint32_t> gone;
    for (const auto& [ifx, port] : reported_) {
        if (member(ifx) == nullptr) {
            gone.push_back(ifx);
        }
    }
    for (const uint32_t ifx : gone) {
        report_removed(ifx);
    }
    for (const auto& [ifx, link] : links_) {
        report(ifx);
    }
}

}  // namespace qv
