// Bounded copying of text into fixed fields. Any thread.
//
// The only users of the bounded string library. They are functions because the library's macros
// refuse a source whose size the compiler knows to be smaller than the bound.
#pragma once

#include <cstddef>

// Copies `source` into the `size` bytes at `dest`, cut to fit, always terminated.
void app_text_copy(char* dest, size_t size, const char* source);

// Appends `source` to the text in the `size` bytes at `dest`, cut to fit, always terminated.
void app_text_append(char* dest, size_t size, const char* source);
