// Reads the file of a configuration for an operator, and checks it without applying it. Loop thread
// only.
#pragma once

#include <optional>
#include <string>

#include "platform/cli/engine.h"

namespace qv::cli {

struct Caller;

// The text of a file that `caller` may read; null is the process itself. Nothing on failure, with
// the reason, which ends without a full stop.
std::optional<std::string> read_as(const Caller* caller, const std::string& path,
                                   std::string& reason);

// The most bad lines that check_file() reports.
inline constexpr size_t kMaxReportedFaults = 100;

// Checks the file as "configure replace" does, to its end, and changes nothing. The result has code
// 0 and no output for a file that would be taken; else code 1 and a line for each fault,
// "FILE:LINE: REASON", or "FILE: REASON" where the whole file is meant.
Result check_file(const Caller* caller, const std::string& path);

}  // namespace qv::cli
