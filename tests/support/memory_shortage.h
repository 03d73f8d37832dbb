// Takes the memory away from the product's own code: for executables that are linked with
// --wrap=_Znwm, which is operator new(size_t).
#pragma once

namespace qv::test {

extern thread_local bool g_memory_is_short;

// The result of `call` when no operator new of it succeeds.
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
