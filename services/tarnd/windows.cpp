#include "services/tarnd/windows.h"

namespace qv::tarnd {
namespace {

constexpr uint64_t kWidth = 64;

size_t place_of(const Windows::Flow& flow) {
    constexpr uint64_t kSpread = 0x9e3779b97f4a7c15;
    const uint64_t ports = (uint64_t{flow.ifx} << 32 | flow.sender) ^ uint64_t { flow.vid } << 48;
    const uint64_t mixed = ((flow.bridge ^ ports * kSpread) + ports) * kSpread;
    return mixed >> 51;
}
static_assert(Windows::kPlaces == 1 << (64 - 51));

}  // namespace

Windows::Verdict Windows::judge(const Flow& flow, uint64_t sequence, Time now) {
    Window& window = places_[place_of(flow)];
    const bool known = window.flow == flow && now - window.used <= kLife;
    if (!known || sequence >= window.highest + kWidth) {
        window = {.flow = flow, .highest = sequence, .seen = 1, .used = now};
        return Verdict::kNew;
    }
    if (sequence > window.highest) {
        window.seen = window.seen << (sequence - window.highest) | 1;
        window.highest = sequence;
        window.used = now;
        return Verdict::kNew;
    }
    const uint64_t behind = window.highest - sequence;
    if (behind >= kWidth) {
        return Verdict::kLate;
    }
    const uint64_t bit = uint64_t{1} << behind;
    if ((window.seen & bit) != 0) {
        return Verdict::kSeen;
    }
    window.seen |= bit;
    window.used = now;
    return Verdict::kNew;
}

}  // namespace qv::tarnd
