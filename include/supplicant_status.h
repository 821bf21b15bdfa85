// What the supplicant tells of the station's connection.
#pragma once

#include <string>
#include <string_view>

// A line "name=value" of its status; empty where there is none, the line's end with the value.
struct supplicant_property {
    std::string name;
    std::string value;
};
supplicant_property supplicant_status_property(std::string_view line);

// The text behind the first `key` in a whole status, also within a line; null when there is none.
const char *supplicant_status_after(const char *status, const char *key);

// The key management of the current connection, freed by the caller, or null. Any thread.
char *get_key_mgmt_protocol();
