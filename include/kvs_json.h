// Settings as JSON values.
#pragma once

#include <jansson.h>

// Reads a key as JSON_STRING (2) or JSON_INTEGER (3). 0 with a new value in `*out`, which the
// caller releases; -1 leaves `*out` as it was, so preset it to null. Any thread.
int kvs_get_json_from_key(const char *key, int type, json_t **out);
