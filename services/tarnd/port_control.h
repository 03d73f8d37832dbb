// Changes of a port in the kernel. Each waits for the kernel's answer. One thread at a time.
#pragma once

#include <cstdint>

#include "platform/driver/linux/rtnl_monitor.h"

namespace qv::tarnd {

class PortControl {
 public:
    PortControl();  // throws std::runtime_error

    // Sets or clears IFF_UP. 0 or errno.
    int set_up(uint32_t ifx, bool up) const;
    // The spanning-tree state of a bridge port (BR_STATE_*). 0 or errno: the kernel refuses it
    // while its own spanning tree runs.
    int set_state(uint32_t ifx, uint8_t state) const;

 private:
    NlSocket socket_;
};

}  // namespace qv::tarnd
