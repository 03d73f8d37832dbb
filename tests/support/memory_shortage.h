// Makes the product's own allocations fail: for executables that are linked with
// --wrap=_Znwm, which is operator new(size_t).
#pragma once

namespace qv::test {

extern thread_local bool g_memory_is_short;

// The result of `call` when every operator new in it fails.
template <typename Call>
auto without_memory(Call call) {
    struct Shortage {
        Shortage() { g_memory_is_short = true; }
        ~Shortage() { g_memory_is_short = false; }
    };
    const Shortage shortage;
    return call();
}

}  // namespace qv::test
