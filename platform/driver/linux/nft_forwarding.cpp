#include "platform/driver/linux/nft_forwarding.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "platform/base/message_log.h"

namespace qv {
namespace {

// The process or the machine has no descriptor left.
bool out_of_descriptors(int error) {
    return error == EMFILE || error == ENFILE;
}

}  // namespace

size_t next_batch_size(size_t size, std::chrono::nanoseconds took) {
    if (took > NftForwarding::kTransactionTime) {
        return std::max(size / 2, NftForwarding::kMinBatch);
    }
    if (took < NftForwarding::kTransactionTime / 2) {
        return std::min(size * 2, NftForwarding::kMaxBatch);
    }
    return size;
}

NftForwarding::NftForwarding(EventLoop& loop, Settings settings)
    : loop_(loop),
      settings_(std::move(settings)),
      table_(kTable),
      mirror_(
          loop, [this](const auto& added, const auto& gone) { take_known(added, gone); },
          settings_.receive_buffer) {}

NftForwarding::~NftForwarding() {
    close();
}

void NftForwarding::start(ForwardingSink& sink) {
    sink_ = &sink;
}

// ACLs and entries take no room of their own.
void NftForwarding::reserve(ForwardingId id, Table) {
    sink_->done(id);
}

void NftForwarding::install(ForwardingId id, std::optional<uint32_t> phyid,
                            const ForwardingRule& rule) {
    Rule added;
    added.phyid = phyid;
    added.rule = rule;
    if (phyid) {
        added.name = "port" + std::to_string(*phyid) + "." + std::to_string(id);
    }
    if (const int error = check(added); error != 0) {
        refuse(id, error);
        return;
    }
    rules_[id] = std::move(added);
    changed_.insert(id);
    gather();
}

int NftForwarding::check(const Rule& rule) const {
    if (!rule.phyid) {
        // There is no hook that all frames of a bridge and no others pass. Where nothing happens to
        // the frames nothing is installed, but the table must be there.
        return rule.rule.counted || rule.rule.meter ? EOPNOTSUPP : 0;
    }
    if (rule.rule.meter && rule.rule.meter->rate_pps == 0) {
        return EINVAL;
    }
    return locate(*rule.phyid).device.empty() ? ENODEV : 0;
}

NftForwarding::Place NftForwarding::locate(uint32_t phyid) const {
    const Port* const port = settings_.find_port(phyid);
    const bool usable = port != nullptr && NftTable::can_name(port->name);
    return usable ? Place{.device = port->name, .ifx = port->ifx} : Place{};
}

void NftForwarding::gather() {
    if (!gathering_) {
        gathering_ = loop_.after(kGather, [this] { commit(); });
    }
}

// Answers go out when everything is as they say.
void NftForwarding::commit() {
    const int error = open_table();
    if (out_of_descriptors(error)) {
        log_refusal(error);
    }
    if (out_of_descriptors(error) || (error == 0 && !mirrored_)) {
        gathering_ = loop_.after(kRetry, [this] { commit(); });
        return;
    }
    if (mirror_.repeating()) {
        gathering_ = loop_.after(kGather, [this] { commit(); });
        return;
    }
    // The loop's clock may be scaled.
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Answer> answers = carry_out(next_batch(), error);
    batch_size_ = next_batch_size(batch_size_, std::chrono::steady_clock::now() - begin);
    if (!changed_.empty() || !dropped_.empty()) {
        gathering_ = loop_.after(Duration::zero(), [this] { commit(); });
    }
    for (const auto& [id, failure] : answers) {
        if (failure == 0) {
            logged_refusal_ = 0;
            sink_->done(id);
        } else {
            refuse(id, failure);
        }
    }
}

NftForwarding::Batch NftForwarding::next_batch() {
    Batch batch;
    while (!dropped_.empty() && batch.dropped.size() < batch_size_) {
        batch.dropped.push_back(std::move(dropped_.back()));
        dropped_.pop_back();
    }
    while (!changed_.empty() && batch.dropped.size() + batch.changed.size() < batch_size_) {
        batch.changed.push_back(changed_.extract(changed_.begin()).value());
        late_.erase(batch.changed.back());
    }
    return batch;
}

std::vector<NftForwarding::Answer> NftForwarding::carry_out(const Batch& batch, int table_error) {
    std::vector<Answer> answers;
    const auto note = [&](ForwardingId id, int error) {
        if (finish(id, error)) {
            answers.emplace_back(id, error);
        }
    };
    if (table_error != 0 || run(batch) == 0) {
        for (const ForwardingId id : batch.changed) {
            note(id, table_error);
        }
        return answers;
    }
    // Nothing of the batch has happened.
    if (table_.is_gone()) {
        changed_.insert(batch.changed.begin(), batch.changed.end());
        put_back();
        return answers;
    }
    // One at a time, so that only what cannot be done is not.
    for (const Rule& rule : batch.dropped) {
        if (run({.dropped = {rule}, .changed = {}}) != 0) {
            broken_ = true;
        }
    }
    for (const ForwardingId id : batch.changed) {
        note(id, run({.dropped = {}, .changed = {id}}));
    }
    return answers;
}

int NftForwarding::run(const Batch& batch) {
    NftTable::Change change = table_.change();
    for (const Rule& rule : batch.dropped) {
        drop(change, rule);
    }
    for (const ForwardingId id : batch.changed) {
        bring(change, rules_.at(id));
    }
    return table_.run(change);
}

// Notes what has become of a rule; true when that is to be answered, or a rule was lost.
bool NftForwarding::finish(ForwardingId id, int error) {
    Rule& rule = rules_.at(id);
    if (error == 0) {
        rule.chain = rule.place;
        rule.installed = true;
        rule.tries = 0;
        return !std::exchange(rule.answered, true);
    }
    // Some kernels refuse a device that they do not have. It may have gone, or have another name by
    // now, and the port model is about to hear of it.
    if (error == ENOENT && !rule.place.device.empty() && ++rule.tries < kDeviceTries) {
        late_.insert(id);
        return false;
    }
    if (rule.installed) {
        broken_ = true;  // it is still where it was
        return false;
    }
    rules_.erase(id);
    return true;
}

void NftForwarding::refuse(ForwardingId id, int error) {
    if (rules_.empty()) {
        close();
    }
    log_refusal(error);
    sink_->failed(id, error);
}

void NftForwarding::drop(NftTable::Change& change, const Rule& rule) {
    if (!rule.chain.device.empty()) {
        change.drop_chain(rule.name);
    }
    if (rule.rule.counted) {
        change.drop_counter(rule.name);
    }
}

// From what the kernel has of a rule to what it should have. A chain whose device has gone and is
// back at the same place is made anew as well: on some kernels it went with the device.
void NftForwarding::bring(NftTable::Change& change, Rule& rule) const {
    if (!rule.phyid) {
        return;
    }
    rule.place = locate(*rule.phyid);
    if (!rule.installed && rule.rule.counted) {
        change.add_counter(rule.name);
    }
    if (!rule.chain.device.empty()) {
        change.drop_chain(rule.name);
    }
    if (!rule.place.device.empty()) {
        change.add_chain(rule.name, rule.place.device, rule.rule);
    }
}

// An empty table at first, and the mirror at work.
int NftForwarding::open_table() {
    if (open_) {
        return table_.open();
    }
    if (const int error = make_table(); error != 0) {
        return error;
    }
    open_ = true;
    timer_ = loop_.after(kTick, [this] { tick(); });
    follow_bridge();
    return 0;
}

// Without rules and addresses, in place of whatever there is.
int NftForwarding::make_table() {
    NftTable::Change change = table_.change();
    change.begin_anew();
    const int error = table_.run(change);
    if (error == 0) {
        broken_ = false;
        table_.forget_changes();  // nothing is left of them
    }
    return error;
}

void NftForwarding::remove(ForwardingId id) {
    const auto found = rules_.find(id);
    if (found == rules_.end()) {
        return;
    }
    Rule rule = std::move(found->second);
    rules_.erase(found);
    changed_.erase(id);
    late_.erase(id);
    if (rules_.empty()) {
        close();
    } else if (rule.phyid && rule.installed) {
        dropped_.push_back(std::move(rule));
        gather();
    }
}

// A table that cannot be removed for want of a privilege is no news before a rule is asked for, and
// then the refusal says why.
void NftForwarding::remove_leftovers() {
    if (!open_) {
        NftTable::Change change = table_.change();
        change.drop_table();
        table_.run(change);
    }
}

void NftForwarding::close() {
    rules_.clear();
    changed_.clear();
    late_.clear();
    dropped_.clear();
    gathering_.reset();
    timer_.reset();
    mirror_.stop();
    if (!std::exchange(open_, false)) {
        return;
    }
    NftTable::Change change = table_.change();
    change.drop_table();
    if (const int error = table_.run(change); error != 0) {
        log_message(kLogError, "FORWARDING", "LEFT",
                    "The rules of storm-loop-detect cannot be removed: %s.", std::strerror(error));
    }
}

void NftForwarding::port_changed(uint32_t phyid) {
    if (open_) {
        follow_bridge();
    }
    for (const auto& [id, rule] : rules_) {
        if (rule.phyid == phyid && locate(phyid) != rule.chain) {
            changed_.insert(id);
            gather();
        }
    }
}

void NftForwarding::follow_bridge() {
    const uint32_t bridge = settings_.find_bridge();
    if (bridge == mirror_.bridge()) {
        mirrored_ = true;
        return;
    }
    try {
        mirror_.follow(bridge);
        mirrored_ = true;
    } catch (const std::runtime_error& error) {
        // The known addresses stay. Rules that are not installed yet wait: without addresses every
        // frame would count as flooded and be metered.
        if (std::exchange(mirrored_, false)) {
            log_message(kLogError, "FORWARDING", "MIRROR",
                        "The bridge's addresses are not known: %s", error.what());
        }
    }
}

void NftForwarding::take_known(const std::vector<MacAddress>& added,
                               const std::vector<MacAddress>& gone) {
    if (table_.change_known(added, gone) != 0) {
        broken_ = true;
    }
}

void NftForwarding::tick() {
    timer_ = loop_.after(kTick, [this] { tick(); });
    follow_bridge();
    std::vector<NamedCounter> counters;
    counters.reserve(rules_.size());
    const int error = table_.read_counters(counters);
    const bool all_there = report(counters);
    // Counters that are missing in a list that broke off are read next time, from the same point.
    if (open_ &&
        (table_.changed_outside(mirror_.known()) || broken_ || (error == 0 && !all_there))) {
        put_back();
    }
    if (!late_.empty()) {
        changed_.merge(late_);
        gather();
    }
}

// Whether every rule has its counter.
bool NftForwarding::report(const std::vector<NamedCounter>& counters) {
    std::vector<std::pair<ForwardingId, PacketCounts>> reports;
    reports.reserve(counters.size());
    size_t found = 0;
    for (const auto& [name, now] : counters) {
        const auto at = find_counter(name);
        if (at == rules_.end()) {
            continue;
        }
        ++found;
        const PacketCounts before = std::exchange(at->second.reported, now);
        const PacketCounts since = {.packets = counted_since(before.packets, now.packets),
                                    .bytes = counted_since(before.bytes, now.bytes)};
        if (since.packets != 0) {
            reports.emplace_back(at->first, since);
        }
    }
    const auto counting = std::count_if(rules_.begin(), rules_.end(), [](const auto& item) {
        return item.second.installed && item.second.rule.counted;
    });
    // A report may lead to removals.
    for (const auto& [id, since] : reports) {
        if (rules_.contains(id)) {
            sink_->counted(id, since.packets, since.bytes);
        }
    }
    return found == static_cast<size_t>(counting);
}

// The installed rule of a counter, whose name ends in a dot and the rule's number.
NftForwarding::Rules::iterator NftForwarding::find_counter(const std::string& name) {
    ForwardingId id = 0;
    std::from_chars(name.data() + name.rfind('.') + 1, name.data() + name.size(), id);
    const auto at = rules_.find(id);
    const bool counts = at != rules_.end() && at->second.installed && at->second.name == name;
    return counts ? at : rules_.end();
}

// The table at once, then the known addresses, then the rules as if they had just been asked for.
void NftForwarding::put_back() {
    if (const int error = table_.open(); out_of_descriptors(error)) {
        broken_ = true;
        log_refusal(error);
        return;
    }
    log_message(kLogWarning, "FORWARDING", "RESTORED",
                "The rules of storm-loop-detect were changed from outside and are put back.");
    if (const int error = make_table(); error != 0) {
        lose_all(error);
        return;
    }
    mirror_.repeat();
    dropped_.clear();
    for (auto& [id, rule] : rules_) {
        rule.chain = {};
        rule.installed = false;
        rule.reported = {};
        changed_.insert(id);
    }
    gather();
}

void NftForwarding::lose_all(int error) {
    log_refusal(error);
    std::vector<ForwardingId> lost;
    for (const auto& [id, rule] : rules_) {
        lost.push_back(id);
    }
    close();
    for (const ForwardingId id : lost) {
        sink_->failed(id, error);
    }
}

// Once for each reason, until something could be installed again.
void NftForwarding::log_refusal(int error) {
    if (std::exchange(logged_refusal_, error) == error) {
        return;
    }
    log_message(kLogError, "FORWARDING", "REFUSED",
                "A rule of storm-loop-detect cannot be installed: %s. Storms are not found there.",
                std::strerror(error));
}

}  // namespace qv
