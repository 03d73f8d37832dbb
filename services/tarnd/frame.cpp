#include "services/tarnd/frame.h"

#include <algorithm>

#include <sodium.h>

#include "platform/base/tarn_limits.h"

namespace qv::tarnd {
namespace {

constexpr uint8_t kVersion = 2;
constexpr size_t kHashBytes = 16;
constexpr size_t kHashed = kFrameBytes - kHashBytes;

// Offsets in the frame; numbers are big-endian.
constexpr size_t kSourceAt = 6;
constexpr size_t kTypeAt = 12;
constexpr size_t kVersionAt = 14;
constexpr size_t kFlagsAt = 15;
constexpr size_t kVidAt = 16;
constexpr size_t kBridgeAt = 18;
constexpr size_t kIfxAt = 26;
constexpr size_t kSequenceAt = 30;
constexpr size_t kTimeAt = 38;
constexpr size_t kPriorityAt = 46;
constexpr size_t kReservedAt = 47;
static_assert(kReservedAt + 1 == kHashed);

using Hash = std::array<uint8_t, kHashBytes>;

void put(Frame& frame, size_t at, size_t bytes, uint64_t value) {
    for (size_t n = 0; n < bytes; ++n) {
        frame[at + n] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - n)));
    }
}

uint64_t get(std::span<const uint8_t> frame, size_t at, size_t bytes) {
    uint64_t value = 0;
    for (size_t n = 0; n < bytes; ++n) {
        value = value << 8 | frame[at + n];
    }
    return value;
}

Hash hash_of(std::span<const uint8_t> frame, const Key& key) {
    Hash hash{};
    crypto_generichash(hash.data(), hash.size(), frame.data(), kHashed, key.data(), key.size());
    return hash;
}

}  // namespace

Frame encode(const Probe& probe, const Mac& source, const Key& key) {
    Frame frame{};
    std::copy(kDestination.begin(), kDestination.end(), frame.begin());
    std::copy(source.begin(), source.end(), frame.begin() + kSourceAt);
    put(frame, kTypeAt, 2, kProbeEtherType);
    put(frame, kVersionAt, 1, kVersion);
    put(frame, kFlagsAt, 1, probe.flags);
    put(frame, kVidAt, 2, probe.vid);
    put(frame, kBridgeAt, 8, probe.bridge);
    put(frame, kIfxAt, 4, probe.ifx);
    put(frame, kSequenceAt, 8, probe.sequence);
    put(frame, kTimeAt, 8, probe.time_ns);
    put(frame, kPriorityAt, 1, probe.priority);
    const Hash hash = hash_of(frame, key);
    std::copy(hash.begin(), hash.end(), frame.begin() + kHashed);
    return frame;
}

FrameFault decode(std::span<const uint8_t> frame, const Key& key, Probe& probe) {
    if (frame.size() != kFrameBytes) {
        return FrameFault::kLength;
    }
    if (get(frame, kTypeAt, 2) != kProbeEtherType || frame[kVersionAt] != kVersion) {
        return FrameFault::kVersion;
    }
    const Hash hash = hash_of(frame, key);
    if (sodium_memcmp(hash.data(), frame.data() + kHashed, kHashBytes) != 0) {
        return FrameFault::kHash;
    }
    probe.bridge = get(frame, kBridgeAt, 8);
    probe.ifx = static_cast<uint32_t>(get(frame, kIfxAt, 4));
    probe.vid = static_cast<uint16_t>(get(frame, kVidAt, 2));
    probe.flags = frame[kFlagsAt];
    probe.priority = frame[kPriorityAt];
    probe.sequence = get(frame, kSequenceAt, 8);
    probe.time_ns = get(frame, kTimeAt, 8);
    return FrameFault::kNone;
}

}  // namespace qv::tarnd
