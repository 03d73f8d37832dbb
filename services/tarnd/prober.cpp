#include "services/tarnd/prober.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace qv::tarnd {
namespace {

constexpr std::chrono::milliseconds kTick{10};  // periodic probes of many ports share wake-ups
constexpr std::chrono::milliseconds kReportPause{10};

// Ports take turns within the interval: interface indexes are mostly consecutive.
Time first_period(uint32_t ifx, std::chrono::milliseconds interval, Time now) {
    const auto ticks = std::max<int64_t>(1, interval / kTick);
    const Time tick{now.time_since_epoch() / kTick * Duration(kTick)};
    return tick + kTick * (1 + ifx % ticks);
}

}  // namespace

bool Prober::concerns(const Proof& proof, uint32_t ifx) {
    return proof.ifx == ifx || proof.sender == ifx;
}

Prober::Prober(const Identity& identity, ProberOutputs& outputs)
    : identity_(identity), outputs_(outputs), addresses_(kRememberedAddresses) {}

bool Prober::may_probe(const Port& port) const {
    return settings_.enabled && port.present && port.watched;
}

bool Prober::takes_part(const Port& port) const {
    return may_probe(port) && port.forwarding;
}

Prober::Port* Prober::find(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    return found != ports_.end() && found->second.present ? &found->second : nullptr;
}

void Prober::configure(const Settings& settings, Time now) {
    if (settings == settings_) {
        return;
    }
    std::vector<std::pair<uint32_t, bool>> before;
    for (const auto& [ifx, port] : ports_) {
        before.emplace_back(ifx, takes_part(port));
    }
    settings_ = settings;
    for (const auto& [ifx, took_part] : before) {
        Port& port = ports_.at(ifx);
        review(ifx, port, took_part, now);
        review_guard(ifx, port, now);
        if (took_part && takes_part(port)) {
            port.period = first_period(ifx, settings_.interval, now);
            plan(ifx, port);
        }
    }
}

void Prober::configure_port(uint32_t ifx, bool watched, bool shuts, Time now,
                            const PortOptions& options) {
    Port& port = ports_[ifx];
    const bool took_part = takes_part(port);
    port.watched = watched;
    port.shuts = shuts;
    port.options = options;
    review(ifx, port, took_part, now);
    review_guard(ifx, port, now);
    if (!port.present && !watched && !shuts) {
        ports_.erase(ifx);
    }
}

void Prober::set_port(uint32_t ifx, bool forwarding, Time now) {
    Port& port = ports_[ifx];
    const bool took_part = takes_part(port);
    const bool same = port.present && port.forwarding == forwarding;
    port.present = true;
    if (port.forwarding && !forwarding) {
        end_loops_of(ifx);
    }
    port.forwarding = forwarding;
    if (!same) {
        tell_port(ifx, port);
    }
    review(ifx, port, took_part, now);
    review_guard(ifx, port, now);
}

void Prober::remove_port(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    if (found == ports_.end()) {
        return;
    }
    Port& port = found->second;
    unplan(ifx, port);
    end_loops_of(ifx);
    if (port.present) {
        tell_port(ifx, Port{});
    }
    claims_.forget(ifx);
    if (port.closed) {
        outputs_.guard(ifx, false);
    }
    if (!port.watched && !port.shuts) {
        ports_.erase(found);
        return;
    }
    // The configuration of an interface that is back in a moment, as when it changes its bridge.
    Port kept;
    kept.watched = port.watched;
    kept.shuts = port.shuts;
    kept.options = port.options;
    port = kept;
}

void Prober::set_elsewhere(uint32_t ifx, bool elsewhere) {
    tell({.kind = elsewhere ? Report::Kind::kElsewhere : Report::Kind::kNotElsewhere, .ifx = ifx});
}

// Begins or ends probing on a port after anything that it depends on has changed.
void Prober::review(uint32_t ifx, Port& port, bool took_part, Time now) {
    const bool part = takes_part(port);
    if (part == took_part) {
        return;
    }
    port.wanted = false;
    port.recheck = Time::max();
    if (!part) {
        unplan(ifx, port);
        end_loops_of(ifx);
        return;
    }
    port.sequence = std::max(port.sequence, identity_.first_sequence);
    port.valid_from = port.sequence + 1;
    port.period = first_period(ifx, settings_.interval, now);
    plan(ifx, port);
    request(ifx, Trigger::kCarrier, now);
}

void Prober::request(uint32_t ifx, Trigger trigger, Time now) {
    Port* const port = find(ifx);
    if (port == nullptr || port->wanted || !takes_part(*port)) {
        return;
    }
    port->wanted = true;
    port->trigger = trigger;
    port->burst = std::max(port->burst, now);
    plan(ifx, *port);
}

