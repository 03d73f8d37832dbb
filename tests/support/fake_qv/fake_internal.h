// Shared by the files of the fake platform.
#pragma once

#include <string>
#include <string_view>

namespace fake {

// Records `line`, runs the hooks of `name` and returns the scripted result of this call, or
// `normal`. An empty line is not recorded; the call is only counted.
long enter(const std::string& name, const std::string& line, long normal = 0);
// The same for calls that create something: true when the call is to fail.
bool enter_refused(const std::string& name, const std::string& line);

std::string quoted(std::string_view text);
std::string quoted_or_null(const char* text);
// "<function:12> text" as "<function:#> text".
std::string mask_line_number(const std::string& text);
std::string vformat(const char* format, __builtin_va_list arguments);
// Descriptors that cli_sub_create_session returned, and their end.
bool is_session(int descriptor);
int close_session(int descriptor);
// " name=value" when the value is not 0, else nothing.
std::string unusual(const char* name, long value);

}  // namespace fake
