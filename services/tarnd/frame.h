// The probe frame: what a port of this bridge sends to find its own way back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qv::tarnd {

using Mac = std::array<uint8_t, 6>;
using Key = std::array<uint8_t, 32>;

inline constexpr Mac kDestination{0x03, 0x88, 0xb5, 0x00, 0x00, 0x01};
inline constexpr size_t kFrameBytes = 64;  // without a VLAN tag

using Frame = std::array<uint8_t, kFrameBytes>;

// Flags of a probe. Unknown ones are ignored.
inline constexpr uint8_t kClaims = 1;   // the sending port is cut when a loop is proved on it
inline constexpr uint8_t kCutting = 2;  // the sender has proved a loop and cuts it now

struct Probe {
    uint64_t bridge = 0;    // identifies the sending bridge
    uint32_t ifx = 0;       // interface index of the sending port
    uint16_t vid = 0;       // VLAN that the probe was sent in; 0: untagged
    uint8_t flags = 0;      // kClaims, kCutting
    uint8_t priority = 0;   // of the sending switch; the lowest number cuts
    uint64_t sequence = 0;  // of the sending port
    uint64_t time_ns = 0;   // monotonic clock of the sending machine

    bool operator==(const Probe&) const = default;
};

// Why a frame is no probe of a holder of the key.
enum class FrameFault { kNone, kLength, kVersion, kHash };

// The frame of `probe`, from `source` to kDestination, with the keyed hash over all of it. Any
// thread, after sodium_init().
Frame encode(const Probe& probe, const Mac& source, const Key& key);

// Reads a frame that begins with its Ethernet header. `probe` is written only on kNone. The frame
// must have exactly kFrameBytes. Any thread, after sodium_init().
FrameFault decode(std::span<const uint8_t> frame, const Key& key, Probe& probe);

}  // namespace qv::tarnd
