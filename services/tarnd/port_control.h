// Changes of a port in the kernel. Each waits for the kernel's answer. One thread at a time.
#pragma once

#include <array>
#include <cstdint>

#include "platform/driver/linux/rtnl_requests.h"

namespace qv::tarnd {

// The flags of a bridge port: whether it is locked, learns, and floods unknown unicast, multicast
// and broadcast. One byte each, as the kernel has them.
struct PortFlags {
    uint8_t locked = 0;
    uint8_t learning = 1;
    uint8_t flood = 1;
    uint8_t mcast_flood = 1;
    uint8_t bcast_flood = 1;

    bool operator==(const PortFlags&) const = default;
};

// A port that passes nothing but what the kernel itself takes, and probes.
inline constexpr PortFlags kClosed{
    .locked = 1, .learning = 0, .flood = 0, .mcast_flood = 0, .bcast_flood = 0};

// The flags with which a closed port is opened again: those of `former` that are as closing has
// left them in `present`. Whoever set another flag meanwhile keeps it.
PortFlags opened(const PortFlags& present, const PortFlags& former);

// In one number, for the journal.
uint32_t pack(const PortFlags& flags);
PortFlags unpack(uint32_t number);

// The constructor opens a socket; it throws std::runtime_error.
class PortControl {
 public:
    // Sets or clears IFF_UP. 0 or errno.
    int set_up(uint32_t ifx, bool up) const;
    // The spanning-tree state of a bridge port (BR_STATE_*). 0 or errno: the kernel refuses it
    // while its own spanning tree runs.
    int set_state(uint32_t ifx, uint8_t state) const;
    // The flags of a bridge port. 0 or errno: ENODEV for an interface that is gone, EINVAL for one
    // that is in no bridge.
    int read_flags(uint32_t ifx, PortFlags& flags) const;
    int set_flags(uint32_t ifx, const PortFlags& flags) const;

 private:
    RtnlRequests requests_;
};

}  // namespace qv::tarnd
