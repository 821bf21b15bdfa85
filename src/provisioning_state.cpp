#include "provisioning_state.h"

#include <atomic>
#include <cstddef>
#include <iterator>
#include <mutex>

#include "log.h"

#define LOG_SOURCE "src/provisioning_state"

namespace {

constexpr char kStateNames[][sizeof "WAITING_FOR_NETWORK_CONFIG_RX"]{
    "PS_NONE",
    "WAITING_FOR_NETWORK_CONFIG_RX",
    "WAITING_FOR_WACTIVATE",
    "WAITING_FOR_DHCP_COMPLETE",
    "WAITING_FOR_IP_DONE",
    "TRAINING_MODE",
};
static_assert(std::size(kStateNames) == TRAINING_MODE + 1);

std::atomic<provisioning_state> state{PS_NONE};
std::mutex done_lock;
unsigned char done_flag = 0;

}  // namespace

provisioning_state provisioning_get_state() {
    return state.load(std::memory_order_relaxed);
}

void provisioning_enter_state(provisioning_state next) {
    const provisioning_state old = state.exchange(next);
    if (old != next)
        LOGD("provisioning state %s -> %s", provisioning_state_name(old),
             provisioning_state_name(next));
}

const char *provisioning_state_name(provisioning_state value) {
    return kStateNames[static_cast<size_t>(value)];
}

int is_robot_provisioning() {
    const provisioning_state now = provisioning_get_state();
    return now != PS_NONE && now != TRAINING_MODE ? 1 : 0;
}

int is_robot_training() {
    return provisioning_get_state() == TRAINING_MODE ? 1 : 0;
}

int is_wifi_state_update_after_prov_done() {
    const std::lock_guard guard(done_lock);
    return done_flag;
}

void set_wifi_state_update_after_prov_done(int value) {
    const std::lock_guard guard(done_lock);
    done_flag = static_cast<unsigned char>(value);
}
