#include "platform/driver/embedded/loop_probe.h"

#include <iterator>
#include <optional>
#include <utility>

namespace qv {

LoopProbe::LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Enabled enabled, Publish publish)
    : loop_(loop), ports_(ports), enabled_(std::move(enabled)), publish_(std::move(publish)) {
    ports_.set_wiring_listener([this] { wiring_changed(); });
}

void LoopProbe::wiring_changed() {
    for (const uint32_t ifx : ports_.plugged_ports()) {
        const auto [entry, fresh] = cables_.try_emplace(ifx);
        if (ports_.loop_peer(ifx) && !entry->second.timer) {
            arm(ifx, entry->second, fresh ? Duration::zero() : kInterval);
        }
    }
    for (auto entry = cables_.begin(); entry != cables_.end();) {
        auto& [ifx, cable] = *entry;
        if (!ports_.loop_peer(ifx)) {
            cable.timer.reset();
            report_end(ifx, cable);
        }
        entry = cable.timer || ports_.has_cable(ifx) ? std::next(entry) : cables_.erase(entry);
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
