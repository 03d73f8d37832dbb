// A whole agent for fuzzers: as in the product, on the embedded switch with its store in memory and
// a clock that only a fuzzer moves, but without its delivery thread. The lines for this thread are
// dropped, so nothing runs in parallel.
//
// The state stays from one input to the next. To repeat a failure that needs earlier inputs, run
// the fuzzer with its seed.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/driver/embedded/memory_store.h"

namespace qv::fuzz {

// The agent, started by the first call. It listens at "fuzz.sock" in the working directory.
void start_agent();

// Advances the clock by a second and runs everything due; drops the lines for execution.
void let_agent_run();

MemoryStore& store();

// Reports a finding unless `holds`: ends the process with `what` on standard error.
void require(bool holds, const char* what);

inline std::string_view text_of(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace qv::fuzz
