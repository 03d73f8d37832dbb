#include "platform/driver/embedded/loop_probe.h"

#include <utility>
#include <vector>

namespace qv {

LoopProbe::LoopProbe(EventLoop& loop, EmbeddedSwitch& ports, Enabled enabled, Publish publish)
    : loop_(loop), ports_(ports), enabled_(std::move(enabled)), publish_(std::move(publish)) {
    ports_.set_wiring_listener([this] { wiring_changed(); });
}

void LoopProbe::wiring_changed() {
    end_reports([this](uint32_t ifx, uint32_t peer) { return ports_.loop_peer(ifx) != peer; });
    if (!running_ && !ports_.plugged_ports().empty()) {
        running_ = true;
        timer_ = loop_.after(Duration::zero(), [this] { probe(); });
    }
}

void LoopProbe::probe() {
    const std::vector<uint32_t> plugged = ports_.plugged_ports();
    running_ = !plugged.empty();
    if (running_) {
        timer_ = loop_.after(kInterval, [this] { probe(); });
    }
    end_reports([this](uint32_t ifx, uint32_t) { return !enabled_(ifx); });
    for (const uint32_t ifx : plugged) {
        const std::optional<uint32_t> peer = ports_.loop_peer(ifx);
        if (peer && enabled_(ifx)) {
            reported_[ifx] = *peer;
            publish_({.ifx = ifx, .src_ifx = *peer, .is_loop = true});
        }
    }
}

void LoopProbe::end_reports(const std::function<bool(uint32_t ifx, uint32_t peer)>& over) {
    std::vector<LoopReport> ended;
    for (const auto& [ifx, peer] : reported_) {
        if (over(ifx, peer)) {
            ended.push_back({.ifx = ifx, .src_ifx = peer, .is_loop = false});
        }
    }
    for (const LoopReport& report : ended) {
        reported_.erase(report.ifx);
        publish_(report);
    }
}

}  // namespace qv
