#include "platform/driver/linux/nft_forwarding.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <net/if.h>

#include "qv/syslog.h"

namespace qv {

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
    int error = 0;
    if (phyid) {
        error = install_on_port(id, *phyid, rule);
    } else if (rule.counted || rule.meter) {
        error = EOPNOTSUPP;  // there is no hook that all frames of a bridge and no others pass
    } else {
        // Nothing happens to the frames, so nothing is installed; but the plane must be there.
        error = open_table();
    }
    if (error == 0 && !phyid) {
        rules_[id].rule = rule;
    }
    if (error != 0) {
        if (rules_.empty()) {
            close();
        }
        log_refusal(error);
        sink_->failed(id, error);
        return;
    }
    logged_refusal_ = 0;
    sink_->done(id);
}

int NftForwarding::install_on_port(ForwardingId id, uint32_t phyid, const ForwardingRule& rule) {
    if (rule.meter && rule.meter->rate_pps == 0) {
        return EINVAL;
    }
    Rule added = {.phyid = phyid,
                  .rule = rule,
                  .name = "port" + std::to_string(phyid) + "." + std::to_string(id),
                  .device = "",
                  .ifx = 0,
                  .reported = {}};
    locate(added);
    if (added.device.empty()) {
        return ENODEV;
    }
    if (const int error = open_table(); error != 0) {
        return error;
    }
    NftTable::Change change = table_.change();
    if (rule.counted) {
        change.add_counter(added.name);
    }
    change.add_chain(added.name, added.device, rule);
    const int error = table_.run(change);
    if (error == 0) {
        rules_[id] = added;
    }
    return error;
}

// Finds the device of a rule's port. There is none, too, when its link has gone and we have not
// heard of it yet.
void NftForwarding::locate(Rule& rule) const {
    const Port* const port = settings_.find_port(*rule.phyid);
    const bool there = port != nullptr && NftTable::can_name(port->name) &&
                       if_nametoindex(port->name.c_str()) == port->ifx;
    rule.device = there ? port->name : "";
    rule.ifx = there ? port->ifx : 0;
}

// With an empty table and the mirror at work.
int NftForwarding::open_table() {
    if (open_) {
        return 0;
    }
    NftTable::Change change = table_.change();
    change.begin_anew();
    if (const int error = table_.run(change); error != 0) {
        return error;
    }
    open_ = true;
    timer_ = loop_.after(kTick, [this] { tick(); });
    follow_bridge();
    return 0;
}

