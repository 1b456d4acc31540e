// Host stand-in for the device's <cutils/properties.h>.
//
// Each property is the file <device root>/dev/__properties__/<name>.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `key` into `value` (at most PROPERTY_VALUE_MAX - 1
// bytes and a NUL), or `default_value` when the property is unset. Returns
// the length of what was copied.
int property_get(const char* key, char* value, const char* default_value);

// "0"/"n"/"no"/"false"/"off" are false, "1"/"y"/"yes"/"true"/"on" are
// true; anything else, and unset, gives `default_value`.
bool property_get_bool(const char* key, bool default_value);

// 0 on success, -1 when the name or value is refused (nothing changes).
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
