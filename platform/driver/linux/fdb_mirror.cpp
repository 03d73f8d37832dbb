// The mirror holds two sets: `entries_`, what the kernel has, and `known_`, what was reported.
// `pending_` lists the addresses in which they may differ; after a list has been read, all
// addresses are compared, in ascending order. A timer reports the differences, some at a time, and
// moves them to `known_`.
//
// Entries come from one socket that is subscribed to changes before it asks for the list (a dump),
// so nothing happens unseen between the two. Three things can still make the list wrong:
//
//   The kernel drops messages when the socket's buffer is full. RtnlMonitor notices and reads
//   everything again: on_dump_begin() clears `entries_`, on_dump_end() compares both sets as a
//   whole. Nothing is reported meanwhile, so `known_` never follows half a list.
//
//   Entries are deleted during the dump. The kernel finds its place in the list again by counting,
//   so a deletion makes it skip entries that have moved up. The list is then read again, until a
//   reading passes without a deletion or kMaxReadings are done. Their findings add up.
//
//   A deletion is announced at once, but a part of the list that the kernel had composed before may
//   arrive later and still name the entry. `deleted_` remembers such entries until the dump ends.
//
// Multicast addresses are left out: the bridge floods them, whatever its list says.
#include "platform/driver/linux/fdb_mirror.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "platform/base/message_log.h"

