// Probes in the VLANs of a port's list.
//
// A port sends one periodic probe in each VLAN of its list, in turn, spread over the probe
// interval. A long list takes longer than the interval: a port sends at most one such probe every
// kVlanPause, and the switch one every kSwitchVlanPause, of which each port with a list has the
// same share. Where the list is longer than a burst, bursts walk through it with a turn of their
// own, so that they do not count as silent probes of a loop.
#include <algorithm>
#include <iterator>

#include "services/tarnd/prober.h"

namespace qv::tarnd {
namespace {

bool contains(const Vlans& vlans, uint16_t vid) {
    return vlans != nullptr && std::binary_search(vlans->begin(), vlans->end(), vid);
}

}  // namespace

// The time between two periodic tagged probes of a port.
Duration Prober::vlan_step(const Port& port) const {
    const auto vlans = static_cast<int64_t>(port.options.vlans->size());
    const auto ports = static_cast<int64_t>(tagged_ports_);
    return std::max({Duration(settings_.interval) / vlans, Duration(kVlanPause),
                     Duration(kSwitchVlanPause) * ports});
}

void Prober::count_tagged(Port& port, bool tagged) {
    tagged_ports_ += tagged ? 1 : 0;
    tagged_ports_ -= port.tagged ? 1 : 0;
    port.tagged = tagged;
}

// After anything that probing in VLANs depends on has changed.
void Prober::review_vlans(uint32_t ifx, Port& port, Time now) {
    const size_t vlans = port.options.vlans != nullptr ? port.options.vlans->size() : 0;
    count_tagged(port, takes_part(port) && vlans != 0);
    port.vlan_turn = port.vlan_turn < vlans ? port.vlan_turn : 0;
    port.burst_turn = port.burst_turn < vlans ? port.burst_turn : 0;
    port.vlan_next = Time::max();
    if (port.tagged) {
        port.vlan_next = next_turn(ifx, std::max<Duration>(vlan_step(port), kShortestTurn), now);
    }
    plan(ifx, port);
}

// Sends the periodic tagged probes that are due: several where they are closer than wake-ups.
void Prober::serve_vlans(uint32_t ifx, Port& port, Time now) {
    const std::vector<uint16_t>& vlans = *port.options.vlans;
    const Duration step = vlan_step(port);
    port.vlan_next = next_turn(ifx, std::max<Duration>(step, kShortestTurn), now);
    for (int64_t n = std::max<int64_t>(1, kShortestTurn / step); n > 0; --n) {
        const uint16_t vid = vlans[port.vlan_turn];
        port.vlan_turn = (port.vlan_turn + 1) % vlans.size();
        count_silent(ifx, vid, now);
        port.trigger = port.wanted ? port.trigger : Trigger::kPeriod;
        send(ifx, port, 1, now, vid);
    }
}

// Sends one probe in each of up to `most` VLANs of the list: first in the one that called for it,
// then in turn. kBurst of them cost as much of the switch's rate as one burst.
void Prober::send_vlans(uint32_t ifx, Port& port, size_t most, Time now) {
    if (!port.tagged) {
        return;
    }
    const std::vector<uint16_t>& vlans = *port.options.vlans;
    const bool first = contains(port.options.vlans, port.moved_vid);
    for (size_t n = 0; n < std::min(most, vlans.size()); ++n) {
        if (n % kBurst == 0 && !take_token(now)) {
            return;
        }
        if (n == 0 && first) {
            send(ifx, port, 1, now, port.moved_vid);
            continue;
        }
        send(ifx, port, 1, now, vlans[port.burst_turn]);
        port.burst_turn = (port.burst_turn + 1) % vlans.size();
    }
}

// Loops in VLANs that are not probed any more would never end.
void Prober::end_unlisted(uint32_t ifx, const Port& port) {
    const auto unlisted = [&](const Proof& proof) {
        return proof.sender == ifx && proof.sent_vid != 0 &&
               !contains(port.options.vlans, proof.sent_vid);
    };
    for (auto loop = loops_.begin(); loop != loops_.end();) {
        loop = unlisted(loop->second.proof) ? end_loop(loop) : std::next(loop);
    }
    std::erase_if(holds_, [&](const auto& entry) { return unlisted(entry.second.proof); });
}

}  // namespace qv::tarnd
