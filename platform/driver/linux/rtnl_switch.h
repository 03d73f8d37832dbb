// The ports of a real Linux machine: the members of one bridge, through rtnetlink.
//
// One socket receives every link change of the network namespace (RTNLGRP_LINK) and the dumps, so
// both arrive in the kernel's own order. When the kernel has dropped notifications, the socket is
// opened again and all links are read again; the differences to the reported ports follow, removals
// first, so nothing is lost. Requests have a socket of their own and wait for the kernel's
// acknowledgement. The kernel queues the notification of a change before it acknowledges the
// request for it, so reading the first socket until it is empty brings the ports up to date with an
// acknowledged change.
//
// A port appears when its link joins the bridge and is removed when it leaves it (after
// port_left_bridge) or is deleted. The bridge itself may be created after the agent's start, and
// may be deleted and created again. Port fields: ifx is the kernel's interface index, phyid the
// bridge port number, name the kernel's name; a bond or team is an aggregate port. Flags are 0,
// and every port is a switch port.
//
// VLAN modes are kept here: access (1) until set_mode(), and forgotten when the port is removed.
// They are not written into the kernel's VLAN table.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// Loop thread only.
class RtnlSwitch final : public SwitchDriver {
 public:
    // Bytes of unread notifications that the kernel keeps for us. The memory is used only in a
    // burst, and costs less than another dump of thousands of links.
    static constexpr int kReceiveBuffer = 8 << 20;

    // Opens both sockets in the calling thread's network namespace; throws std::runtime_error with
    // the reason when that fails.
    RtnlSwitch(EventLoop& loop, std::string bridge, int receive_buffer = kReceiveBuffer);
    ~RtnlSwitch() override;

    // The sink must outlive the switch. ports_complete() follows the first dump, whether or not the
    // bridge exists.
    void start(PortSink& sink) override;

    // Sets or clears IFF_UP and waits for the acknowledgement. When it returns an empty text, the
    // sink has received all changes up to and including this one. A refusal is also logged, once
    // for each port, direction and reason, and so is the first success after it.
    std::string set_admin(uint32_t ifx, bool up) override;

    // Access, trunk or hybrid; reported from inside the call.
    std::string set_mode(uint32_t ifx, uint32_t mode) override;

    // From the link statistics of the kernel: one request for a port, one list for all of them.
    std::map<uint32_t, PortCounters> counters(uint32_t ifx) override;

    // Interface index of the bridge; 0 before the first dump and while there is no such bridge.
    // While the socket is being opened again it is the last known one.
    uint32_t bridge() const;

    // How often everything was read again because notifications were lost.
    unsigned resyncs() const;

 private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv
