// For the C functions of the client API and for callbacks of C libraries: no exception leaves them.
#pragma once

#include <exception>

namespace qv {

// The result of `call`, or `failure` when it ends in an exception: memory has run out.
template <typename Result, typename Call>
Result guarded(Result failure, Call call) {
    try {
        return call();
    } catch (const std::exception&) {
        return failure;
    }
}

// The same where nobody can be told: what `call` was about is lost.
template <typename Call>
void guarded(Call call) {
    try {
        call();
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace qv
