#include "platform/driver/embedded/loop_probe.h"

#include <optional>
#include <utility>

namespace qv {

LoopProbe::LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Rules rules, Publish publish)
    : loop_(loop), ports_(ports), rules_(std::move(rules)), publish_(std::move(publish)) {
    ports_.set_wiring_listener([this](uint32_t ifx) { wiring_changed(ifx); });
}

void LoopProbe::wiring_changed(uint32_t ifx) {
    const bool plugged = ports_.has_cable(ifx);
    const bool fresh = !cables_.contains(ifx);
    if (fresh && !plugged) {
        return;
    }
    Cable& cable = cables_[ifx];
    if (!ports_.loop_peer(ifx)) {
        cable.timer.reset();
        set_guarded(ifx, cable, false);
        report_end(ifx, cable);
    } else if (!cable.timer) {
        const Duration guard = rules_.guard(ifx);
        set_guarded(ifx, cable, guard > Duration::zero());
        cable.periodic = false;
        arm(ifx, cable, cable.guarded ? guard : fresh ? Duration::zero() : kInterval);
    }
    if (!plugged && !cable.timer) {
        cables_.erase(ifx);
    }
}

void LoopProbe::probe(uint32_t ifx) {
    Cable& cable = cables_.at(ifx);
    const std::optional<uint32_t> peer = ports_.loop_peer(ifx);
    const uint32_t alone = peer && *peer != ifx ? rules_.choose(ifx, *peer) : 0;
    const bool spared = alone != 0 && alone != ifx && rules_.enabled(alone);
    const uint32_t source = alone != 0 ? ifx : peer.value_or(0);
    const bool periodic = std::exchange(cable.periodic, true);
    set_guarded(ifx, cable, false);
    if (!peer || !rules_.enabled(ifx) || spared) {
        report_end(ifx, cable);
    } else if (publish_({.ifx = ifx, .src_ifx = source, .is_loop = true, .periodic = periodic})) {
        cable.peer = source;
        cable.reported = true;
    }
    if (peer) {
        arm(ifx, cable, kInterval);
    } else if (!cable.timer && !ports_.has_cable(ifx)) {
        cables_.erase(ifx);
    }
}

bool LoopProbe::guarded(uint32_t ifx) const {
    const auto found = cables_.find(ifx);
    return found != cables_.end() && found->second.guarded;
}

void LoopProbe::set_guarded(uint32_t ifx, Cable& cable, bool guarded) {
    if (std::exchange(cable.guarded, guarded) != guarded) {
        rules_.guard_changed(ifx);
    }
}

void LoopProbe::arm(uint32_t ifx, Cable& cable, Duration delay) {
    cable.timer = loop_.after(delay, [this, ifx] { probe(ifx); });
}

void LoopProbe::report_end(uint32_t ifx, Cable& cable) {
    if (!cable.reported) {
        return;
    }
    if (publish_({.ifx = ifx, .src_ifx = cable.peer, .is_loop = false})) {
        cable.reported = false;
    } else {
        arm(ifx, cable, kInterval);
    }
}

}  // namespace qv
