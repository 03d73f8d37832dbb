// The forwarding plane as the ACL service uses it: rules that pick frames, count them and meter
// them.
#pragma once

#include <cstdint>
#include <optional>

namespace qv {

// The frames that a rule matches, and their treatment.
struct ForwardingRule {
    struct Meter {
        uint64_t rate_pps;   // frames per second that pass
        uint32_t burst = 0;  // frames that may pass at once
    };

    bool unknown_destination = false;   // frames whose destination address is not known
    std::optional<uint16_t> ethertype;  // frames of this type
    std::optional<Meter> meter;
    bool counted = false;
};

// One object of the plane: an ACL, an entry or a rule. Never used again after its removal.
using ForwardingId = uint64_t;

// The receiver of a driver's reports. Loop thread only; may be called from inside a request.
class ForwardingSink {
 public:
    virtual ~ForwardingSink() = default;
    virtual void done(ForwardingId id) = 0;
    // The request failed or, later, the plane lost an installed rule. The object is gone.
    virtual void failed(ForwardingId id, int error) = 0;
    // Frames that a counting rule has seen since its last report.
    virtual void counted(ForwardingId id, uint64_t packets, uint64_t bytes) = 0;
};

// Loop thread only. Each request but remove() is answered once, at once or later.
class ForwardingDriver {
 public:
    enum class Table { kAcl, kEntry };

    virtual ~ForwardingDriver() = default;
    // Call once, before any request. The sink must outlive the driver's last report.
    virtual void start(ForwardingSink& sink) = 0;
    // Asks for room in a table of the plane.
    virtual void reserve(ForwardingId id, Table table) = 0;
    // Installs a rule on a port, named by its forwarding-plane id, or on the whole switch. Each of
    // these places has one rule at a time.
    virtual void install(ForwardingId id, std::optional<uint32_t> phyid,
                         const ForwardingRule& rule) = 0;
    // Removes an object, whether or not its request was answered; no report about it follows. An
    // unknown id is not an error.
    virtual void remove(ForwardingId id) = 0;
    // Removes the rules that an earlier process left in the plane.
    virtual void remove_leftovers() = 0;
};

}  // namespace qv
