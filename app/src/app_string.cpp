#include "app_string.h"

#include <safeclib/safe_str_lib.h>

#include <cstring>

void app_text_copy(char* dest, size_t size, const char* source) {
    strncpy_s(dest, size, source, size - 1);
}

void app_text_append(char* dest, size_t size, const char* source) {
    const size_t used = strlen(dest);
    app_text_copy(dest + used, size - used, source);
}
