// Turns link messages into ports: tracks which links are members of one bridge and reports the
// differences to the port sink.
//
// Tracks all links, not only members: when the bridge is created or renamed after its members, they
// are reported at once.
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
    // The caller owns the sink, which must outlive this.
    BridgePorts(std::string bridge, PortSink& sink);

    // Nothing is reported between these two. end_dump() then drops every link that no message since
    // begin_dump() has named, and reports all differences: removed ports first, because another
    // port may have the name of a removed one.
    void begin_dump();
    void end_dump();

    void take(const LinkMessage& message);

    // A port as it was reported last, or null. Valid until the next call that is not const.
    const Port* find(uint32_t ifx) const;

    // Interface index of the bridge according to the messages so far; 0 when there is none.
    uint32_t bridge() const { return bridge_ifx_; }

    // Keeps and reports the VLAN mode of a reported port.
    void set_mode(uint32_t ifx, uint32_t mode);

    // Sets and reports the admin state of a port, also between begin_dump() and end_dump(). For a
    // caller that knows the kernel's state before the message about it has arrived.
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
    uint32_t bridge_ifx_ = 0;  // 0: no bridge of that name
    std::map<uint32_t, Link> links_;
    std::map<uint32_t, Port> reported_;
    unsigned dump_ = 0;
    bool dumping_ = false;
};

}  // namespace qv