void Prober::plan(uint32_t ifx, Port& port) {
    unplan(ifx, port);
    port.planned = port.guard_next;
    if (takes_part(port)) {
        const Time burst = port.wanted ? port.burst : Time::max();
        port.planned = std::min({port.planned, port.period, port.recheck, burst});
    }
    if (port.planned != Time::max()) {
        plan_.emplace(port.planned, ifx);
    }
}

void Prober::unplan(uint32_t ifx, Port& port) {
    plan_.erase({port.planned, ifx});
    port.planned = Time::max();
}

bool Prober::take_token(Time now) {
    constexpr Duration kToken = Duration(std::chrono::seconds(1)) / kBurstsPerSecond;
    const auto fresh = static_cast<uint64_t>((now - filled_) / kToken);
    if (fresh >= kBurstsAtOnce) {
        tokens_ = kBurstsAtOnce;
        filled_ = now;
    } else {
        tokens_ = std::min(tokens_ + fresh, kBurstsAtOnce);
        filled_ += kToken * fresh;
    }
    if (tokens_ == 0) {
        return false;
    }
    --tokens_;
    return true;
}

bool Prober::learned(uint64_t address, uint32_t ifx, Time now) {
    // Two addresses in one place forget each other: a move is missed, the next one is not.
    constexpr uint64_t kSpread = 0x9e3779b97f4a7c15;
    Remembered& place = addresses_[(address * kSpread) >> 48];
    const uint32_t before = place.address == address ? place.ifx : 0;
    place = {address, ifx};
    if (before != 0 && before != ifx) {
        request(before, Trigger::kMove, now);
        request(ifx, Trigger::kMove, now);
        return true;
    }
    return false;
}

void Prober::overrun(Time now) {
    for (const auto& [ifx, port] : ports_) {
        request(ifx, Trigger::kOverrun, now);
    }
}

void Prober::run(Time now) {
    if (!flush()) {
        next_report_ = now + kReportPause;
    }
    for (size_t served = 0; served < kPortsPerRun && !plan_.empty(); ++served) {
        const auto [due, ifx] = *plan_.begin();
        if (due > now) {
            return;
        }
        Port& port = ports_.at(ifx);
        serve(ifx, port, now);
        plan(ifx, port);
    }
}

// Everything that is due on a port.
void Prober::serve(uint32_t ifx, Port& port, Time now) {
    if (port.guard_next <= now) {
        step_guard(ifx, port, now);
    }
    if (!takes_part(port)) {
        return;
    }
    if (port.recheck <= now) {
        port.recheck = Time::max();
        send(ifx, port, kBurst, now);
    }
    if (port.wanted && port.burst <= now) {
        if (take_token(now)) {
            port.wanted = false;
            port.burst = now + kBurstPause;
            send(ifx, port, kBurst, now);
        } else {
            port.burst = now + kBurstPause;
        }
    }
    if (port.period <= now) {
        port.period += settings_.interval;
        if (port.period <= now) {  // the thread was stopped meanwhile
            port.period = first_period(ifx, settings_.interval, now);
        }
        count_silent(ifx, now);
        port.trigger = Trigger::kPeriod;
        send(ifx, port, 1, now);
    }
}

Time Prober::next() const {
    const Time planned = plan_.empty() ? Time::max() : plan_.begin()->first;
    return backlog_.empty() ? planned : std::min(planned, next_report_);
}

// True when the kernel has taken all of them.
bool Prober::send(uint32_t ifx, Port& port, size_t count, Time now, uint8_t flags) {
    bool all = true;
    for (size_t n = 0; n < count; ++n) {
        const Probe probe{.bridge = identity_.bridge,
                          .ifx = ifx,
                          .flags = static_cast<uint8_t>(flags | (port.shuts ? kClaims : 0)),
                          .priority = settings_.priority,
                          .sequence = ++port.sequence,
                          .time_ns = static_cast<uint64_t>(now.time_since_epoch().count())};
        const bool sent = outputs_.send(ifx, encode(probe, identity_.source, identity_.key));
        tally(sent ? Counted::kSent : Counted::kNotSent);
        all = all && sent;
    }
    return all;
}

void Prober::ask(uint32_t ifx, Time now) {
    tell({.kind = Report::Kind::kAsked, .ifx = ifx, .error = send_asked(ifx, now)});
}

