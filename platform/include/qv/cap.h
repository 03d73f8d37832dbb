// Capability store: what this model of switch can do, as numbers under slash-separated keys. The
// keys of a switch are in the file named by the platform description. Main thread only.
#pragma once

#include <cstdint>

extern "C" {

// Opens the store for `client`, announcing the key it will read. The first call reads the file. 0,
// or an error number (EINVAL: a bad name, or a bad file, which is logged).
int libqv_cap_init(const char* client, const char* key);

// Reads a number into `*value`; an absent key gives `fallback`. 0, or an error number
// that leaves `*value` alone (ENOENT: unknown client; EINVAL, ERANGE: no 32-bit number).
int libqv_cap_get_capacity_int32(const char* client, const char* key, int32_t* value,
                                 int32_t fallback);

}  // extern "C"
