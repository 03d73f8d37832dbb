// A whole agent for fuzzers: as in the product, on the embedded switch with its store in memory and
// a clock that only a fuzzer moves, but without its delivery thread. The lines that this thread
// would execute are dropped, so nothing runs beside the input.
//
// The state lives on from one input to the next. An input that fails only after others is found
// again by running the fuzzer with its seed.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/driver/embedded/memory_store.h"

namespace qv::fuzz {

// The agent, started by the first call. It listens at "fuzz.sock" in the working directory.
void start_agent();

// Lets a second pass and everything that is due in it run; forgets what was to be executed.
void let_agent_run();

MemoryStore& store();

// Ends the process with `what` on standard error unless `holds`: a finding.
void require(bool holds, const char* what);

inline std::string_view text_of(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace qv::fuzz