void NftForwarding::remove(ForwardingId id) {
    const auto found = rules_.find(id);
    if (found == rules_.end()) {
        return;
    }
    const Rule rule = std::move(found->second);
    rules_.erase(found);
    if (rules_.empty()) {
        close();
        return;
    }
    if (!rule.phyid) {
        return;
    }
    NftTable::Change change = table_.change();
    change.drop_chain(rule.name);
    if (rule.rule.counted) {
        change.drop_counter(rule.name);
    }
    if (table_.run(change) != 0) {
        broken_ = true;
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
    timer_.reset();
    mirror_.stop();
    if (std::exchange(open_, false)) {
        NftTable::Change change = table_.change();
        change.drop_table();
        table_.run(change);
    }
    broken_ = false;
}

void NftForwarding::port_changed(uint32_t phyid) {
    if (!open_) {
        return;
    }
    follow_bridge();
    for (auto& [id, rule] : rules_) {
        if (rule.phyid == phyid) {
            move_chain(rule);
        }
    }
}

// Brings a rule's chain to where its port is now.
void NftForwarding::move_chain(Rule& rule) {
    const std::string device = rule.device;
    const uint32_t ifx = rule.ifx;
    locate(rule);
    if (device == rule.device && ifx == rule.ifx) {
        return;
    }
    NftTable::Change change = table_.change();
    if (!device.empty()) {
        change.drop_chain(rule.name);
    }
    if (!rule.device.empty()) {
        change.add_chain(rule.name, rule.device, rule.rule);
    }
    if (table_.run(change) != 0) {
        broken_ = true;
    }
}

void NftForwarding::follow_bridge() {
    const uint32_t bridge = if_nametoindex(settings_.bridge.c_str());
    if (bridge == mirror_.bridge()) {
        return;
    }
    try {
        mirror_.follow(bridge);
        mirrored_ = true;
    } catch (const std::runtime_error& error) {
        // Until it works every frame counts as flooded.
        if (std::exchange(mirrored_, false)) {
            printk_syslog(SYSLOG_SEVERITY_ERROR, "FORWARDING", "MIRROR",
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
    std::map<std::string, PacketCounts> counters;
    const int error = table_.read_counters(counters);
    if (error == EINTR || error == ENOBUFS) {
        return;  // busy; nothing is lost, the next reading counts from the same point
    }
    report(counters);
    if (open_ && (broken_ || !has_all(counters))) {
        put_back();
    }
}

bool NftForwarding::has_all(const std::map<std::string, PacketCounts>& counters) const {
    for (const auto& [id, rule] : rules_) {
        if (rule.phyid && rule.rule.counted && !counters.contains(rule.name)) {
            return false;
        }
    }
    return true;
}

void NftForwarding::report(const std::map<std::string, PacketCounts>& counters) {
    std::vector<std::pair<ForwardingId, PacketCounts>> reports;
    for (auto& [id, rule] : rules_) {
        const auto counter = counters.find(rule.name);
        if (counter == counters.end()) {
            continue;
        }
        const PacketCounts now = counter->second;
        const PacketCounts before = std::exchange(rule.reported, now);
        const PacketCounts since = {.packets = counted_since(before.packets, now.packets),
                                    .bytes = counted_since(before.bytes, now.bytes)};
        if (since.packets != 0) {
            reports.emplace_back(id, since);
        }
    }
    // A report may lead to removals.
    for (const auto& [id, since] : reports) {
        if (rules_.contains(id)) {
            sink_->counted(id, since.packets, since.bytes);
        }
    }
}

// The whole table in one transaction, then the known addresses.
void NftForwarding::put_back() {
    printk_syslog(SYSLOG_SEVERITY_WARNING, "FORWARDING", "RESTORED",
                  "The rules of storm-loop-detect were changed from outside and are put back.");
    int error = run_anew();
    if (error == 0) {
        const std::vector<MacAddress> known(mirror_.known().begin(), mirror_.known().end());
        error = table_.change_known(known, {});
    }
    broken_ = false;
    if (error == 0) {
        return;
    }
    log_refusal(error);
    std::vector<ForwardingId> lost;
    for (const auto& [id, rule] : rules_) {
        lost.push_back(id);
    }
    for (const ForwardingId id : lost) {
        lose(id, error);
    }
}

int NftForwarding::run_anew() {
    NftTable::Change change = table_.change();
    change.begin_anew();
    for (auto& [id, rule] : rules_) {
        if (!rule.phyid) {
            continue;
        }
        locate(rule);
        rule.reported = {};
        if (rule.rule.counted) {
            change.add_counter(rule.name);
        }
        if (!rule.device.empty()) {
            change.add_chain(rule.name, rule.device, rule.rule);
        }
    }
    return table_.run(change);
}

void NftForwarding::lose(ForwardingId id, int error) {
    remove(id);
    sink_->failed(id, error);
}

// Once for each reason, until something could be installed again.
void NftForwarding::log_refusal(int error) {
    if (std::exchange(logged_refusal_, error) == error) {
        return;
    }
    printk_syslog(
        SYSLOG_SEVERITY_ERROR, "FORWARDING", "REFUSED",
        "A rule of storm-loop-detect cannot be installed: %s. Storms are not found there.",
        std::strerror(error));
}

}  // namespace qv