int Prober::send_asked(uint32_t ifx, Time now) {
    Port* const port = find(ifx);
    if (port == nullptr) {
        return ENODEV;
    }
    if (!settings_.enabled || !port->watched) {
        return EPERM;
    }
    if (!port->forwarding) {
        return ENETDOWN;
    }
    if (!take_token(now)) {
        return EBUSY;
    }
    port->asked = port->sequence + 1;
    return send(ifx, *port, 1, now) ? 0 : EIO;
}

// A periodic probe is about to leave this port.
void Prober::count_silent(uint32_t sender, Time now) {
    for (auto loop = loops_.begin(); loop != loops_.end();) {
        Loop& state = loop->second;
        const bool own = state.proof.sender == sender;
        const bool over =
            own && (state.silent >= kSilentProbes ||
                    (settings_.recover.count() != 0 && now - state.since >= settings_.recover));
        if (over) {
            tell({.kind = Report::Kind::kEnd,
                  .ifx = state.proof.reporter,
                  .src_ifx = state.proof.src_ifx});
            const Proof proof = state.proof;
            loop = loops_.erase(loop);
            release_guard(proof);
            continue;
        }
        state.silent += own ? 1 : 0;
        ++loop;
    }
}

void Prober::ignore(Ignored why) {
    ignored_[static_cast<size_t>(why)].fetch_add(1, std::memory_order_relaxed);
}

void Prober::tally(Counted what) {
    counted_[static_cast<size_t>(what)].fetch_add(1, std::memory_order_relaxed);
}

uint64_t Prober::counted(Counted what) const {
    return counted_[static_cast<size_t>(what)].load(std::memory_order_relaxed);
}

uint64_t Prober::ignored(Ignored why) const {
    return ignored_[static_cast<size_t>(why)].load(std::memory_order_relaxed);
}

void Prober::received(uint32_t ifx, std::span<const uint8_t> frame, Time now) {
    Port* const port = find(ifx);
    if (port == nullptr || !settings_.enabled) {
        return;
    }
    Probe probe;
    switch (decode(frame, identity_.key, probe)) {
        case FrameFault::kNone:
            break;
        case FrameFault::kLength:
        case FrameFault::kVersion:
            return ignore(Ignored::kMalformed);
        case FrameFault::kHash:
            return ignore(Ignored::kForged);
    }
    const bool own = probe.bridge == identity_.bridge;
    const Port* const sender = own ? find(probe.ifx) : nullptr;
    if (!port->forwarding || (sender != nullptr && !sender->forwarding)) {
        return ignore(Ignored::kBlocked);
    }
    if (!own) {
        return received_foreign(ifx, probe, now);
    }
    const Duration age = now - Time(Duration(static_cast<int64_t>(probe.time_ns)));
    if (sender == nullptr || !takes_part(*sender) || probe.sequence < sender->valid_from ||
        probe.sequence > sender->sequence || age < Duration::zero() || age > kOldestProbe) {
        return ignore(Ignored::kStale);
    }
    if (!windows_.is_new({ifx, probe.ifx, probe.bridge}, probe.sequence, now)) {
        return ignore(Ignored::kDuplicate);
    }
    tally(Counted::kReturned);
    if (probe.sequence == sender->asked) {
        tell({.kind = Report::Kind::kReturned, .ifx = ifx, .src_ifx = probe.ifx, .path = age});
    }
    prove(ifx, probe, now);
}

// A probe of another switch: it only says who is there. A switch that is new is greeted, so that it
// knows of us before it cuts a loop.
void Prober::received_foreign(uint32_t ifx, const Probe& probe, Time now) {
    if (!windows_.is_new({ifx, probe.ifx, probe.bridge}, probe.sequence, now)) {
        return ignore(Ignored::kDuplicate);
    }
    ignore(Ignored::kForeign);
    const bool first = windows_.is_new({0, probe.ifx, probe.bridge}, probe.sequence, now);
    const bool announces = (probe.flags & kCutting) != 0;
    if ((first || announces) && claims_.heard(ifx, probe, now)) {
        request(ifx, Trigger::kCarrier, now);
    }
}

// Chooses the port of a loop that is given up: one that the policy shuts, no trunk if there is a
// choice, and then the higher number.
uint32_t Prober::choose(uint32_t ifx, uint32_t other) const {
    const auto rank = [this](uint32_t candidate) {
        const Port& port = ports_.at(candidate);
        return std::tuple(takes_part(port), port.shuts, -static_cast<int>(port.options.role),
                          candidate);
    };
    return std::max(ifx, other, [&rank](uint32_t a, uint32_t b) { return rank(a) < rank(b); });
}

