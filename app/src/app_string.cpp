#include "app_string.h"

#include <safeclib/safe_str_lib.h>

#include <cstring>

// strncpy_s is a macro that refuses a source when the compiler knows it to be smaller than the
// count, as it does for a literal once link-time optimization has inlined this function. Reading
// the pointer as volatile hides the size from the compiler.
void app_text_copy(char* dest, size_t size, const char* source) {
    const char* const volatile opaque = source;
    strncpy_s(dest, size, opaque, size - 1);
}

void app_text_append(char* dest, size_t size, const char* source) {
    const size_t used = strlen(dest);
    app_text_copy(dest + used, size - used, source);
}
