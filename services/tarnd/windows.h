// The probes that each port has seen, so that none counts twice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/base/clock.h"

namespace qv::tarnd {

// One window of the 64 latest sequence numbers for each receiving port and each sending port of
// each bridge. The memory is fixed: of two windows in one place the older one is forgotten.
class Windows {
 public:
    static constexpr size_t kPlaces = 1 << 13;
    // A window that was not used for this long is forgotten: its sender may have started again.
    static constexpr std::chrono::seconds kLife{15};

    struct Flow {
        uint32_t ifx;     // receiving port
        uint32_t sender;  // sending port
        uint64_t bridge;  // its bridge

        bool operator==(const Flow&) const = default;
    };

    Windows() : places_(kPlaces) {}

    // Whether the number is new in this flow; then it is remembered.
    bool is_new(const Flow& flow, uint64_t sequence, Time now);

 private:
    struct Window {
        Flow flow{};
        uint64_t highest = 0;
        uint64_t seen = 0;  // bit n: number `highest` - n
        Time used{};
    };

    std::vector<Window> places_;
};

}  // namespace qv::tarnd
