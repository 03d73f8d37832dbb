#include "services/tarnd/windows.h"

namespace qv::tarnd {
namespace {

constexpr uint64_t kWidth = 64;

size_t place_of(const Windows::Flow& flow) {
    constexpr uint64_t kSpread = 0x9e3779b97f4a7c15;
    const uint64_t ports = uint64_t{flow.ifx} << 32 | flow.sender;
    const uint64_t mixed = ((flow.bridge ^ ports * kSpread) + ports) * kSpread;
    return mixed >> 51;
}
static_assert(Windows::kPlaces == 1 << (64 - 51));

}  // namespace

bool Windows::is_new(const Flow& flow, uint64_t sequence, Time now) {
    Window& window = places_[place_of(flow)];
    const bool known = window.flow == flow && now - window.used <= kLife;
    if (!known || sequence >= window.highest + kWidth) {
        window = {.flow = flow, .highest = sequence, .seen = 1, .used = now};
        return true;
    }
    if (sequence > window.highest) {
        window.seen = window.seen << (sequence - window.highest) | 1;
        window.highest = sequence;
        window.used = now;
        return true;
    }
    const uint64_t behind = window.highest - sequence;
    const uint64_t bit = behind < kWidth ? uint64_t{1} << behind : 0;
    const bool is_new = (window.seen & bit) == 0 && bit != 0;
    window.seen |= bit;
    if (is_new) {
        window.used = now;
    }
    return is_new;
}

}  // namespace qv::tarnd
