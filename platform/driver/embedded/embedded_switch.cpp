#include "platform/driver/embedded/embedded_switch.h"

#include <algorithm>
#include <charconv>

#include "qv/bridge.h"
#include "qv/lsm.h"

namespace qv {
namespace {

constexpr size_t kMaxName = 63;
constexpr uint32_t kMaxIndex = 65535;
constexpr std::string_view kPrefix = "swp";
constexpr const char* kNoPort = "no such port";

bool forwards(const Port& port) {
    return port.oper_up && port.mode != SWPORT_MODE_NONE;
}

}  // namespace

EmbeddedSwitch::EmbeddedSwitch(EventLoop& loop, unsigned ports) : loop_(loop) {
    for (unsigned n = 1; n <= ports; n++) {
        Port port;
        port.ifx = port.phyid = n;
        port.name = std::string(kPrefix) + std::to_string(n);
        members_[n].port = std::move(port);
    }
    highest_ = ports;
}

void EmbeddedSwitch::start(PortSink& sink) {
    sink_ = &sink;
    loop_.post([this] {
        reported_ = true;
        for (const auto& [ifx, member] : members_) {
            sink_->port_added(member.port);
        }
        sink_->ports_complete();
        for (const auto& [ifx, member] : members_) {
            wiring_changed(ifx, 0);
        }
    });
}

std::string EmbeddedSwitch::set_admin(uint32_t ifx, bool up) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    member->port.admin_up = member->port.oper_up = up;
    changed(*member);
    return "";
}

std::string EmbeddedSwitch::set_mode(uint32_t ifx, uint32_t mode) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    if (mode != SWPORT_MODE_ACCESS && mode != SWPORT_MODE_TRUNK && mode != SWPORT_MODE_HYBRID) {
        return "no such VLAN mode";
    }
    member->port.mode = mode;
    changed(*member);
    return "";
}

std::string EmbeddedSwitch::add_port(std::string_view name) {
    return add(name, LSM_TYPE_ETHERNET);
}

std::string EmbeddedSwitch::add_aggregate(std::string_view name) {
    return add(name, LSM_TYPE_AGGREGATE);
}

std::string EmbeddedSwitch::add(std::string_view name, uint32_t type) {
    const std::string fault = name_fault(name);
    const uint32_t ifx = index_for(name);
    if (!fault.empty() || ifx > kMaxIndex) {
        return fault.empty() ? "no interface index left" : fault;
    }
    Port port;
    port.ifx = ifx;
    port.phyid = type == LSM_TYPE_AGGREGATE ? 0 : ifx;
    port.name = name;
    port.type = type;
    highest_ = std::max(highest_, ifx);
    members_[ifx].port = port;
    if (reported_) {
        sink_->port_added(port);
    }
    return "";
}

std::string EmbeddedSwitch::delete_port(uint32_t ifx) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    const uint32_t far_end = member->cable;
    cut_cable(*member);
    member->storm = 0;
    member->port.aggregate = 0;
    if (reported_) {
        sink_->port_changed(member->port);
    }
    wiring_changed(ifx, far_end);
    for (auto& [other, candidate] : members_) {
        if (candidate.port.aggregate == ifx) {
            candidate.port.aggregate = 0;
            changed(candidate);
        }
    }
    members_.erase(ifx);
    if (reported_) {
        sink_->port_removed(ifx);
    }
    return "";
}

std::string EmbeddedSwitch::rename_port(uint32_t ifx, std::string_view name) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    std::string fault = name_fault(name);
    if (fault.empty()) {
        member->port.name = name;
        changed(*member);
    }
    return fault;
}

std::string EmbeddedSwitch::leave_bridge(uint32_t ifx) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    if (member->port.mode == SWPORT_MODE_NONE) {
        return member->port.name + " is in no bridge";
    }
    member->port.mode = SWPORT_MODE_NONE;
    if (reported_) {
        sink_->port_left_bridge(ifx);
        wiring_changed(ifx, member->cable);
    }
    return "";
}

std::string EmbeddedSwitch::join_aggregate(uint32_t aggregate, uint32_t member) {
    const Member* whole = find(aggregate);
    Member* joining = find(member);
    if (!whole || !joining) {
        return kNoPort;
    }
    if (whole->port.type != LSM_TYPE_AGGREGATE) {
        return whole->port.name + " is not an aggregate port";
    }
    if (joining->port.type == LSM_TYPE_AGGREGATE) {
        return joining->port.name + " is an aggregate port itself";
    }
    if (joining->port.aggregate != 0) {
        return joining->port.name + " is a member of an aggregate port already";
    }
    joining->port.aggregate = aggregate;
    changed(*joining);
    return "";
}

std::string EmbeddedSwitch::leave_aggregate(uint32_t aggregate, uint32_t member) {
    Member* leaving = find(member);
    if (!find(aggregate) || !leaving) {
        return kNoPort;
    }
    if (leaving->port.aggregate != aggregate) {
        return leaving->port.name + " is not a member of that aggregate port";
    }
    leaving->port.aggregate = 0;
    changed(*leaving);
    return "";
}

std::string EmbeddedSwitch::create_vsl(uint32_t ifx) {
    return set_vsl(ifx, true);
}

std::string EmbeddedSwitch::remove_vsl(uint32_t ifx) {
    return set_vsl(ifx, false);
}

