#include "device_tracking.h"

#include <atomic>
#include <mutex>

#include "log.h"

#define LOG_SOURCE "src/mdns_device_discover"  // where log readers look for a start: it browses

using device_tracking::Session;

namespace {

constexpr int kDiscoveryRounds = 3;

std::mutex mode_lock;
pinger_mode mode{0, 0};
uint32_t session_number = 0;

// Rounds of discovery that are left.
std::atomic<int> countdown{0};

}  // namespace

void set_pinger_mode(int kind, int value) {
    const auto flag = static_cast<unsigned char>(value);
    const std::lock_guard guard(mode_lock);
    if (kind == PINGER_MODE_CLEAR) {
        mode = {0, 0};
        session_number++;
    } else if (kind == PINGER_MODE_DISCOVER) {
        mode.discover = flag;
    } else if (kind == PINGER_MODE_PINGER) {
        mode.pinger = flag;
    }
}

pinger_mode *get_pinger_mode(pinger_mode *out) {
    const std::lock_guard guard(mode_lock);
    *out = mode;
    return out;
}

void start_device_discovery() {
    pinger_mode now;
    get_pinger_mode(&now);
    if (now.pinger != 0 || now.discover != 0) {
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
    pinger_mode now;
    return get_pinger_mode(&now)->pinger;
}

Session device_tracking::current_session() {
    const std::lock_guard guard(mode_lock);
    return {mode, session_number};
}

bool device_tracking::is_sweep_wanted(uint32_t session) {
    const Session now = current_session();
    return now.number == session && now.mode.discover != 0;
}

void device_tracking::end_sweep(uint32_t session) {
    const std::lock_guard guard(mode_lock);
    if (session_number == session)
        mode.discover = 0;
}

bool device_tracking::take_round() {
    int left = countdown;
    while (left > 0)
        if (countdown.compare_exchange_weak(left, left - 1))
            return true;
    return false;
}
