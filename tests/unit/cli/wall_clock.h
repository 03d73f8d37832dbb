// The wall clock of the tests of the command line.
#pragma once

#include <chrono>
#include <optional>

namespace qv::test {

// While it has a value, std::chrono::system_clock::now() returns it.
extern std::optional<std::chrono::system_clock::time_point> g_wall_time;

// Local time is UTC from now on, and the wall clock stands at 2026-01-31 23:00:00.
void stop_wall_clock();

}  // namespace qv::test
