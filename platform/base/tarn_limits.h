// Values that the configuration of loop probes and the service that sends them have in common.
#pragma once

#include <cstdint>

namespace qv {

inline constexpr uint16_t kProbeEtherType = 0x88b5;  // IEEE 802, local experiments

inline constexpr uint32_t kShortestProbeInterval_ms = 100;
inline constexpr uint32_t kDefaultProbeInterval_ms = 1000;
inline constexpr uint32_t kLongestProbeInterval_ms = 10000;

// How long a port is closed at link-up while it is probed.
inline constexpr uint32_t kShortestGuard_ms = 15;
inline constexpr uint32_t kLongestGuard_ms = 1000;
// The same for a port that loop detection had shut.
inline constexpr uint32_t kLongestProbation_ms = 600'000;

// The switch with the lowest number cuts a loop.
inline constexpr uint32_t kDefaultTarnPriority = 128;
inline constexpr uint32_t kHighestTarnPriority = 255;

// VLANs that may be probed: from 1 to this one.
inline constexpr uint16_t kLastVlan = 4094;

}  // namespace qv