// A loop that other switches share is reported for one port only: without both of its ports this
// switch would lose the others.
Prober::Proof Prober::proof_of(uint32_t ifx, uint32_t sender, Time now) const {
    const uint32_t chosen = choose(ifx, sender);
    const bool cuts = ports_.at(chosen).shuts;
    const bool one =
        settings_.cut_one || (cuts && (claims_.shared(ifx, now) || claims_.shared(sender, now)));
    // A port that is not watched says nothing: the port that sent the probe does.
    const uint32_t receiver = takes_part(ports_.at(ifx)) ? ifx : sender;
    return {.ifx = ifx,
            .sender = sender,
            .reporter = one ? chosen : receiver,
            .src_ifx = one ? chosen : sender,
            .cut = cuts ? chosen : 0};
}

void Prober::prove(uint32_t ifx, const Probe& probe, Time now) {
    const Proof proof = proof_of(ifx, probe.ifx, now);
    if (const auto loop = loops_.find(proof.reporter); loop != loops_.end()) {
        loop->second.silent = loop->second.proof.sender == probe.ifx ? 0 : loop->second.silent;
        return;
    }
    Trigger trigger = ports_.at(probe.ifx).trigger;
    if (proof.cut != 0 && is_held(proof, probe, now)) {
        return;
    }
    if (const auto hold = holds_.extract(proof.reporter)) {
        trigger = hold.mapped().trigger;
    }
    loops_.emplace(proof.reporter, Loop{proof, now, 0});
    tell({.kind = Report::Kind::kLoop,
          .ifx = proof.reporter,
          .src_ifx = proof.src_ifx,
          .trigger = trigger,
          .path = now - Time(Duration(static_cast<int64_t>(probe.time_ns)))});
    if (proof.cut != 0) {
        cut(proof, now);
    }
}

// Whether other switches come first. They have their time from the first proof on; then only a
// probe that was sent later counts.
bool Prober::is_held(const Proof& proof, const Probe& probe, Time now) {
    const Time sent{Duration(static_cast<int64_t>(probe.time_ns))};
    auto hold = holds_.find(proof.reporter);
    if (hold != holds_.end() && now > hold->second.until + kHoldLife) {
        holds_.erase(hold);
        hold = holds_.end();
    }
    if (hold != holds_.end()) {
        return sent < hold->second.until;
    }
    const size_t others =
        claims_.before_us(proof.ifx, proof.sender, {settings_.priority, identity_.bridge}, now);
    if (others == 0) {
        return false;
    }
    const auto turns = static_cast<int>(proof.ifx == proof.sender ? 1 : others);
    const Time until = now + turns * Claims::kCutTime;
    Port& sender = ports_.at(proof.sender);
    holds_.emplace(proof.reporter, Hold{proof, sender.trigger, until});
    sender.recheck = std::min(sender.recheck, until);
    plan(proof.sender, sender);
    return true;
}

// One port is enough to open the loop. Its own probes count no more from here on, so that the other
// direction of the same loop does not cut the other port too. The other switches are told first:
// the message is there before the link is down.
void Prober::cut(const Proof& proof, Time now) {
    send(proof.ifx, ports_.at(proof.ifx), 1, now, kCutting);
    if (proof.sender != proof.ifx) {
        send(proof.sender, ports_.at(proof.sender), 1, now, kCutting);
    }
    const int error = outputs_.cut(proof.cut, proof.ifx == proof.sender);
    tell({.kind = Report::Kind::kCut, .ifx = proof.cut, .src_ifx = proof.sender, .error = error});
    if (error == 0) {
        Port& port = ports_.at(proof.cut);
        port.valid_from = port.sequence + 1;
    }
}

void Prober::end_loops_of(uint32_t ifx) {
    for (auto loop = loops_.begin(); loop != loops_.end();) {
        const Proof proof = loop->second.proof;
        if (!concerns(proof, ifx)) {
            ++loop;
            continue;
        }
        tell({.kind = Report::Kind::kEnd, .ifx = proof.reporter, .src_ifx = proof.src_ifx});
        loop = loops_.erase(loop);
        release_guard(proof);
    }
    std::erase_if(holds_, [ifx](const auto& entry) { return concerns(entry.second.proof, ifx); });
}

void Prober::tell_port(uint32_t ifx, const Port& port) {
    tell({.kind = Report::Kind::kPort,
          .ifx = ifx,
          .present = port.present,
          .forwarding = port.forwarding});
}

void Prober::tell(const Report& report) {
    backlog_.push_back(report);
    flush();
}

bool Prober::flush() {
    while (!backlog_.empty() && outputs_.report(backlog_.front())) {
        backlog_.pop_front();
    }
    return backlog_.empty();
}

}  // namespace qv::tarnd
