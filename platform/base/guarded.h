// For the C functions of the client API and for callbacks of C libraries, which no exception may
// leave.
#pragma once

#include <exception>

namespace qv {

// The result of `call`, or `failure` when it throws, as it does when memory runs out.
template <typename Result, typename Call>
Result guarded(Result failure, Call call) {
    try {
        return call();
    } catch (const std::exception&) {
        return failure;
    }
}

// The same for a caller that takes no result: the exception is swallowed.
template <typename Call>
void guarded(Call call) {
    try {
        call();
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace qv
