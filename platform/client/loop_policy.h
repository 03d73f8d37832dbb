// Which ports the agent's loop-detect policies shut. Any thread.
#pragma once

#include <cstdint>

#include "qv/bridge.h"

namespace qv {

// Policies as the records and "show lda detect-result" number them.
inline constexpr uint32_t kPolicyDisabled = 0;
inline constexpr uint32_t kPolicyWarning = 1;
inline constexpr uint32_t kPolicyAccess = 2;
inline constexpr uint32_t kPolicyHybrid = 3;
inline constexpr uint32_t kPolicyBoth = 4;

// Whether the policy shuts a looped port of this VLAN mode.
constexpr bool policy_shuts(uint32_t policy, uint32_t vlan_mode) {
    return (vlan_mode == SWPORT_MODE_ACCESS &&
            (policy == kPolicyAccess || policy == kPolicyBoth)) ||
           (vlan_mode == SWPORT_MODE_HYBRID && (policy == kPolicyHybrid || policy == kPolicyBoth));
}

}  // namespace qv
