// The claims of other switches in their probes: who is there, and who would cut a loop.
//
// A loop that runs through several switches is found by each of them. The one with the best claim
// cuts it at once: the lowest priority, among equals the lowest bridge number. The others wait, and
// cut only what still loops then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

#include "platform/base/clock.h"
#include "services/tarnd/frame.h"

namespace qv::tarnd {

// Probing thread only.
class Claims {
 public:
    // A switch that was not heard for this long is gone. Longer than the longest probe interval.
    static constexpr std::chrono::seconds kLife{15};
    // For how long a switch that cuts a loop is given the time to do so.
    static constexpr std::chrono::milliseconds kCutTime{200};
    static constexpr size_t kMaxClaims = 8192;  // switches, counted on each port

    struct Rank {
        uint8_t priority;
        uint64_t bridge;

        bool operator<(const Rank& other) const {
            return std::tie(priority, bridge) < std::tie(other.priority, other.bridge);
        }
    };

    // A probe of another switch that is beyond this port: no other port received it before, or it
    // announces a cut. True when the switch is new there.
    bool heard(uint32_t ifx, const Probe& probe, Time now);
    void forget(uint32_t ifx);

    // Whether another switch is beyond the port.
    bool shared(uint32_t ifx, Time now) const;
    // How many other switches cut a loop of these two ports of ours before we do. A loop behind a
    // single port is nearer to whoever is beyond that port.
    size_t count_ahead(uint32_t ifx, uint32_t src_ifx, const Rank& own, Time now) const;

 private:
    struct Claim {
        uint8_t priority = 0;
        bool claims = false;
        Time heard{};
        Time cutting{-2 * kLife};  // latest announcement of a cut
    };
    using Origin = std::pair<uint32_t, uint64_t>;  // our port, bridge

    void make_room(Time now);

    std::map<Origin, Claim> claims_;
};

}  // namespace qv::tarnd
