// A whole switch in memory: Ethernet ports that are up as long as nobody shuts them, cables plugged
// into loops, storms, aggregate ports and virtual switch links, all changed by the controls below.
//
// It starts with `ports` Ethernet ports swp1, swp2, ... with interface index and
// forwarding-plane id 1, 2, ..., in access mode, up. A port added later as "swpN" takes index N
// when that is free, any other name takes the next index never used before.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/event_loop.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// Loop thread only. Controls, like requests, return an empty text on success, else the reason; a
// refused one changes nothing. Changes are reported from inside the call.
class EmbeddedSwitch final : public SwitchDriver {
 public:
    // Packets per second on each port of a loop between two ports.
    static constexpr uint64_t kLoopRate = 100000;

    EmbeddedSwitch(EventLoop& loop, unsigned ports);

    // The caller owns the sink, which must outlive the switch.
    void start(PortSink& sink) override;
    std::string set_admin(uint32_t ifx, bool up) override;
    std::string set_mode(uint32_t ifx, uint32_t mode) override;
    // This switch counts nothing.
    std::map<uint32_t, PortCounters> counters(uint32_t) override { return {}; }

    // Ports. Deleting a port unplugs its cable, removes it from its aggregate port, and removes its
    // own members from it.
    std::string add_port(std::string_view name);
    std::string add_aggregate(std::string_view name);
    std::string delete_port(uint32_t ifx);
    std::string rename_port(uint32_t ifx, std::string_view name);
    // Removes the port from the bridge; set_mode() adds it again.
    std::string leave_bridge(uint32_t ifx);
    std::string join_aggregate(uint32_t aggregate, uint32_t member);
    std::string leave_aggregate(uint32_t aggregate, uint32_t member);
    std::string create_vsl(uint32_t ifx);
    std::string remove_vsl(uint32_t ifx);

    // Cables. A port takes one. A port that is plugged into itself receives its own frames: a loop,
    // but no storm.
    std::string plug(uint32_t a, uint32_t b);
    std::string unplug(uint32_t a, uint32_t b);
    // Flooded packets per second that arrive from outside while the port is up; 0 ends the storm.
    std::string set_storm(uint32_t ifx, uint64_t pps);

    // By short name; null when unknown. Valid until the port is changed or deleted.
    const Port* find_port(std::string_view name) const;
    bool has_cable(uint32_t ifx) const;
    // The other end of the port's cable while both ends are up and in the bridge.
    std::optional<uint32_t> loop_peer(uint32_t ifx) const;

    // Called with each port when its state, its cable or the state of its far end may have changed;
    // a change that concerns both ends is reported for both, the lower index first. One listener.
    void set_wiring_listener(std::function<void(uint32_t ifx)> listener);
    // Called with the port's flooded packets per second whenever that changes. One listener.
    void set_rate_listener(std::function<void(uint32_t phyid, uint64_t pps)> listener);

 private:
    struct Member {
        Port port;
        uint32_t cable = 0;  // the other end, 0 for none
        uint64_t storm = 0;
        uint64_t rate = 0;  // as last reported
    };

    Member* find(uint32_t ifx);
    const Member* find(uint32_t ifx) const;
    std::string name_fault(std::string_view name) const;
    uint32_t index_for(std::string_view name) const;
    std::string add(std::string_view name, uint32_t type);
    std::string set_vsl(uint32_t ifx, bool vsl);
    void cut_cable(Member& member);
    void changed(const Member& member);
    void wiring_changed(uint32_t ifx, uint32_t far_end);
    void update_rate(uint32_t ifx);

    EventLoop& loop_;
    PortSink* sink_ = nullptr;
    bool reported_ = false;  // the initial ports have been reported
    uint32_t highest_ = 0;   // highest interface index ever used
    std::map<uint32_t, Member> members_;
    std::function<void(uint32_t)> wiring_listener_;
    std::function<void(uint32_t, uint64_t)> rate_listener_;
};

}  // namespace qv
