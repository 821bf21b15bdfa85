// What avahi-browse prints, of which whoever is on the home's network writes the names and texts.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "device_tracking.h"
#include "home_device_list.h"
#include "mdns_device_discover.h"
#include "pthread_utils.h"

namespace {

std::string output;  // of the next browse
Semaphore round_wanted{0}, round_done{0};

void require(bool holds) {
    if (!holds)
        abort();
}

void check(const device_texts &device) {
    require(device.ip && !device.ip->empty() &&
            device.ip->find_first_of(":;\n") == std::string::npos);
    require(device.hostname && device.name && !device.mac);
    require(!device.type || *device.type == "tv" || *device.type == "light" ||
            *device.type == "smart-speaker");
}

}  // namespace

extern "C" {
// The thread sleeps between its rounds: here until the next one is wanted.
unsigned sleep(unsigned /*seconds*/) {
    round_done.release();
    round_wanted.acquire();
    return 0;
}
FILE *popen(const char * /*command*/, const char * /*mode*/) {
    return output.empty() ? fopen("/dev/null", "re") : fmemopen(output.data(), output.size(), "r");
}
int pclose(FILE *stream) {
    return fclose(stream);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool started = [] {
        std::thread(mdns_discovery_main, nullptr).detach();
        round_done.acquire();
        return true;
    }();
    output.assign(reinterpret_cast<const char *>(data), size);
    start_device_discovery();
    round_wanted.release();
    round_done.acquire();
    stop_device_discovery();
    for (const device_texts &device : copy_device_list())
        check(device);
    clear_device_list();
    return 0;
}
