// The switch under the port model: ports, their states, and the means to change them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace qv {

struct Port {
    uint32_t ifx = 0;        // interface index, the key
    uint32_t phyid = 0;      // forwarding-plane port id
    std::string name;        // short name, such as "swp1"
    uint32_t type = 2;       // LSM_TYPE_*
    uint32_t flags = 0;      // LSM_IF_FLAG_*
    bool switchport = true;  // LSM_INTFCB_FLAG_SWITCHPORT
    uint32_t mode = 1;       // SWPORT_MODE_*
    uint32_t aggregate = 0;  // interface index of the aggregate port, 0 for none
    bool vsl = false;        // converted into a virtual switch link
    bool admin_up = true;
    bool oper_up = true;
};

// The traffic of a port since it was created. A driver leaves empty what it does not know.
struct PortCounters {
    struct Direction {
        std::optional<uint64_t> packets;
        std::optional<uint64_t> bytes;
        std::optional<uint64_t> drops;   // for lack of buffers, or by a rule
        std::optional<uint64_t> errors;  // damaged packets

        bool operator==(const Direction&) const = default;
    };
    Direction received;
    Direction sent;

    bool operator==(const PortCounters&) const = default;
};

// The receiver of a driver's reports. Loop thread only.
class PortSink {
 public:
    virtual ~PortSink() = default;
    virtual void port_added(const Port& port) = 0;
    virtual void port_removed(uint32_t ifx) = 0;
    // Any field but `ifx` has changed; the sink finds out which.
    virtual void port_changed(const Port& port) = 0;
    virtual void port_left_bridge(uint32_t ifx) = 0;
    // All initial ports have been reported. Called once.
    virtual void ports_complete() = 0;
};

// Loop thread only. Requests return an empty text on success, else the reason for an operator.
class SwitchDriver {
 public:
    virtual ~SwitchDriver() = default;
    // Starts the reports to `sink`, which must outlive the last one. They arrive through the loop,
    // never inside this call.
    virtual void start(PortSink& sink) = 0;
    virtual std::string set_admin(uint32_t ifx, bool up) = 0;
    virtual std::string set_mode(uint32_t ifx, uint32_t mode) = 0;
    // The counters of a port, or of all ports when `ifx` is 0, as they are now, by interface index.
    // Ports whose counters cannot be read are missing.
    virtual std::map<uint32_t, PortCounters> counters(uint32_t ifx) = 0;
};

}  // namespace qv
