// The ports of one bridge and which of them forward, from the kernel's link messages. Tells a
// prober.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/base/clock.h"
#include "platform/driver/linux/rtnl_link.h"
#include "services/tarnd/prober.h"

struct nlmsghdr;

namespace qv::tarnd {

struct PortStateMessage {
    uint32_t ifx;
    uint8_t state;  // BR_STATE_*
};

// Decodes the spanning-tree state of a bridge port from a message about the link or from the
// bridge's own about its side of it. Nothing when the message does not say. Any thread.
std::optional<PortStateMessage> parse_port_state(nlmsghdr* header);

// An entry that a bridge has learned, and where.
struct LearnedAddress {
    uint32_t bridge;
    uint32_t ifx;
    uint64_t address;  // the VLAN in the upper 16 bits
};

// Decodes the announcement of a learned or moved address. Nothing for any other message, and for
// addresses that were set by hand. Any thread.
std::optional<LearnedAddress> parse_learned(nlmsghdr* header);

// Probing thread only.
class BridgeView {
 public:
    BridgeView(std::string bridge, Prober& prober);

    void begin_dump();
    void end_dump(Time now);
    // A message of the list or a change.
    void take(nlmsghdr* header, Time now);

    uint32_t bridge() const { return bridge_ifx_; }  // interface index; 0: there is none

 private:
    struct Link {
        uint32_t master = 0;
        bool up = false;
        uint8_t state = 0;        // BR_STATE_*
        bool seen = true;         // in the present dump
        bool member = false;      // as reported
        bool forwarding = false;  // as reported
        bool elsewhere = false;   // as reported
    };

    void follow_bridge(const LinkMessage& message, Time now);
    void forget(uint32_t ifx, Time now);
    void tell(uint32_t ifx, Link& link, Time now);
    void tell_all(Time now);

    const std::string bridge_;
    Prober& prober_;
    uint32_t bridge_ifx_ = 0;
    std::map<uint32_t, Link> links_;  // all of the namespace
};

}  // namespace qv::tarnd