std::string EmbeddedSwitch::set_vsl(uint32_t ifx, bool vsl) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    if (member->port.vsl == vsl) {
        return member->port.name +
               (vsl ? " is a virtual switch link already" : " is not a virtual switch link");
    }
    member->port.vsl = vsl;
    changed(*member);
    return "";
}

std::string EmbeddedSwitch::plug(uint32_t a, uint32_t b) {
    Member* one = find(a);
    Member* other = find(b);
    if (!one || !other) {
        return kNoPort;
    }
    for (const Member* end : {one, other}) {
        if (end->port.type == LSM_TYPE_AGGREGATE) {
            return end->port.name + " is an aggregate port and takes no cable";
        }
        if (end->cable != 0) {
            return end->port.name + " has a cable already";
        }
    }
    one->cable = b;
    other->cable = a;
    wiring_changed(a, b);
    return "";
}

std::string EmbeddedSwitch::unplug(uint32_t a, uint32_t b) {
    Member* one = find(a);
    if (!one || !find(b)) {
        return kNoPort;
    }
    if (one->cable != b) {
        return "no cable between these ports";
    }
    cut_cable(*one);
    wiring_changed(a, b);
    return "";
}

std::string EmbeddedSwitch::set_storm(uint32_t ifx, uint64_t pps) {
    Member* member = find(ifx);
    if (!member) {
        return kNoPort;
    }
    if (member->port.phyid == 0) {
        return member->port.name + " is an aggregate port and receives nothing of its own";
    }
    member->storm = pps;
    update_rate(ifx);
    return "";
}

const Port* EmbeddedSwitch::find_port(std::string_view name) const {
    for (const auto& [ifx, member] : members_) {
        if (member.port.name == name) {
            return &member.port;
        }
    }
    return nullptr;
}

bool EmbeddedSwitch::has_cable(uint32_t ifx) const {
    const Member* member = find(ifx);
    return member && member->cable != 0;
}

std::optional<uint32_t> EmbeddedSwitch::loop_peer(uint32_t ifx) const {
    const Member* member = find(ifx);
    const Member* peer = member ? find(member->cable) : nullptr;
    if (!peer || !forwards(member->port) || !forwards(peer->port)) {
        return std::nullopt;
    }
    return peer->port.ifx;
}

void EmbeddedSwitch::set_wiring_listener(std::function<void(uint32_t)> listener) {
    wiring_listener_ = std::move(listener);
}

void EmbeddedSwitch::set_rate_listener(std::function<void(uint32_t, uint64_t)> listener) {
    rate_listener_ = std::move(listener);
}

EmbeddedSwitch::Member* EmbeddedSwitch::find(uint32_t ifx) {
    const auto found = members_.find(ifx);
    return found == members_.end() ? nullptr : &found->second;
}

const EmbeddedSwitch::Member* EmbeddedSwitch::find(uint32_t ifx) const {
    const auto found = members_.find(ifx);
    return found == members_.end() ? nullptr : &found->second;
}

std::string EmbeddedSwitch::name_fault(std::string_view name) const {
    const bool plain =
        std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 127; });
    if (name.empty() || name.size() > kMaxName || !plain) {
        return "a port name has 1 to 63 printable characters without blanks";
    }
    const Port* taken = find_port(name);
    return taken ? "port " + taken->name + " exists already" : "";
}

uint32_t EmbeddedSwitch::index_for(std::string_view name) const {
    uint32_t number = 0;
    if (name.starts_with(kPrefix)) {
        const char* end = name.data() + name.size();
        const auto [stop, error] = std::from_chars(name.data() + kPrefix.size(), end, number);
        const bool whole = error == std::errc() && stop == end;
        if (whole && number >= 1 && number <= kMaxIndex && !find(number)) {
            return number;
        }
    }
    return highest_ + 1;
}

void EmbeddedSwitch::cut_cable(Member& member) {
    if (Member* peer = find(member.cable)) {
        peer->cable = 0;
    }
    member.cable = 0;
}

void EmbeddedSwitch::changed(const Member& member) {
    if (reported_) {
        sink_->port_changed(member.port);
        wiring_changed(member.port.ifx, member.cable);
    }
}

// A change of one port affects only itself and the far end of its cable (0 for none), so a change
// stays cheap with thousands of ports.
void EmbeddedSwitch::wiring_changed(uint32_t ifx, uint32_t far_end) {
    const uint32_t low = far_end != 0 ? std::min(ifx, far_end) : ifx;
    const uint32_t high = std::max(ifx, far_end);
    update_rate(low);
    update_rate(high);
    if (wiring_listener_) {
        wiring_listener_(low);
        if (high != low) {
            wiring_listener_(high);
        }
    }
}

// Reports the flooded packets per second of a port when they have changed.
void EmbeddedSwitch::update_rate(uint32_t ifx) {
    Member* member = find(ifx);
    if (!member) {
        return;
    }
    const std::optional<uint32_t> peer = loop_peer(ifx);
    const uint64_t looping = peer && *peer != ifx ? kLoopRate : 0;
    const uint64_t rate = forwards(member->port) ? member->storm + looping : 0;
    if (rate == member->rate) {
        return;
    }
    member->rate = rate;
    if (rate_listener_) {
        rate_listener_(member->port.phyid, rate);
    }
}

}  // namespace qv
