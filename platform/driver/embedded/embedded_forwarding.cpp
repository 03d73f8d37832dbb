#include "platform/driver/embedded/embedded_forwarding.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace qv {
namespace {

constexpr uint64_t kNanoseconds = 1'000'000'000;

// Whole events at `per_second` in `elapsed`; the fraction is carried over in `remainder`.
uint64_t events_in(Duration elapsed, uint64_t per_second, uint64_t& remainder) {
    const auto nanoseconds = static_cast<uint64_t>(elapsed.count());
    const uint64_t part = per_second * (nanoseconds % kNanoseconds) + remainder;
    remainder = part % kNanoseconds;
    return per_second * (nanoseconds / kNanoseconds) + part / kNanoseconds;
}

}  // namespace

EmbeddedForwarding::EmbeddedForwarding(EventLoop& loop, PortExists port_exists)
    : loop_(loop), port_exists_(std::move(port_exists)) {}

void EmbeddedForwarding::start(ForwardingSink& sink) {
    sink_ = &sink;
}

void EmbeddedForwarding::reserve(ForwardingId id, Table table) {
    answer(id, table == Table::kAcl ? Request::kAcl : Request::kEntry, 0);
}

void EmbeddedForwarding::install(ForwardingId id, std::optional<uint32_t> phyid,
                                 const ForwardingRule& rule) {
    if (phyid && !port_exists_(*phyid)) {
        answer(id, Request::kApply, ENODEV);
        return;
    }
    rules_[id] = Rule{.phyid = phyid,
                      .rule = rule,
                      .installed = false,
                      .traffic = {},
                      .reported = 0,
                      .tokens = rule.meter ? rule.meter->burst : 0};
    answer(id, Request::kApply, 0);
}

void EmbeddedForwarding::remove(ForwardingId id) {
    std::erase_if(answers_, [id](const Answer& answer) { return answer.id == id; });
    forget(id);
}

// The plane ends with its process, so there are no leftovers.
void EmbeddedForwarding::remove_leftovers() {}

void EmbeddedForwarding::set_rate(uint32_t phyid, uint64_t pps) {
    Source& source = sources_[phyid];
    settle(phyid, source);
    source.pps = pps;
}

void EmbeddedForwarding::fail_next(Request request, int error, unsigned count) {
    failures_[request].insert(failures_[request].end(), count, error);
}

void EmbeddedForwarding::delay_answers(unsigned ticks) {
    delay_ = ticks;
}

void EmbeddedForwarding::lose_rule(uint32_t phyid, int error) {
    if (const auto found = port_rules_.find(phyid); found != port_rules_.end()) {
        const ForwardingId lost = found->second;
        forget(lost);
        sink_->failed(lost, error);
    }
}

std::map<uint32_t, ForwardingRule> EmbeddedForwarding::port_rules() const {
    std::map<uint32_t, ForwardingRule> found;
    for (const auto& [phyid, id] : port_rules_) {
        found[phyid] = rules_.at(id).rule;
    }
    return found;
}

bool EmbeddedForwarding::has_switch_rule() const {
    return std::any_of(rules_.begin(), rules_.end(), [](const auto& item) {
        return item.second.installed && !item.second.phyid;
    });
}

EmbeddedForwarding::Traffic EmbeddedForwarding::traffic(uint32_t phyid) {
    settle_all();
    const Rule* rule = rule_of(phyid);
    return rule ? rule->traffic : Traffic{};
}

void EmbeddedForwarding::answer(ForwardingId id, Request request, int error) {
    std::deque<int>& scripted = failures_[request];
    if (error == 0 && !scripted.empty()) {
        error = scripted.front();
        scripted.pop_front();
    }
    answers_.push_back({id, error, delay_});
    arm();
}

void EmbeddedForwarding::arm() {
    if (!timer_) {
        timer_ = loop_.after(kTick, [this] { tick(); });
    }
}

void EmbeddedForwarding::tick() {
    settle_all();
    report_counters();
    deliver_answers();
    if (!answers_.empty() || !rules_.empty()) {
        arm();
    }
}

// A report may cause new requests and removals, so each step looks everything up again.
void EmbeddedForwarding::deliver_answers() {
    std::vector<ForwardingId> due;
    for (Answer& answer : answers_) {
        if (answer.ticks == 0) {
            due.push_back(answer.id);
        } else {
            --answer.ticks;
        }
    }
    for (const ForwardingId id : due) {
        const auto found = std::find_if(answers_.begin(), answers_.end(),
                                        [id](const Answer& answer) { return answer.id == id; });
        if (found == answers_.end()) {
            continue;
        }
        const int error = found->error;
        answers_.erase(found);
        if (error != 0) {
            forget(id);
            sink_->failed(id, error);
            continue;
        }
        if (const auto rule = rules_.find(id); rule != rules_.end()) {
            rule->second.installed = true;
            if (rule->second.phyid) {
                port_rules_[*rule->second.phyid] = id;
            }
        }
        sink_->done(id);
    }
}

void EmbeddedForwarding::report_counters() {
    // By id. Only ports with traffic have something to report.
    std::map<ForwardingId, uint64_t> reports;
    for (const auto& [phyid, source] : sources_) {
        Rule* rule = rule_of(phyid);
        if (!rule) {
            continue;
        }
        const uint64_t packets = std::exchange(rule->reported, rule->traffic.counted);
        if (rule->rule.counted && rule->traffic.counted != packets) {
            reports[port_rules_.at(phyid)] = rule->traffic.counted - packets;
        }
    }
    for (const auto& [id, packets] : reports) {
        if (rules_.contains(id)) {
            sink_->counted(id, packets, packets * kFrameBytes);
        }
    }
}

// Counts a port's traffic up to now.
void EmbeddedForwarding::settle(uint32_t phyid, Source& source) {
    const Time now = loop_.clock().now();
    const Duration elapsed = now - std::exchange(source.since, now);
    const uint64_t packets = events_in(elapsed, source.pps, source.remainder);
    Rule* rule = rule_of(phyid);
    if (!rule) {
        return;
    }
    uint64_t passed = packets;
    if (const auto& meter = rule->rule.meter) {
        uint64_t fraction = 0;
        const uint64_t room = rule->tokens + events_in(elapsed, meter->rate_pps, fraction);
        passed = std::min(packets, room);
        rule->tokens = std::min<uint64_t>(meter->burst, room - passed);
    }
    rule->traffic.counted += packets;
    rule->traffic.passed += passed;
    rule->traffic.dropped += packets - passed;
}

void EmbeddedForwarding::settle_all() {
    for (auto& [phyid, source] : sources_) {
        settle(phyid, source);
    }
}

EmbeddedForwarding::Rule* EmbeddedForwarding::rule_of(uint32_t phyid) {
    const auto found = port_rules_.find(phyid);
    return found == port_rules_.end() ? nullptr : &rules_.at(found->second);
}

void EmbeddedForwarding::forget(ForwardingId id) {
    std::erase_if(port_rules_, [id](const auto& item) { return item.second == id; });
    rules_.erase(id);
}

}  // namespace qv
