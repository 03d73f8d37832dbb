// Expected lines that would be a wall in the test. They are kept in files of tests/golden, each
// written by hand; docs/testing.md says how one is changed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The lines of tests/golden/NAME.txt without those that begin with '#', which are comments. When
// the file cannot be read, the test fails and there are no lines.
std::vector<std::string> golden_lines(std::string_view name);

// Expects exactly these lines, in this order, in tests/golden/NAME.txt, comments aside. Otherwise
// the test fails at the caller's line and shows the lines that differ. The actual lines are then
// also written to a file in the build folder; the golden file is never written.
void expect_golden(std::string_view name, const std::vector<std::string>& actual,
                   const char* file = __builtin_FILE(), int line = __builtin_LINE());
