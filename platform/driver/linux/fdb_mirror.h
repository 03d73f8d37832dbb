// The addresses that a bridge knows, followed through rtnetlink.
//
// A bridge keeps one entry for each address and VLAN: learned ones, those set by hand and its own.
// An address is known while there is any entry for it. The mirror reports differences from its
// earlier reports, so an entry that only moves between ports is not a change; in a storm all of
// them move all the time. The source describes how the mirror stays complete.
//
// A station can invent addresses without end, so learned entries are limited. Those beyond the
// limit are left out, with a line in the log, until a quarter of the places is free again; then all
// entries are read once more.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/driver/linux/fdb_entry.h"
#include "platform/driver/linux/rtnl_monitor.h"

namespace qv {

// Loop thread only.
class FdbMirror final : private RtnlMonitor::Listener {
 public:
    static constexpr int kReceiveBuffer = 8 << 20;
    static constexpr size_t kMaxEntries = 65536;
    // How long changes are collected before they are reported.
    static constexpr std::chrono::milliseconds kGather{10};
    // Addresses in one report; the loop runs other work before the next.
    static constexpr size_t kMaxPerReport = 512;
    // Addresses that are compared for one report.
    static constexpr size_t kMaxCompared = 4096;
    // Pause before everything is read once more because there are free places.
    static constexpr std::chrono::seconds kRefillPause{1};
    // Readings in a row when entries are deleted during each of them.
    static constexpr unsigned kMaxReadings = 10;

    // Called from the loop, never inside a call of this class. No address is in both lists.
    using Changed = std::function<void(const std::vector<MacAddress>& added,
                                       const std::vector<MacAddress>& gone)>;

    struct Limits {
        int receive_buffer = kReceiveBuffer;
        size_t entries = kMaxEntries;  // learned ones are not added to more than these
    };

    // The loop must outlive the mirror.
    FdbMirror(EventLoop& loop, Changed changed, const Limits& limits);
    ~FdbMirror() override;

    // Follows the bridge with this interface index from now on; 0 means none and reports all
    // addresses as gone. Throws std::runtime_error, and changes nothing, when no socket can be
    // opened.
    void follow(uint32_t bridge);
    uint32_t bridge() const { return bridge_; }

    // Reports all known addresses as added once more: the receiver has lost them.
    void repeat();
    // True until repeat() has reported all of them.
    bool repeating() const { return repeating_; }

    // Stops following and drops all addresses, without a report.
    void stop();

    // The addresses that have been reported as added and not as gone, ascending.
    const std::set<MacAddress>& known() const { return known_; }
    // How often everything was read again because messages were lost.
    unsigned resyncs() const { return monitor_ ? monitor_->resyncs() : 0; }

 private:
    void on_dump_begin() override;
    bool on_dump_end() override;
    void on_message(nlmsghdr* header) override;
    struct Difference {
        std::vector<MacAddress> added;
        std::vector<MacAddress> gone;
        size_t size() const { return added.size() + gone.size(); }
    };

    bool is_full_for(const FdbEntry& entry, uint64_t key);
    void refill();
    void compare_all();
    std::optional<MacAddress> next_address(MacAddress from) const;
    bool has_entry(MacAddress address) const;
    void schedule_report();
    void report();
    void settle(MacAddress address, Difference& difference);

    EventLoop& loop_;
    const Changed changed_;
    const Limits limits_;
    uint32_t bridge_ = 0;
    std::set<uint64_t> entries_;  // the kernel's entries: address << 16 | VLAN
    bool full_ = false;           // entries were left out since the last list began
    bool logged_full_ = false;
    std::set<MacAddress> pending_;  // may differ between entries_ and known_
    // All addresses from this one on may differ, too; nothing: none.
    std::optional<MacAddress> compare_from_;
    std::set<MacAddress> known_;  // as reported
    bool reading_ = false;        // a dump is running, entries_ is incomplete
    std::set<uint64_t> deleted_;  // entries deleted during the running dump
    bool repeating_ = false;
    bool read_again_ = false;               // the next dump adds to this one
    unsigned readings_ = 0;                 // incomplete ones in a row
    std::unique_ptr<RtnlMonitor> monitor_;  // null while no bridge is followed
    EventLoop::Handle report_timer_;
    EventLoop::Handle refill_timer_;
};

}  // namespace qv
