// Capturing the robot's Wi-Fi diagnostic log, and printing JSON into the log. Any thread.
#pragma once

#include <jansson.h>

// Writes the diagnostic log, SSIDs and MAC addresses masked, compressed and base64-encoded, to
// "/tmp/syslog-<tag>.gz.base64" (the time for a null tag). The path, freed by the caller, or null.
char *create_wifi_log_file_malloc(const char *tag);

// Prints an object's members at INFO, the first between title lines (null: without a title).
// Objects inside are printed member by member; real numbers and null are not printed.
void print_json_kv_pairs(json_t *object, const char *title);
void print_json_object(json_t *object);
void print_json_kv(const char *key, json_t *value);
