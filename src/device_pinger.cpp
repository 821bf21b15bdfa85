#include "device_pinger.h"

#include <mutex>

namespace {

std::mutex mode_lock;
pinger_mode mode{0, 0};

}  // namespace

void set_pinger_mode(int kind, int value) {
    const auto flag = static_cast<unsigned char>(value);
    const std::lock_guard guard(mode_lock);
    if (kind == PINGER_MODE_CLEAR)
        mode = {0, 0};
    else if (kind == PINGER_MODE_DISCOVER)
        mode.discover = flag;
    else if (kind == PINGER_MODE_PINGER)
        mode.pinger = flag;
}

pinger_mode *get_pinger_mode(pinger_mode *out) {
    const std::lock_guard guard(mode_lock);
    *out = mode;
    return out;
}
