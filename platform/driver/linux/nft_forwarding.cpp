// How a rule gets into the kernel.
//
// install() only notes the rule in `changed_`, remove() in `dropped_`, port_changed() notes it in
// `changed_` again when the rule's chain must move. After kGather, commit() opens the table and
// makes one batch of these changes in one transaction; while changes are left it runs again, after
// the loop's other work. libnftables reads all chains and counters before each transaction: one for
// each of 512 rules takes five times as long as eight for all of them, and one for all would stop
// the loop for too long. The rule's answer goes out when the kernel has it.
//
// A transaction fails as a whole. Then each of its changes is tried alone, so that only the
// impossible one is refused. A device that the kernel does not know was renamed or removed a moment
// ago and the port model will soon say so: such a rule waits in `without_device_` for the next
// tick.
//
// The names of the bridge and its devices come from the port model, never from a look-up in the
// kernel: that would fail, and a rule with it, when the process is out of descriptors.
// For the same reason nothing is changed while a socket cannot be opened: commit() tries
// again every kRetry, and rules in the kernel stay.
//
// A rule belongs to a bridge port number. While no port has that number the rule keeps its counter
// but has no chain; the chain returns with the port.
//
// tick() runs every second: it reads and reports the counters, and checks whether another program
// has changed the table. If so, restore() rebuilds the table: first empty, then the known addresses
// (FdbMirror::repeat), then all rules through commit(), which waits for the addresses, because
// without them every frame would count as flooded. Only a table that cannot be rebuilt is reported
// as lost, with all its rules. close() removes the table with the last rule and when the process
// ends in order; after a crash, remove_leftovers() of the next process does.
//
// A sink's callback may call any function of this class. So no iterator into `rules_` lives across
// one: reports and answers are collected first, then sent.
#include "platform/driver/linux/nft_forwarding.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
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
          loop, [this](const auto& added, const auto& gone) { update_known(added, gone); },
          settings_.mirror) {}

NftForwarding::~NftForwarding() {
    close();
}

void NftForwarding::start(ForwardingSink& sink) {
    sink_ = &sink;
}

// ACLs and entries need no space in the kernel.
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
    schedule_commit();
}

int NftForwarding::check(const Rule& rule) {
    if (!rule.phyid) {
        // The kernel has no hook for exactly the frames of one bridge. A rule that neither counts
        // nor meters needs none; only the table must exist.
        return rule.rule.counted || rule.rule.meter ? EOPNOTSUPP : 0;
    }
    if (rule.rule.meter && rule.rule.meter->rate_pps == 0) {
        return EINVAL;
    }
    log_bad_name(*rule.phyid);
    return locate(*rule.phyid).device.empty() ? ENODEV : 0;
}

NftForwarding::Place NftForwarding::locate(uint32_t phyid) const {
    const Port* const port = settings_.find_port(phyid);
    const bool usable = port != nullptr && NftTable::can_name(port->name);
    return usable ? Place{.device = port->name, .ifx = port->ifx} : Place{};
}

void NftForwarding::schedule_commit() {
    if (!commit_timer_) {
        commit_timer_ = loop_.after(kGather, [this] { commit(); });
    }
}

// The answers are sent last, when the state they report is reached.
void NftForwarding::commit() {
    const int error = open_table();
    if (out_of_descriptors(error)) {
        log_refusal(error);
    }
    if (out_of_descriptors(error) || (error == 0 && !mirrored_)) {
        commit_timer_ = loop_.after(kRetry, [this] { commit(); });
        return;
    }
    if (mirror_.repeating()) {
        commit_timer_ = loop_.after(kGather, [this] { commit(); });
        return;
    }
    // Real time: the loop's clock may run faster.
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Answer> answers = apply(next_batch(), error);
    batch_size_ = next_batch_size(batch_size_, std::chrono::steady_clock::now() - begin);
    if (!changed_.empty() || !dropped_.empty()) {
        commit_timer_ = loop_.after(Duration::zero(), [this] { commit(); });
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
        without_device_.erase(batch.changed.back());
    }
    return batch;
}

std::vector<NftForwarding::Answer> NftForwarding::apply(const Batch& batch, int table_error) {
    std::vector<Answer> answers;
    const auto note = [&](ForwardingId id, int error) {
        if (record_outcome(id, error)) {
            answers.emplace_back(id, error);
        }
    };
    if (table_error != 0 || run(batch) == 0) {
        for (const ForwardingId id : batch.changed) {
            note(id, table_error);
        }
        return answers;
    }
    // No change of the batch was made.
    if (table_.is_gone()) {
        changed_.insert(batch.changed.begin(), batch.changed.end());
        restore();
        return answers;
    }
    // Tries each change alone, so that only the impossible one fails.
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
        add_removal(change, rule);
    }
    for (const ForwardingId id : batch.changed) {
        add_update(change, rules_.at(id));
    }
    return table_.run(change);
}

