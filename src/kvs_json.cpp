#include "kvs_json.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "log.h"
#include "owned.h"
#include "pex_kvs_helper.h"

#define LOG_SOURCE "src/kvs_json"

namespace {

// The whole text must be the number: no blank before it, nothing behind it.
json_t *to_integer(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long long number = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' ||
        isspace(static_cast<unsigned char>(*text)) != 0) {
        LOGE("Failed to convert string to integer");
        return nullptr;
    }
    return json_integer(number);
}

}  // namespace

int kvs_get_json_from_key(const char *key, int type, json_t **out) {
    const MallocText text(pex_kvs_get_key_str_malloc(key));
    if (!text) {
        LOGE("Failed to retrieve key \"%s\"", key);
        return -1;
    }
    json_t *value = nullptr;
    if (type == JSON_STRING)
        value = json_string(text.get());
    else if (type == JSON_INTEGER)
        value = to_integer(text.get());
    else
        LOGE("json_type %d not supported", type);
    if (value == nullptr)
        return -1;
    *out = value;
    return 0;
}
