// Texts of the home network and of the phone app: hexadecimal values, and lines that are masked
// before they reach the log.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

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

// What was masked stands between two quotes.
void check_quoted(std::string_view before, std::string_view after) {
    size_t first = 0;
    while (first < before.size() && before[first] == after[first])
        first++;
    if (first == before.size())
        return;
    size_t last = before.size() - 1;
    while (before[last] == after[last])
        last--;
    const auto is_quote = [](char c) { return c == '\'' || c == '"'; };
    // A name may itself begin or end with the mask's character.
    while (first > 0 && after[first - 1] == '*')
        first--;
    while (last + 1 < after.size() && after[last + 1] == '*')
        last++;
    require(first > 0 && is_quote(after[first - 1]));
    require(last + 1 < after.size() && is_quote(after[last + 1]));
}

// Masking exchanges characters of the first line's address or of one quoted name, nothing else.
void mask(const uint8_t *data, size_t size) {
    const MallocText original = copy(data, size);
    const std::string_view before = original.get();
    const MallocText ssid = copy(data, size);
    pex_hide_ssid(ssid.get());
    const int octets = size > 0 ? data[0] % 8 - 1 : 0;
    const MallocText mac = copy(data, size);
    const int found = pex_hide_mac_addr(mac.get(), octets);
    require(strlen(ssid.get()) == before.size() && strlen(mac.get()) == before.size());
    check_quoted(before, ssid.get());
    for (size_t i = 0; i < before.size(); i++) {
        require(ssid.get()[i] == before[i] || ssid.get()[i] == '*');
        require(mac.get()[i] == before[i] || (found == 1 && mac.get()[i] == '*'));
        require(before[i] != '\n' || (ssid.get()[i] == '\n' && mac.get()[i] == '\n'));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    decode(copy(data, size).get());
    mask(data, size);
    return 0;
}
