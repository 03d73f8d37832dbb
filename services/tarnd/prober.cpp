#include "services/tarnd/prober.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <tuple>

namespace qv::tarnd {
namespace {

// Ports take turns within the interval, and several ports share a turn: a wake-up of an idle
// processor costs as much as five probes, and 48 ports have six in a turn.
constexpr int kTurns = 8;
constexpr std::chrono::milliseconds kReportPause{10};

}  // namespace

// The multiplier spreads indexes evenly that follow each other at any distance: each interface of a
// pair has one.
Time Prober::next_turn(uint32_t ifx, Duration interval, Time now) {
    constexpr uint32_t kSpread = 0x9e3779b9;
    const Duration turn = std::max<Duration>(kShortestTurn, interval / kTurns);
    const auto turns = static_cast<uint64_t>(interval / turn);
    const auto place = static_cast<int64_t>((uint64_t{ifx * kSpread} * turns) >> 32);
    const Duration begin = now.time_since_epoch() / interval * interval;
    const Time due{begin + turn * place};
    return due > now ? due : due + interval;
}

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
        review_vlans(ifx, port, now);
        review_guard(ifx, port, now);
        if (took_part && takes_part(port)) {
            port.period = next_turn(ifx, settings_.interval, now);
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
    end_unlisted(ifx, port);
    review(ifx, port, took_part, now);
    review_vlans(ifx, port, now);
    review_guard(ifx, port, now);
    if (!port.present && !watched && !shuts && !port.closed) {
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
    review_vlans(ifx, port, now);
    review_guard(ifx, port, now);
}

void Prober::remove_port(uint32_t ifx) {
    const auto found = ports_.find(ifx);
    if (found == ports_.end()) {
        return;
    }
    Port& port = found->second;
    unplan(ifx, port);
    count_tagged(port, false);
    end_loops_of(ifx);
    if (port.present) {
        tell_port(ifx, Port{});
    }
    claims_.forget(ifx);
    const bool closed = port.closed && outputs_.guard(ifx, false) != 0;
    if (!port.watched && !port.shuts && !closed) {
        ports_.erase(found);
        return;
    }
    // The configuration of an interface that is back in a moment, as when it changes its bridge.
    Port kept;
    kept.watched = port.watched;
    kept.shuts = port.shuts;
    kept.options = port.options;
    port = kept;
    if (closed) {
        take_closed(ifx, Time{});
    }
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
    port.queued = false;
    port.recheck = Time::max();
    if (!part) {
        unplan(ifx, port);
        end_loops_of(ifx);
        return;
    }
    port.sequence = std::max(port.sequence, identity_.first_sequence);
    port.valid_from = port.sequence + 1;
    port.period = next_turn(ifx, settings_.interval, now);
    plan(ifx, port);
    request(ifx, Trigger::kCarrier, now);
}

void Prober::request(uint32_t ifx, Trigger trigger, Time now, uint16_t vid) {
    Port* const port = find(ifx);
    if (port == nullptr || port->wanted || !takes_part(*port)) {
        return;
    }
    port->wanted = true;
    port->trigger = trigger;
    port->moved_vid = vid;
    port->burst = std::max(port->burst, now);
    plan(ifx, *port);
}

void Prober::plan(uint32_t ifx, Port& port) {
    unplan(ifx, port);
    port.planned = port.guard_next;
    if (takes_part(port)) {
        const Time burst = port.wanted && !port.queued ? port.burst : Time::max();
        port.planned = std::min({port.planned, port.period, port.recheck, burst, port.vlan_next});
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
        const auto vid = static_cast<uint16_t>(address >> 48);
        request(before, Trigger::kMove, now, vid);
        request(ifx, Trigger::kMove, now, vid);
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
    if (!queue_.empty() && queue_next_ <= now) {
        serve_queue(now);
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
        serve_recheck(ifx, port, now);
    }
    if (port.wanted && !port.queued && port.burst <= now) {
        begin_burst(ifx, port, now);
    }
    if (port.period <= now) {
        port.period += settings_.interval;
        if (port.period <= now) {  // the thread was stopped meanwhile
            port.period = next_turn(ifx, settings_.interval, now);
        }
        count_silent(ifx, 0, now);
        port.trigger = Trigger::kPeriod;
        send(ifx, port, 1, now);
    }
    if (port.vlan_next <= now) {
        serve_vlans(ifx, port, now);
    }
}

// Beyond the switch's rate ports wait for each other. Otherwise those that are served first would
// ask again first, and the last ones would never send while a storm lasts.
void Prober::begin_burst(uint32_t ifx, Port& port, Time now) {
    if (queue_.empty() && take_token(now)) {
        send_burst(ifx, port, now);
        return;
    }
    if (queue_.empty()) {
        queue_next_ = now + kBurstPause;
    }
    port.queued = true;
    queue_.push_back(ifx);
}

void Prober::send_burst(uint32_t ifx, Port& port, Time now) {
    port.wanted = false;
    port.queued = false;
    port.burst = now + kBurstPause;
    send(ifx, port, kBurst, now);
    send_vlans(ifx, port, kBurstVlans, now);
    plan(ifx, port);
}

void Prober::serve_queue(Time now) {
    for (size_t served = 0; served < kPortsPerRun && !queue_.empty(); ++served) {
        const uint32_t ifx = queue_.front();
        Port* const port = find(ifx);
        const bool waits = port != nullptr && port->queued;
        if (waits && !take_token(now)) {
            queue_next_ = now + kBurstPause;
            return;
        }
        queue_.pop_front();
        if (waits) {
            send_burst(ifx, *port, now);
        }
    }
}

// The time that others had to cut is over: probes leave the way that the proofs have shown.
void Prober::serve_recheck(uint32_t ifx, Port& port, Time now) {
    port.recheck = Time::max();
    size_t vlans = 0;
    for (const auto& [place, hold] : holds_) {
        if (hold.proof.sender == ifx && hold.until <= now && vlans++ < kBurstVlans) {
            send(ifx, port, kBurst, now, hold.proof.sent_vid);
        }
    }
}

Time Prober::next() const {
    Time planned = plan_.empty() ? Time::max() : plan_.begin()->first;
    if (!queue_.empty()) {
        planned = std::min(planned, queue_next_);
    }
    return backlog_.empty() ? planned : std::min(planned, next_report_);
}

// True when the kernel has taken all of them.
bool Prober::send(uint32_t ifx, Port& port, size_t count, Time now, uint16_t vid, uint8_t flags) {
    bool all = true;
    for (size_t n = 0; n < count; ++n) {
        const Probe probe{.bridge = identity_.bridge,
                          .ifx = ifx,
                          .vid = vid,
                          .flags = static_cast<uint8_t>(flags | (port.shuts ? kClaims : 0)),
                          .priority = settings_.priority,
                          .sequence = ++port.sequence,
                          .time_ns = static_cast<uint64_t>(now.time_since_epoch().count())};
        const bool sent = outputs_.send(ifx, vid, encode(probe, identity_.source, identity_.key));
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

// A periodic probe is about to leave this port in this VLAN.
void Prober::count_silent(uint32_t sender, uint16_t vid, Time now) {
    for (auto source = sources_.lower_bound({sender, vid, {}}); source != sources_.end();) {
        const auto [port, sent_vid, place] = *source;
        if (port != sender || sent_vid != vid) {
            return;
        }
        ++source;
        const auto found = loops_.find(place);
        Loop& loop = found->second;
        const bool expired =
            settings_.recover.count() != 0 && now - loop.since >= settings_.recover;
        if (loop.silent >= kSilentProbes || expired) {
            end_loop(found);
        } else {
            ++loop.silent;
        }
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

void Prober::received(uint32_t ifx, std::span<const uint8_t> frame, Time now, uint16_t vid) {
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
        return received_foreign(ifx, probe, now, vid);
    }
    const Duration age = now - Time(Duration(static_cast<int64_t>(probe.time_ns)));
    if (sender == nullptr || !takes_part(*sender) || age < Duration::zero() ||
        probe.sequence <= identity_.first_sequence || probe.sequence > sender->sequence) {
        return ignore(Ignored::kStale);
    }
    if (probe.sequence < sender->valid_from || age > kOldestProbe) {
        return ignore(Ignored::kLate);
    }
    if (!is_first({ifx, probe.ifx, probe.bridge, probe.vid}, probe, now)) {
        return;
    }
    tally(Counted::kReturned);
    if (probe.vid != vid) {
        tally(Counted::kLeaked);
    }
    if (probe.sequence == sender->asked) {
        tell({.kind = Report::Kind::kReturned,
              .ifx = ifx,
              .src_ifx = probe.ifx,
              .vid = vid,
              .src_vid = probe.vid,
              .path = age});
    }
    prove(ifx, probe, now, vid);
}

// Whether the probe was not seen before in this flow. It is counted if not.
bool Prober::is_first(const Windows::Flow& flow, const Probe& probe, Time now) {
    const auto verdict = windows_.judge(flow, probe.sequence, now);
    if (verdict != Windows::Verdict::kNew) {
        ignore(verdict == Windows::Verdict::kLate ? Ignored::kLate : Ignored::kDuplicate);
    }
    return verdict == Windows::Verdict::kNew;
}

// A probe of another switch: it only says who is there. A switch that is new is greeted, so that it
// knows of us before it cuts a loop.
void Prober::received_foreign(uint32_t ifx, const Probe& probe, Time now, uint16_t vid) {
    if (!is_first({ifx, probe.ifx, probe.bridge, 0}, probe, now)) {
        return;
    }
    ignore(Ignored::kForeign);
    const bool first = windows_.judge({0, probe.ifx, probe.bridge, 0}, probe.sequence, now) ==
                       Windows::Verdict::kNew;
    const bool announces = (probe.flags & kCutting) != 0;
    if ((first || announces) && claims_.heard(ifx, probe, now)) {
        request(ifx, Trigger::kCarrier, now, vid);
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
Prober::Proof Prober::proof_of(uint32_t ifx, const Probe& probe, Time now, uint16_t vid) const {
    const uint32_t sender = probe.ifx;
    const uint32_t chosen = choose(ifx, sender);
    const bool cuts = ports_.at(chosen).shuts;
    const bool one =
        settings_.cut_one || (cuts && (claims_.shared(ifx, now) || claims_.shared(sender, now)));
    // A port that is not watched says nothing: the port that sent the probe does.
    const uint32_t receiver = takes_part(ports_.at(ifx)) ? ifx : sender;
    return {.ifx = ifx,
            .sender = sender,
            .vid = vid,
            .sent_vid = probe.vid,
            .reporter = one ? chosen : receiver,
            .src_ifx = one ? chosen : sender,
            .cut = cuts ? chosen : 0};
}

void Prober::prove(uint32_t ifx, const Probe& probe, Time now, uint16_t vid) {
    const Proof proof = proof_of(ifx, probe, now, vid);
    if (const auto loop = loops_.find(place_of(proof)); loop != loops_.end()) {
        loop->second.silent = loop->second.proof.sender == probe.ifx ? 0 : loop->second.silent;
        return;
    }
    // Probes in other VLANs are still under way when a port is cut.
    if (proof.cut != 0 && now - ports_.at(proof.cut).cut < Claims::kCutTime) {
        return;
    }
    Trigger trigger = ports_.at(probe.ifx).trigger;
    if (proof.cut != 0 && is_held(proof, probe, now)) {
        return;
    }
    if (const auto hold = holds_.extract(place_of(proof))) {
        trigger = hold.mapped().trigger;
    }
    loops_.emplace(place_of(proof), Loop{proof, now, 0});
    sources_.emplace(proof.sender, proof.sent_vid, place_of(proof));
    tell({.kind = Report::Kind::kLoop,
          .ifx = proof.reporter,
          .src_ifx = proof.src_ifx,
          .vid = proof.vid,
          .src_vid = proof.sent_vid,
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
    auto hold = holds_.find(place_of(proof));
    if (hold != holds_.end() && now > hold->second.until + kHoldLife) {
        holds_.erase(hold);
        hold = holds_.end();
    }
    if (hold != holds_.end()) {
        return sent < hold->second.until;
    }
    const size_t others =
        claims_.count_ahead(proof.ifx, proof.sender, {settings_.priority, identity_.bridge}, now);
    if (others == 0) {
        return false;
    }
    const auto turns = static_cast<int>(proof.ifx == proof.sender ? 1 : others);
    const Time until = now + turns * Claims::kCutTime;
    Port& sender = ports_.at(proof.sender);
    holds_.emplace(place_of(proof), Hold{proof, sender.trigger, until});
    sender.recheck = std::min(sender.recheck, until);
    plan(proof.sender, sender);
    return true;
}

// One port is enough to open the loop. Its own probes count no more from here on, so that the other
// direction of the same loop does not cut the other port too. The other switches are told first:
// the message is there before the link is down, in the VLAN that leads to them.
void Prober::cut(const Proof& proof, Time now) {
    send(proof.ifx, ports_.at(proof.ifx), 1, now, proof.vid, kCutting);
    if (proof.sender != proof.ifx) {
        send(proof.sender, ports_.at(proof.sender), 1, now, proof.sent_vid, kCutting);
    }
    const int error = outputs_.cut(proof.cut, proof.ifx == proof.sender);
    tell({.kind = Report::Kind::kCut, .ifx = proof.cut, .src_ifx = proof.sender, .error = error});
    if (error == 0) {
        Port& port = ports_.at(proof.cut);
        port.valid_from = port.sequence + 1;
        port.cut = now;
    }
}

// Returns the next loop.
Prober::Loops::iterator Prober::end_loop(Loops::iterator loop) {
    const Proof proof = loop->second.proof;
    sources_.erase({proof.sender, proof.sent_vid, loop->first});
    const auto next = loops_.erase(loop);
    tell({.kind = Report::Kind::kEnd,
          .ifx = proof.reporter,
          .src_ifx = proof.src_ifx,
          .vid = proof.vid,
          .src_vid = proof.sent_vid});
    release_guard(proof);
    return next;
}

void Prober::end_loops_of(uint32_t ifx) {
    for (auto loop = loops_.begin(); loop != loops_.end();) {
        loop = concerns(loop->second.proof, ifx) ? end_loop(loop) : std::next(loop);
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
