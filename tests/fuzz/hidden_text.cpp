// Texts of the home network and of the phone app: hexadecimal values, and lines that are masked
// before they reach the log.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "owned.h"
#include "pex_misc.h"

namespace {

void require(bool holds) {
    if (!holds)
        abort();
}

// On the heap and no longer than it must be: a byte too far is seen.
MallocText copy(const uint8_t *data, size_t size) {
    return MallocText(strndup(reinterpret_cast<const char *>(data), size));
}

void decode(const char *text) {
    const MallocText decoded(hex_decode_str_malloc(text));
    const size_t length = strlen(text);
    if (length < 256)
        require((decoded != nullptr) == (ishexstring(text) == 1));
    if (!decoded)
        return;
    const MallocText encoded(hex_encode_str_malloc(decoded.get(), strlen(decoded.get())));
    require(strncasecmp(encoded.get(), text, strlen(encoded.get())) == 0);
}

// Masking exchanges characters for as many asterisks and leaves the lines as they are.
void check_masked(const char *before, const char *after) {
    require(strlen(before) == strlen(after));
    for (; *before != '\0'; before++, after++)
        require(*after == *before || (*after == '*' && *before != '\n'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const MallocText original = copy(data, size), ssid = copy(data, size), mac = copy(data, size);
    decode(original.get());
    pex_hide_ssid(ssid.get());
    check_masked(original.get(), ssid.get());
    pex_hide_mac_addr(mac.get(), size > 0 ? data[0] % 8 - 1 : 0);
    check_masked(original.get(), mac.get());
    return 0;
}
