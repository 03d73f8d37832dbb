// The mirror holds two sets: `entries_`, what the kernel has, and `known_`, what was reported.
// `pending_` lists the addresses in which they may differ. A timer reports those differences, some
// at a time, and moves them to `known_`.
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

#include <utility>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace qv {
namespace {

constexpr unsigned kVlanBits = 16;
constexpr MacAddress kGroupBit = MacAddress{1} << 40;

}  // namespace

FdbMirror::FdbMirror(EventLoop& loop, Changed changed, int receive_buffer)
    : loop_(loop), changed_(std::move(changed)), receive_buffer_(receive_buffer) {}

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
                                        .receive_buffer = receive_buffer_});
    }
    monitor_ = std::move(monitor);
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
    bridge_ = 0;
    entries_.clear();
    deleted_.clear();
    pending_.clear();
    known_.clear();
    reading_ = false;
    read_again_ = false;
    repeating_ = false;
}

void FdbMirror::repeat() {
    pending_.merge(known_);
    known_.clear();
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
    }
}

bool FdbMirror::on_dump_end() {
    read_again_ = !deleted_.empty() && ++readings_ < kMaxReadings;
    if (!read_again_) {
        compare_all();
    }
    return !read_again_;
}

// Makes every address of either set pending.
void FdbMirror::compare_all() {
    reading_ = false;
    deleted_.clear();
    pending_ = known_;
    for (const uint64_t entry : entries_) {
        pending_.insert(entry >> kVlanBits);
    }
    schedule_report();
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
        }
    } else if (!listed || !deleted_.contains(key)) {
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

void FdbMirror::report() {
    if (reading_) {
        return;  // on_dump_end() schedules the next report
    }
    std::vector<MacAddress> added;
    std::vector<MacAddress> gone;
    for (size_t n = 0; n < kMaxPerReport && !pending_.empty(); ++n) {
        const MacAddress address = pending_.extract(pending_.begin()).value();
        if (!has_entry(address)) {
            if (known_.erase(address) != 0) {
                gone.push_back(address);
            }
        } else if (known_.insert(address).second) {
            added.push_back(address);
        }
    }
    if (pending_.empty()) {
        repeating_ = false;
    } else {
        report_timer_ = loop_.after(Duration::zero(), [this] { report(); });
    }
    if (!added.empty() || !gone.empty()) {
        changed_(added, gone);
    }
}

}  // namespace qv
