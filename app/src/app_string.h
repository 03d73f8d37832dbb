// Bounded copying of text into fixed fields. Any thread.
//
// The one place that uses the bounded string library. Behind functions rather than its macros,
// because the macros refuse a source whose size the compiler knows to be smaller than the bound.
#pragma once

#include <cstddef>

// Copies `source` into the `size` bytes at `dest`, cut to fit, always terminated.
void app_text_copy(char* dest, size_t size, const char* source);

// Appends `source` to the text in the `size` bytes at `dest`, cut to fit, always terminated.
void app_text_append(char* dest, size_t size, const char* source);
