#include "tests/unit/cli/wall_clock.h"

#include <cstdlib>
#include <ctime>

std::chrono::system_clock::time_point real_wall_clock() asm(
    "__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point test_wall_clock() asm(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point test_wall_clock() {
    return qv::test::g_wall_time ? *qv::test::g_wall_time : real_wall_clock();
}

namespace qv::test {

std::optional<std::chrono::system_clock::time_point> g_wall_time;

void stop_wall_clock() {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    g_wall_time = std::chrono::system_clock::from_time_t(1769900400);
}

}  // namespace qv::test
