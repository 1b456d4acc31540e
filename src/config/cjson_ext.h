// Two operations the daemon needs on top of libcjson.
#pragma once

#include <cjson/cJSON.h>

#ifdef __cplusplus
extern "C" {
#endif

// Reads the whole file at the device path `path` and parses it. Returns the
// root item, or NULL when the file cannot be opened or read, or its text is
// not valid JSON. `flags` is reserved and must be 0.
cJSON* cJSON_Parse_File(const char* path, int flags);

// The boolean value of a JSON true/false item: 1 for true. Any other item,
// including NULL, a number or the string "true", gives 0.
int cJSON_get_bool_val(const cJSON* item);

#ifdef __cplusplus
}
#endif
