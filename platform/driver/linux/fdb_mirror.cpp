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
    again_ = false;
    if (!monitor_) {
        entries_.clear();
        compare();
        return;
    }
    reading_ = true;  // what was known stays until the list is complete
    monitor_->start(*this);
}

void FdbMirror::stop() {
    monitor_.reset();
    gathering_.reset();
    bridge_ = 0;
    entries_.clear();
    deleted_.clear();
    touched_.clear();
    known_.clear();
    reading_ = false;
    again_ = false;
    repeating_ = false;
}

void FdbMirror::repeat() {
    touched_.merge(known_);
    known_.clear();
    repeating_ = true;
    gather();
}

void FdbMirror::on_dump_begin() {
    reading_ = true;
    deleted_.clear();
    // Only from one reading to the next nothing that went has been missed.
    if (!std::exchange(again_, false)) {
        entries_.clear();
        readings_ = 0;
    }
}

bool FdbMirror::on_dump_end() {
    again_ = !deleted_.empty() && ++readings_ < kReadings;
    if (!again_) {
        compare();
    }
    return !again_;
}

// With everything that is there now.
void FdbMirror::compare() {
    reading_ = false;
    deleted_.clear();
    touched_ = known_;
    for (const uint64_t entry : entries_) {
        touched_.insert(entry >> kVlanBits);
    }
    gather();
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
        touched_.insert(entry->address);
        gather();
    }
}

bool FdbMirror::has_entry(MacAddress address) const {
    const auto entry = entries_.lower_bound(address << kVlanBits);
    return entry != entries_.end() && *entry >> kVlanBits == address;
}

void FdbMirror::gather() {
    if (!gathering_) {
        gathering_ = loop_.after(kGather, [this] { hand_on(); });
    }
}

void FdbMirror::hand_on() {
    if (reading_) {
        return;  // its end gathers again
    }
    std::vector<MacAddress> added;
    std::vector<MacAddress> gone;
    for (size_t n = 0; n < kAtOnce && !touched_.empty(); ++n) {
        const MacAddress address = touched_.extract(touched_.begin()).value();
        if (!has_entry(address)) {
            if (known_.erase(address) != 0) {
                gone.push_back(address);
            }
        } else if (known_.insert(address).second) {
            added.push_back(address);
        }
    }
    if (touched_.empty()) {
        repeating_ = false;
    } else {
        gathering_ = loop_.after(Duration::zero(), [this] { hand_on(); });
    }
    if (!added.empty() || !gone.empty()) {
        changed_(added, gone);
    }
}

}  // namespace qv
