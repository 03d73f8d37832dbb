// From link messages to ports: which links are members of one bridge, and what has changed.
//
// Knows every link, so that the members are there at once when the bridge of our name shows up
// later than its members, and reports the differences to the port sink.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/driver/linux/rtnl_link.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// Loop thread only.
class BridgePorts {
 public:
    // The sink stays the caller's and must outlive this.
    BridgePorts(std::string bridge, PortSink& sink);

    // Between the two nothing is reported; end_dump() then forgets every link that was not named
    // since begin_dump() and reports all differences: ports that are gone first, so that the name
    // of one may have passed on to another.
    void begin_dump();
    void end_dump();

    void take(const LinkMessage& message);

    // A port as it was reported, or null. Valid until the next call of another function.
    const Port* find(uint32_t ifx) const;

    // Interface index of the bridge as the messages so far have it; 0 when there is none.
    uint32_t bridge() const { return bridge_ifx_; }

    // Keeps and reports the VLAN mode of a reported port.
    void set_mode(uint32_t ifx, uint32_t mode);

    // Takes over and reports the kernel's admin state of a reported port, also between begin_dump()
    // and end_dump(): for a caller who knows it before the message that says so has arrived.
    void set_admin(uint32_t ifx, bool up);

 private:
    struct Link {
        LinkMessage state;
        unsigned dump = 0;  // number of the dump in or after which it was last named
    };

    const LinkMessage* member(uint32_t ifx) const;
    bool follow_bridge(const LinkMessage& message);
    void report(uint32_t ifx);
    void report_removed(uint32_t ifx);
    void report_all();

    const std::string bridge_;
    PortSink& sink_;
    uint32_t bridge_ifx_ = 0;  // 0: there is no such bridge
    std::map<uint32_t, Link> links_;
    std::map<uint32_t, Port> reported_;
    unsigned dump_ = 0;
    bool dumping_ = false;
};

}  // namespace qv
