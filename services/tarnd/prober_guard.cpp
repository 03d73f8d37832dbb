// The guard at link-up. A guarded port is closed while it does not forward. When its link comes up,
// probes leave within the guard time, kGuardProbes or, in a longer time, one in each probe
// interval, and the port is opened a last part of that time later if none of them has proved a
// loop. A looped port stays closed; when the loop has ended, the guard begins anew.
//
// `guard_next` is when the next step is due: a probe, or the decision. Time::max() means that the
// port waits for its link or for the end of its loop.
#include <algorithm>
#include <cerrno>

#include "services/tarnd/prober.h"

namespace qv::tarnd {
namespace {

constexpr unsigned kGuardProbes = 3;
constexpr std::chrono::milliseconds kOpenRetryPause{100};

}  // namespace

// After anything that the guard depends on has changed.
void Prober::review_guard(uint32_t ifx, Port& port, Time now) {
    const bool guarded = may_probe(port) && port.options.guard.count() != 0;
    if (!guarded) {
        open(ifx, port, now);
    } else if (!port.forwarding) {
        port.guard_next = Time::max();
        close(ifx, port);
    } else if (port.closed && port.guard_next == Time::max() && !in_loop(ifx)) {
        begin_guard(ifx, port, now);
    }
}

void Prober::begin_guard(uint32_t ifx, Port& port, Time now) {
    port.guard_probes = 0;
    port.guard_next = now;
    plan(ifx, port);
}

void Prober::close(uint32_t ifx, Port& port) {
    if (port.closed) {
        return;
    }
    const int error = outputs_.guard(ifx, true);
    port.closed = error == 0 || error == EIO;  // counts as closed, so that it is opened in the end
    tell({.kind = Report::Kind::kGuard, .ifx = ifx, .error = error, .closed = true});
}

void Prober::open(uint32_t ifx, Port& port, Time now) {
    if (!port.closed) {
        return;
    }
    port.guard_next = Time::max();
    const int error = outputs_.guard(ifx, false);
    tell({.kind = Report::Kind::kGuard, .ifx = ifx, .error = error, .closed = false});
    if (error != 0) {
        port.guard_next = now + kOpenRetryPause;
        plan(ifx, port);
        return;
    }
    port.closed = false;
    // Probes of other switches did not pass while the port was closed.
    request(ifx, Trigger::kCarrier, now);
}

void Prober::take_closed(uint32_t ifx, Time now) {
    Port& port = ports_[ifx];
    port.closed = true;
    port.guard_next = now;
    plan(ifx, port);
}

// Does the work that is due at guard_next.
void Prober::step_guard(uint32_t ifx, Port& port, Time now) {
    port.guard_next = Time::max();
    const auto probes = std::max<unsigned>(
        kGuardProbes, static_cast<unsigned>(port.options.guard / settings_.interval));
    if (port.guard_probes < probes && takes_part(port)) {
        ++port.guard_probes;
        port.guard_next = now + Duration(port.options.guard) / probes;
        send(ifx, port, 1, now);
        send_vlans(ifx, port, kGuardVlans, now);
        return;
    }
    if (in_loop(ifx)) {
        return;
    }
    const auto held = std::find_if(holds_.begin(), holds_.end(), [ifx](const auto& entry) {
        return concerns(entry.second.proof, ifx);
    });
    if (held != holds_.end() && now < held->second.until + Duration(port.options.guard)) {
        port.guard_next = held->second.until + Duration(port.options.guard);
        return;
    }
    open(ifx, port, now);
}

bool Prober::in_loop(uint32_t ifx) const {
    return std::any_of(loops_.begin(), loops_.end(),
                       [ifx](const auto& entry) { return concerns(entry.second.proof, ifx); });
}

// A loop has ended: a port that it has kept closed is tried again.
void Prober::release_guard(const Proof& proof) {
    for (const uint32_t ifx : {proof.ifx, proof.sender}) {
        Port* const port = find(ifx);
        if (port != nullptr && port->closed && takes_part(*port) && !in_loop(ifx)) {
            begin_guard(ifx, *port, Time{});
        }
    }
}

}  // namespace qv::tarnd
