// The supplicant's table of access points, whose last column anybody in range can shape.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "device_network_hop.h"
#include "home_device_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    channel_info entries[3];
    const int count = parse_scan_results(text.c_str(), entries, 3);
    if (count < 0 || count > 3)
        abort();
    for (int i = 0; i < count; i++)
        if (!entries[i].bssid || *entries[i].bssid == '\0' ||
            strpbrk(entries[i].bssid.get(), "\t\n") != nullptr)
            abort();
    clear_device_list();
    return 0;
}
