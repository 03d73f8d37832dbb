// Room for one datagram of the kernel.
#pragma once

#include <cstddef>

namespace qv {

// The kernel fills dumps into at most 32 KiB, and into less when the reader has no room for them.
inline constexpr size_t kNetlinkDatagramBytes = 64 << 10;

}  // namespace qv
