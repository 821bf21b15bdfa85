#include "mdns_device_discover.h"

#include <atomic>

#include "device_pinger.h"
#include "log.h"

#define LOG_SOURCE "src/mdns_device_discover"

namespace {

constexpr int kDiscoveryRounds = 3;

// Rounds of browsing that are left.
std::atomic<int> countdown{0};

}  // namespace

void start_device_discovery() {
    pinger_mode mode;
    get_pinger_mode(&mode);
    if (mode.pinger != 0 || mode.discover != 0) {
        LOGE("pinger_is still active");  // the missing blank is what log readers match on
        return;
    }
    countdown = kDiscoveryRounds;
    set_pinger_mode(PINGER_MODE_PINGER, 1);
    set_pinger_mode(PINGER_MODE_DISCOVER, 1);
}

void stop_device_discovery() {
    countdown = 0;
    set_pinger_mode(PINGER_MODE_CLEAR, 1);
}

void pause_device_discovery() {
    stop_device_discovery();
}

int is_device_discovery_active() {
    pinger_mode mode;
    return get_pinger_mode(&mode)->pinger;
}
