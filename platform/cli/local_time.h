// Points in time as operators read them. Any thread.
#pragma once

#include <chrono>
#include <string>

namespace qv::cli {

// Local time, "2026-01-31 23:59:59".
std::string local_time(std::chrono::system_clock::time_point time);

}  // namespace qv::cli
