#include "platform/driver/embedded/loop_probe.h"

#include <optional>
#include <utility>

namespace qv {

LoopProbe::LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Enabled enabled, Publish publish)
    : loop_(loop), ports_(ports), enabled_(std::move(enabled)), publish_(std::move(publish)) {
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
        report_end(ifx, cable);
    } else if (!cable.timer) {
        arm(ifx, cable, fresh ? Duration::zero() : kInterval);
    }
    if (!plugged && !cable.timer) {
        cables_.erase(ifx);
    }
}

void LoopProbe::probe(uint32_t ifx) {
    Cable& cable = cables_.at(ifx);
    const std::optional<uint32_t> peer = ports_.loop_peer(ifx);
    if (!peer || !enabled_(ifx)) {
        report_end(ifx, cable);
    } else if (publish_({.ifx = ifx, .src_ifx = *peer, .is_loop = true})) {
        cable.peer = *peer;
        cable.reported = true;
    }
    if (peer) {
        arm(ifx, cable, kInterval);
    } else if (!cable.timer && !ports_.has_cable(ifx)) {
        cables_.erase(ifx);
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
