#include "services/tarnd/claims.h"

#include <algorithm>
#include <set>

namespace qv::tarnd {

bool Claims::heard(uint32_t ifx, const Probe& probe, Time now) {
    const Origin origin{ifx, probe.bridge};
    const auto known = claims_.find(origin);
    const bool fresh = known == claims_.end() || now - known->second.heard > kLife;
    if (known == claims_.end() && claims_.size() >= kMaxClaims) {
        make_room(now);
    }
    Claim& claim = fresh ? (claims_[origin] = {}) : known->second;
    claim.priority = probe.priority;
    claim.claims = (probe.flags & kClaims) != 0;
    claim.heard = now;
    if ((probe.flags & kCutting) != 0) {
        claim.cutting = now;
    }
    return fresh;
}

// Everything that has expired, or the oldest one.
void Claims::make_room(Time now) {
    if (std::erase_if(claims_,
                      [now](const auto& entry) { return now - entry.second.heard > kLife; }) == 0) {
        claims_.erase(std::min_element(claims_.begin(), claims_.end(), [](auto& one, auto& other) {
            return one.second.heard < other.second.heard;
        }));
    }
}

void Claims::forget(uint32_t ifx) {
    claims_.erase(claims_.lower_bound({ifx, 0}), claims_.upper_bound({ifx, UINT64_MAX}));
}

bool Claims::shared(uint32_t ifx, Time now) const {
    const auto end = claims_.upper_bound({ifx, UINT64_MAX});
    return std::any_of(claims_.lower_bound({ifx, 0}), end,
                       [now](const auto& entry) { return now - entry.second.heard <= kLife; });
}

size_t Claims::count_ahead(uint32_t ifx, uint32_t src_ifx, const Rank& own, Time now) const {
    std::set<uint64_t> bridges;
    for (const uint32_t port : {ifx, src_ifx}) {
        const auto end = claims_.upper_bound({port, UINT64_MAX});
        for (auto entry = claims_.lower_bound({port, 0}); entry != end; ++entry) {
            const auto& [origin, claim] = *entry;
            const bool here = now - claim.heard <= kLife;
            const bool better = claim.claims && Rank{claim.priority, origin.second} < own;
            if ((here && (better || ifx == src_ifx)) || now - claim.cutting <= kCutTime) {
                bridges.insert(origin.second);
            }
        }
    }
    return bridges.size();
}

}  // namespace qv::tarnd
