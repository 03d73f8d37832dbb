// Remembers the probes that each port has received, so that none counts twice.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/base/clock.h"
#include "services/tarnd/zeroes.h"

namespace qv::tarnd {

// One window of the 64 latest sequence numbers for each receiving port and each sending port of
// each bridge in each VLAN. The memory is fixed: of two windows in one place the older one is
// forgotten.
class Windows {
 public:
    static constexpr size_t kPlaces = 1 << 13;
    // A window that was not used for this long is forgotten: its sender may have started again.
    static constexpr std::chrono::seconds kLife{15};

    struct Flow {
        uint32_t ifx;      // receiving port
        uint32_t sender;   // sending port
        uint64_t bridge;   // its bridge
        uint16_t vid = 0;  // in which the probe was sent

        bool operator==(const Flow&) const = default;
    };

    Windows() : places_(kPlaces) {}

    // kLate: older than the 64 latest; it may have been received before.
    enum class Verdict { kNew, kSeen, kLate };

    // Judges a sequence number of this flow and remembers a new one.
    Verdict judge(const Flow& flow, uint64_t sequence, Time now);

 private:
    struct Window {
        Flow flow{};
        uint64_t highest = 0;
        uint64_t seen = 0;  // bit n: number `highest` - n
        Time used{};
    };

    Zeroes<Window> places_;
};

}  // namespace qv::tarnd
