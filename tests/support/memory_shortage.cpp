#include "tests/support/memory_shortage.h"

#include <cstddef>
#include <new>

namespace qv::test {
thread_local bool g_memory_is_short = false;
}  // namespace qv::test

extern "C" {
void* __real__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
    if (qv::test::g_memory_is_short) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}
}
