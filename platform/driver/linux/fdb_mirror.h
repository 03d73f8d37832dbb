// The addresses that a bridge knows, followed through rtnetlink.
//
// A bridge keeps one entry for each address and VLAN: learned ones, those set by hand and its own.
// An address is known while there is any entry for it. Changes are gathered for a moment and
// then handed on as differences, so that an entry that only moves between ports (which is what all
// of them do in a storm) is no change at all. When the kernel had to drop messages, all entries are
// read again and the differences handed on; nothing is lost. They are also read again when
// entries went while they were being read: the kernel continues by position in its list, and so
// skips entries that have moved up.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
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
    // How long changes are gathered.
    static constexpr std::chrono::milliseconds kGather{10};
    // Addresses handed on in one go; the loop has its turn before the next.
    static constexpr size_t kAtOnce = 512;
    // How often everything is read in a row while entries go; what is found adds up.
    static constexpr unsigned kReadings = 10;

    // From the loop. No address is in both lists.
    using Changed = std::function<void(const std::vector<MacAddress>& added,
                                       const std::vector<MacAddress>& gone)>;

    // The loop must outlive the mirror.
    FdbMirror(EventLoop& loop, Changed changed, int receive_buffer = kReceiveBuffer);
    ~FdbMirror() override;

    // Follows the bridge with this interface index from now on; 0 for none, then no address is
    // known. Throws std::runtime_error when no socket can be opened, and then changes nothing.
    void follow(uint32_t bridge);
    uint32_t bridge() const { return bridge_; }

    // Hands on all known addresses again, as if none had been.
    void repeat();
    // Until all of them have been.
    bool repeating() const { return repeating_; }

    // Forgets everything, without a report.
    void stop();

    // The addresses that have been handed on, ascending.
    const std::set<MacAddress>& known() const { return known_; }
    // How often everything was read again because messages were lost.
    unsigned resyncs() const { return monitor_ ? monitor_->resyncs() : 0; }

 private:
    void on_dump_begin() override;
    bool on_dump_end() override;
    void on_message(nlmsghdr* header) override;
    void compare();
    bool has_entry(MacAddress address) const;
    void gather();
    void hand_on();

    EventLoop& loop_;
    const Changed changed_;
    const int receive_buffer_;
    uint32_t bridge_ = 0;
    std::set<uint64_t> entries_;    // address and VLAN: address << 16 | VLAN
    std::set<MacAddress> touched_;  // may differ between entries_ and known_
    std::set<MacAddress> known_;
    bool reading_ = false;  // between the two ends of a dump entries_ is not complete
    // Entries whose deletion was announced in mid-dump. The kernel announces it at once, but may
    // send a part of the list that it had begun before: what the list says of them is out of date.
    std::set<uint64_t> deleted_;
    bool repeating_ = false;
    bool again_ = false;                    // the next dump adds to what this one has found
    unsigned readings_ = 0;                 // in a row in which entries went
    std::unique_ptr<RtnlMonitor> monitor_;  // null while no bridge is followed
    EventLoop::Handle gathering_;
};

}  // namespace qv
