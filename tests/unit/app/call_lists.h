// Expected lists of calls, assembled from pieces.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/fake_qv/fake_qv.h"

inline fake::Lines join(fake::Lines first, const fake::Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The lines up to and including the first `last`.
inline fake::Lines up_to(const fake::Lines& lines, const std::string& last) {
    fake::Lines result;
    for (const std::string& line : lines) {
        result.push_back(line);
        if (line == last)
            return result;
    }
    ADD_FAILURE() << "no line " << last;
    return result;
}
