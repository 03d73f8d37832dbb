#include "services/tarnd/status_board.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string>
#include <utility>

namespace qv::tarnd {
namespace {

SeenLoop seen_by(const Report& report) {
    return {.ifx = report.ifx,
            .src_ifx = report.src_ifx,
            .vid = shown_vid(report.vid),
            .src_vid = shown_vid(report.src_vid),
            .path = report.path,
            .trigger = report.trigger,
            .time = std::chrono::system_clock::now()};
}

std::string name_of(const ProtobufCEnumDescriptor& type, int value) {
    const ProtobufCEnumValue* const found = protobuf_c_enum_descriptor_get_value(&type, value);
    std::string name = found != nullptr ? found->name : std::to_string(value);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return name;
}

}  // namespace

uint32_t shown_vid(uint16_t vid) {
    constexpr uint32_t kUntaggedVid = 1;
    return vid != 0 ? vid : kUntaggedVid;
}

std::string state_text(PBridge__TarnState state) {
    return name_of(p_bridge__tarn_state__descriptor, state);
}

std::string trigger_text(Trigger trigger) {
    return name_of(p_bridge__tarn_trigger__descriptor, record_of(trigger));
}

PBridge__TarnTrigger record_of(Trigger trigger) {
    switch (trigger) {
        case Trigger::kPeriod:
            return P_BRIDGE__TARN_TRIGGER__PERIOD;
        case Trigger::kMove:
            return P_BRIDGE__TARN_TRIGGER__MOVE;
        case Trigger::kOverrun:
            return P_BRIDGE__TARN_TRIGGER__OVERRUN;
        case Trigger::kCarrier:
            return P_BRIDGE__TARN_TRIGGER__CARRIER;
    }
    return P_BRIDGE__TARN_TRIGGER__PERIOD;
}

void StatusBoard::enable(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    enabled_ = enabled;
    for (const auto& [ifx, port] : ports_) {
        announce_state(ifx);
    }
}

void StatusBoard::configure(uint32_t ifx, const Configured& configured) {
    ports_[ifx].configured = configured;
    announce_state(ifx);
}

void StatusBoard::forget_configuration(uint32_t ifx) {
    ports_[ifx].configured = {};
    announce_state(ifx);
    drop_unused(ifx);
}

void StatusBoard::drop_unused(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    if (found != ports_.end() && !found->second.present && !found->second.cut &&
        !found->second.configured.watched) {
        ports_.erase(found);
    }
}

void StatusBoard::take(const Report& report) {
    switch (report.kind) {
        case Report::Kind::kLoop:
            return take_loop(report);
        case Report::Kind::kEnd:
            return take_end(report);
        case Report::Kind::kCut:
            return take_cut(report);
        case Report::Kind::kPort:
            return take_port(report);
        case Report::Kind::kElsewhere:
        case Report::Kind::kNotElsewhere:
            return;  // not of this bridge
        case Report::Kind::kGuard:
            return take_guard(report);
        case Report::Kind::kAsked:
            return announce({.kind = BoardEvent::Kind::kAsked,
                             .ifx = report.ifx,
                             .loop = {},
                             .error = report.error});
        case Report::Kind::kReturned:
            return announce(
                {.kind = BoardEvent::Kind::kReturned, .ifx = report.ifx, .loop = seen_by(report)});
    }
}

// The configuration outlives the port, which may be back in a moment.
void StatusBoard::take_port(const Report& report) {
    Port& port = ports_[report.ifx];
    port.present = report.present;
    port.forwarding = report.forwarding;
    if (!report.present) {
        port.loop.reset();
        port.cut = false;
        port.closed = false;
    }
    announce_state(report.ifx);
    drop_unused(report.ifx);
}

// A port that could not be closed is open, and one that could not be opened is closed.
void StatusBoard::take_guard(const Report& report) {
    const bool done = report.error == 0;
    ports_[report.ifx].closed = done == report.closed;
    announce_state(report.ifx);
}

void StatusBoard::take_loop(const Report& report) {
    const SeenLoop loop = seen_by(report);
    forget_loop(report.ifx, report.src_vid);
    loops_.emplace(std::pair(report.ifx, report.src_vid), report.src_ifx);
    ++looped_[report.ifx];
    ++looped_[report.src_ifx];
    switch (report.trigger) {
        case Trigger::kPeriod:
            ++counters_.loops_period;
            break;
        case Trigger::kMove:
            ++counters_.loops_move;
            break;
        case Trigger::kOverrun:
            ++counters_.loops_overrun;
            break;
        case Trigger::kCarrier:
            ++counters_.loops_carrier;
            break;
    }
    for (const uint32_t ifx : {report.ifx, report.src_ifx}) {
        ports_[ifx].loop = loop;
    }
    announce({.kind = BoardEvent::Kind::kLoop, .ifx = report.ifx, .loop = loop});
    announce_state(report.ifx);
    announce_state(report.src_ifx);
}

void StatusBoard::forget_loop(uint32_t ifx, uint16_t src_vid) {
    const auto loop = loops_.extract({ifx, src_vid});
    if (!loop) {
        return;
    }
    for (const uint32_t port : {ifx, loop.mapped()}) {
        if (--looped_[port] == 0) {
            looped_.erase(port);
        }
    }
}

void StatusBoard::take_end(const Report& report) {
    forget_loop(report.ifx, report.src_vid);
    announce({.kind = BoardEvent::Kind::kEnd, .ifx = report.ifx, .loop = seen_by(report)});
    announce_state(report.ifx);
    announce_state(report.src_ifx);
}

void StatusBoard::take_cut(const Report& report) {
    const bool done = report.error == 0;
    ++(done ? counters_.cuts : counters_.cuts_failed);
    announce({.kind = done ? BoardEvent::Kind::kCut : BoardEvent::Kind::kCutFailed,
              .ifx = report.ifx,
              .loop = {},
              .error = report.error});
    announce_state(report.ifx);
}

void StatusBoard::begin_cut(uint32_t ifx) {
    ports_[ifx].cut = true;
    announce_state(ifx);
}

void StatusBoard::end_cut(uint32_t ifx) {
    ports_[ifx].cut = false;
    announce_state(ifx);
    drop_unused(ifx);
}

void StatusBoard::give_back(uint32_t ifx, int error) {
    ports_[ifx].cut = error != 0 && error != ENODEV;
    counters_.given_back += error == 0 ? 1 : 0;
    announce({.kind = BoardEvent::Kind::kGivenBack, .ifx = ifx, .loop = {}, .error = error});
    announce_state(ifx);
    drop_unused(ifx);
}

std::vector<uint32_t> StatusBoard::ports() const {
    std::vector<uint32_t> found;
    for (const auto& [ifx, port] : ports_) {
        if (port.present) {
            found.push_back(ifx);
        }
    }
    return found;
}

uint32_t StatusBoard::next_port(uint32_t ifx) const {
    const auto next = std::find_if(ports_.upper_bound(ifx), ports_.end(),
                                   [](const auto& entry) { return entry.second.present; });
    return next != ports_.end() ? next->first : 0;
}

PBridge__TarnState StatusBoard::state_of(uint32_t ifx, const Port& port) const {
    if (port.cut) {
        return P_BRIDGE__TARN_STATE__CUT;
    }
    if (port.configured.shut) {
        return P_BRIDGE__TARN_STATE__SHUT;
    }
    if (looped_.contains(ifx)) {
        return P_BRIDGE__TARN_STATE__LOOPED;
    }
    if (!enabled_ || !port.configured.watched) {
        return P_BRIDGE__TARN_STATE__OFF;
    }
    if (!port.forwarding) {
        return P_BRIDGE__TARN_STATE__INACTIVE;
    }
    return port.closed ? P_BRIDGE__TARN_STATE__GUARDED : P_BRIDGE__TARN_STATE__PROBING;
}

std::optional<PortStatus> StatusBoard::status(uint32_t ifx) const {
    const auto found = ports_.find(ifx);
    if (found == ports_.end() || !found->second.present) {
        return std::nullopt;
    }
    const Port& port = found->second;
    return PortStatus{.state = state_of(ifx, port),
                      .vlan_mode = port.configured.vlan_mode,
                      .guard_ms = port.configured.guard_ms,
                      .loop = port.loop};
}

void StatusBoard::observe(std::function<void(const BoardEvent&)> observer) {
    observers_.push_back(std::move(observer));
}

void StatusBoard::announce(const BoardEvent& event) const {
    for (const auto& observer : observers_) {
        observer(event);
    }
}

void StatusBoard::announce_state(uint32_t ifx) const {
    announce({.kind = BoardEvent::Kind::kState, .ifx = ifx});
}

}  // namespace qv::tarnd
