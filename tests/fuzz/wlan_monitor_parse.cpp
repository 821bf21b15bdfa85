// The text of a supplicant's event, as any access point in range can shape it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "monitor_main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string datagram(reinterpret_cast<const char *>(data), size);
    const char *const start = datagram.c_str();
    const wlan_monitor_message message = wlan_monitor_parse(start);
    if (message.text < start || message.text > start + size)
        abort();
    const std::string text = message.text;
    const auto has = [&](const char *marker) { return text.find(marker) != std::string::npos; };
    if (message.is_forwarded == (has("CTRL-EVENT-BSS-ADDED ") || has("CTRL-EVENT-BSS-REMOVED ")))
        abort();
    if (message.is_terminating && strstr(start, "CTRL-EVENT-TERMINATING ") == nullptr)
        abort();
    return 0;
}