// Updates a rule after a transaction. Returns true when the result must be reported.
bool NftForwarding::record_outcome(ForwardingId id, int error) {
    Rule& rule = rules_.at(id);
    if (error == 0) {
        rule.chain = rule.place;
        rule.installed = true;
        rule.tries = 0;
        return !std::exchange(rule.answered, true);
    }
    // The device may have been removed or renamed, and the port model does not know yet.
    if (error == ENOENT && !rule.place.device.empty() && ++rule.tries < kDeviceTries) {
        without_device_.insert(id);
        return false;
    }
    if (rule.installed) {
        broken_ = true;  // its chain is still in the old place
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

void NftForwarding::add_removal(NftTable::Change& change, const Rule& rule) {
    if (!rule.chain.device.empty()) {
        change.drop_chain(rule.name);
    }
    if (rule.rule.counted) {
        change.drop_counter(rule.name);
    }
}

// Adds the requests that turn the kernel's state of a rule into the wanted one. Even a chain that
// stays in place is replaced: some kernels remove it with its device, which may have left and
// returned.
void NftForwarding::add_update(NftTable::Change& change, Rule& rule) const {
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

// Makes sure that the table exists and its sockets are open. A new table starts the mirror and the
// ticks.
int NftForwarding::open_table() {
    if (open_) {
        return table_.open();
    }
    if (const int error = make_table(); error != 0) {
        return error;
    }
    open_ = true;
    tick_timer_ = loop_.after(kTick, [this] { tick(); });
    follow_bridge();
    return 0;
}

// Replaces the table, if there is one, by an empty one.
int NftForwarding::make_table() {
    NftTable::Change change = table_.change();
    change.replace_table();
    const int error = table_.run(change);
    if (error == 0) {
        broken_ = false;
        table_.forget_changes();  // the new table has none of them
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
    without_device_.erase(id);
    if (rules_.empty()) {
        close();
    } else if (rule.phyid && rule.installed) {
        dropped_.push_back(std::move(rule));
        schedule_commit();
    }
}

// Without the privilege this fails silently; the first rule's refusal reports it.
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
    without_device_.clear();
    dropped_.clear();
    commit_timer_.reset();
    tick_timer_.reset();
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
            log_bad_name(phyid);
            schedule_commit();
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
        // The addresses known so far stay. Rules that are not installed yet wait: without addresses
        // every frame would count as flooded and be metered.
        if (std::exchange(mirrored_, false)) {
            log_message(kLogError, "FORWARDING", "MIRROR",
                        "The bridge's addresses are not known: %s", error.what());
        }
    }
}

void NftForwarding::update_known(const std::vector<MacAddress>& added,
                                 const std::vector<MacAddress>& gone) {
    if (table_.change_known(added, gone) != 0) {
        broken_ = true;
    }
}

void NftForwarding::tick() {
    tick_timer_ = loop_.after(kTick, [this] { tick(); });
    follow_bridge();
    std::vector<NamedCounter> counters;
    counters.reserve(rules_.size());
    const int error = table_.read_counters(counters);
    const bool complete = report(counters);
    // An incomplete list proves nothing; its missing counters are read at the next tick.
    if (open_ &&
        (table_.changed_outside(mirror_.known()) || broken_ || (error == 0 && !complete))) {
        restore();
    }
    if (!without_device_.empty()) {
        changed_.merge(without_device_);
        schedule_commit();
    }
}

// Reports the increments. Returns true when every rule that counts has its counter in the list.
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
    // The sink may remove rules.
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

// Rebuilds the table at once; the mirror and commit() fill it again.
void NftForwarding::restore() {
    if (const int error = table_.open(); out_of_descriptors(error)) {
        broken_ = true;
        log_refusal(error);
        return;
    }
    log_message(kLogWarning, "FORWARDING", "RESTORED",
                "The rules of storm-loop-detect were changed from outside and are restored.");
    if (const int error = make_table(); error != 0) {
        fail_all(error);
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
    schedule_commit();
}

void NftForwarding::fail_all(int error) {
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

// Logs each reason once, until a rule could be installed again.
void NftForwarding::log_refusal(int error) {
    if (std::exchange(logged_refusal_, error) == error) {
        return;
    }
    log_message(kLogError, "FORWARDING", "REFUSED",
                "A rule of storm-loop-detect cannot be installed: %s. Storms are not found there.",
                std::strerror(error));
}

// Logs each name that no rule can hold once, until the port has another one.
void NftForwarding::log_bad_name(uint32_t phyid) {
    const Port* const port = settings_.find_port(phyid);
    if (port == nullptr || NftTable::can_name(port->name)) {
        bad_names_.erase(phyid);
        return;
    }
    if (std::exchange(bad_names_[phyid], port->name) == port->name) {
        return;
    }
    const LogAbout about({.port = port->name});
    log_message(kLogError, "FORWARDING", "REFUSED",
                "No rule of storm-loop-detect can hold the name of port %s (interface %" PRIu32
                "). Storms are not found there. Rename it.",
                port->name.c_str(), port->ifx);
}

}  // namespace qv