namespace qv {
namespace {

constexpr unsigned kVlanBits = 16;
constexpr MacAddress kGroupBit = MacAddress{1} << 40;

}  // namespace

FdbMirror::FdbMirror(EventLoop& loop, Changed changed, const Limits& limits)
    : loop_(loop), changed_(std::move(changed)), limits_(limits) {}

FdbMirror::~FdbMirror() = default;

void FdbMirror::follow(uint32_t bridge) {
    std::unique_ptr<RtnlMonitor> monitor;
    if (bridge != 0) {
        monitor = std::make_unique<RtnlMonitor>(
            loop_, RtnlMonitor::Subject{.name = "forwarding-database entries",
                                        .group = RTNLGRP_NEIGH,
                                        .list_request = RTM_GETNEIGH,
                                        .family = AF_BRIDGE,
                                        .request_bytes = sizeof(ndmsg),
                                        .receive_buffer = limits_.receive_buffer});
    }
    monitor_ = std::move(monitor);
    refill_timer_.reset();
    bridge_ = bridge;
    read_again_ = false;
    if (!monitor_) {
        entries_.clear();
        compare_all();
        return;
    }
    reading_ = true;  // known_ stays as it is until the list is complete
    monitor_->start(*this);
}

void FdbMirror::stop() {
    monitor_.reset();
    report_timer_.reset();
    refill_timer_.reset();
    bridge_ = 0;
    entries_.clear();
    deleted_.clear();
    pending_.clear();
    compare_from_.reset();
    known_.clear();
    reading_ = false;
    read_again_ = false;
    repeating_ = false;
}

void FdbMirror::repeat() {
    known_.clear();
    compare_from_ = 0;
    repeating_ = true;
    schedule_report();
}

void FdbMirror::on_dump_begin() {
    reading_ = true;
    deleted_.clear();
    // Readings in a row add up, since the socket has seen every deletion between them. After a loss
    // it has not.
    if (!std::exchange(read_again_, false)) {
        entries_.clear();
        readings_ = 0;
        full_ = false;
    }
}

bool FdbMirror::on_dump_end() {
    read_again_ = !deleted_.empty() && ++readings_ < kMaxReadings;
    if (!read_again_) {
        compare_all();
    }
    return !read_again_;
}

void FdbMirror::compare_all() {
    reading_ = false;
    deleted_.clear();
    pending_.clear();
    compare_from_ = 0;
    schedule_report();
    if (!full_ && std::exchange(logged_full_, false)) {
        log_message(kLogInfo, "FORWARDING", "ADDRESSES",
                    "All addresses of the bridge are known again.");
    }
}

// Says so when a new entry must be left out.
bool FdbMirror::is_full_for(const FdbEntry& entry, uint64_t key) {
    if (!entry.learned || entries_.size() < limits_.entries || entries_.contains(key)) {
        return false;
    }
    full_ = true;
    if (!std::exchange(logged_full_, true)) {
        log_message(kLogWarning, "FORWARDING", "ADDRESSES",
                    "The bridge has learned more than %zu addresses: frames to the others count as "
                    "flooded. Limit what it learns with fdb_max_learned.",
                    limits_.entries);
    }
    return true;
}

// The entries that were left out.
void FdbMirror::refill() {
    try {
        follow(bridge_);
    } catch (const std::runtime_error&) {
        refill_timer_ = loop_.after(kRefillPause, [this] { refill(); });
    }
}

void FdbMirror::on_message(nlmsghdr* header) {
    const auto entry = parse_fdb_entry(header);
    if (!entry || entry->bridge != bridge_ || (entry->address & kGroupBit) != 0) {
        return;
    }
    const uint64_t key = entry->address << kVlanBits | entry->vlan;
    const bool listed = (header->nlmsg_flags & NLM_F_MULTI) != 0;
    if (header->nlmsg_type == RTM_DELNEIGH) {
        entries_.erase(key);
        if (reading_) {
            deleted_.insert(key);
        } else if (full_ && !refill_timer_ &&
                   entries_.size() <= limits_.entries - limits_.entries / 4) {
            refill_timer_ = loop_.after(kRefillPause, [this] { refill(); });
        }
    } else if ((!listed || !deleted_.contains(key)) && !is_full_for(*entry, key)) {
        entries_.insert(key);
    }
    if (!reading_ && has_entry(entry->address) != known_.contains(entry->address)) {
        pending_.insert(entry->address);
        schedule_report();
    }
}

bool FdbMirror::has_entry(MacAddress address) const {
    const auto entry = entries_.lower_bound(address << kVlanBits);
    return entry != entries_.end() && *entry >> kVlanBits == address;
}

void FdbMirror::schedule_report() {
    if (!report_timer_) {
        report_timer_ = loop_.after(kGather, [this] { report(); });
    }
}

// The first address of either set that is not lower.
std::optional<MacAddress> FdbMirror::next_address(MacAddress from) const {
    const auto entry = entries_.lower_bound(from << kVlanBits);
    const auto known = known_.lower_bound(from);
    if (entry == entries_.end()) {
        return known == known_.end() ? std::nullopt : std::optional(*known);
    }
    const MacAddress address = *entry >> kVlanBits;
    return known == known_.end() ? address : std::min(address, *known);
}

void FdbMirror::settle(MacAddress address, Difference& difference) {
    if (!has_entry(address)) {
        if (known_.erase(address) != 0) {
            difference.gone.push_back(address);
        }
    } else if (known_.insert(address).second) {
        difference.added.push_back(address);
    }
}

void FdbMirror::report() {
    if (reading_) {
        return;  // on_dump_end() schedules the next report
    }
    Difference difference;
    for (size_t n = 0; n < kMaxPerReport && !pending_.empty(); ++n) {
        settle(pending_.extract(pending_.begin()).value(), difference);
    }
    for (size_t n = 0; n < kMaxCompared && difference.size() < kMaxPerReport && compare_from_;
         ++n) {
        const auto address = next_address(*compare_from_);
        if (address) {
            settle(*address, difference);
        }
        compare_from_ = address ? std::optional(*address + 1) : std::nullopt;
    }
    if (!pending_.empty() || compare_from_) {
        report_timer_ = loop_.after(Duration::zero(), [this] { report(); });
    } else {
        repeating_ = false;
    }
    if (difference.size() != 0) {
        changed_(difference.added, difference.gone);
    }
}

}  // namespace qv
