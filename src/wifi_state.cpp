// The state lock covers one whole change of the Wi-Fi state, with the store's write and the
// question to provisioning (which takes its own lock under it).
#include "wifi_state.h"

#include <array>
#include <atomic>
#include <mutex>

#include "kvs_json.h"
#include "kvs_keys.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "provisioning_state.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"

#define LOG_SOURCE "src/wifi_state"

namespace {

std::mutex state_lock;
std::atomic<int32_t> wifi{WIFI_OFF};
std::atomic<uint8_t> uap{0};
std::atomic<uint8_t> spare_flag{0};
std::atomic<int16_t> spare_short{0};
std::atomic<uint32_t> spare_word1{0};
std::atomic<uint32_t> spare_word2{0};

std::atomic<bool> is_started{false};
std::atomic<bool> is_connected{false};
std::atomic<bool> is_refused{false};  // since the last connection
std::atomic<bool> is_wrong_key_seen{false};

// Both timers, eight bits of seconds each, in one word.
std::atomic<uint16_t> timers{0};

constexpr unsigned place_of(wifi_timer which) {
    return which == wifi_timer::dhcp ? 0 : 8;
}

constexpr auto kRelaxed = std::memory_order_relaxed;

constexpr std::array kStateNames{
    "UNKNOWN",      "OFF",          "CONNECTED",       "ASSOC_TIMEOUT",    "AUTH_ERROR",
    "DHCP_TIMEOUT", "NETWORK_DOWN", "ASSOC_REJECTED",  "REPORTED_BY_PEER", "CONNECTING",
    "BAD_CONFIG",   "IFACE_ERROR",  "STATION_STOPPED",
};
static_assert(kStateNames.size() == WIFI_STATION_STOPPED - WIFI_UNKNOWN + 1);

void save_prov_status(int32_t state) {
    const MallocText text(pex_get_string_from_int(state));
    if (!text) {
        LOGE("pex_get_string_from_int failed");
        return;
    }
    pex_kvs_set_key_str(kvs_key::kLastProvStatus, text.get());
}

// What a new state entails; the state lock is held.
void follow_state(int32_t state) {
    if (is_robot_provisioning()) {
        if (state != WIFI_OFF && state != WIFI_STATION_STOPPED)
            save_prov_status(state);
    } else if (state == WIFI_OFF) {
        wifi_init_netinfo();
    } else if (is_wifi_state_update_after_prov_done()) {
        if (state == WIFI_CONNECTED)
            save_prov_status(state);
        set_wifi_state_update_after_prov_done(0);
    }
}

}  // namespace

void wifi_init_wifistat() {
    wifi.store(WIFI_UNKNOWN, kRelaxed);
    uap.store(0, kRelaxed);
    spare_flag.store(0, kRelaxed);
    spare_short.store(0, kRelaxed);
    spare_word1.store(0, kRelaxed);
    spare_word2.store(0, kRelaxed);
}

int wifi_get_wifistat(wifistat *out) {
    *out = {wifi.load(kRelaxed),        spare_flag.load(kRelaxed),  uap.load(kRelaxed),
            spare_short.load(kRelaxed), spare_word1.load(kRelaxed), spare_word2.load(kRelaxed)};
    return sizeof(*out);
}

void wifi_state_set_wifi(int32_t state) {
    int32_t old;
    {
        const std::lock_guard lock(state_lock);
        old = wifi.exchange(state, kRelaxed);
        follow_state(state);
    }
    LOGI("wifi = %d", state);
    if (old != state)
        LOGD("wifi state %s -> %s", wifi_state_name(old), wifi_state_name(state));
}

const char *wifi_state_name(int32_t state) {
    return state >= WIFI_UNKNOWN && state <= WIFI_STATION_STOPPED
               ? kStateNames[static_cast<size_t>(state - WIFI_UNKNOWN)]
               : "?";
}

int32_t wifi_state_get_wifi() {
    return wifi.load(kRelaxed);
}

int wifi_state_get_last_prov_status() {
    json_t *value = nullptr;
    {
        const std::lock_guard lock(state_lock);
        if (kvs_get_json_from_key(kvs_key::kLastProvStatus, JSON_INTEGER, &value) != 0)
            value = nullptr;
    }
    const Json owner(value);
    if (!owner) {
        LOGE("kvs_get_json_from_key failed");
        return -1;
    }
    return static_cast<int>(json_integer_value(value));
}

void wifi_state_set_uap(int flag) {
    if (set_active_ifname(flag == 1 ? wifi_get_uap_interface() : wifi_get_sta_interface()) != 0)
        LOGE("%s: failed to set active intf in kvs", "wifi_state_set_uap");
    uap.store(static_cast<uint8_t>(flag), kRelaxed);
}

int wifi_state_get_uap() {
    return uap.load(kRelaxed);
}

void wifi_state_set_spare_flag(uint8_t value) {
    spare_flag.store(value, kRelaxed);
}
uint8_t wifi_state_get_spare_flag() {
    return spare_flag.load(kRelaxed);
}
void wifi_state_set_spare_short(int16_t value) {
    spare_short.store(value, kRelaxed);
}
int16_t wifi_state_get_spare_short() {
    return spare_short.load(kRelaxed);
}
void wifi_state_set_spare_word1(uint32_t value) {
    spare_word1.store(value, kRelaxed);
}
uint32_t wifi_state_get_spare_word1() {
    return spare_word1.load(kRelaxed);
}
void wifi_state_set_spare_word2(uint32_t value) {
    spare_word2.store(value, kRelaxed);
}
uint32_t wifi_state_get_spare_word2() {
    return spare_word2.load(kRelaxed);
}

void wifi_link_set_started() {
    is_started = true;
}
bool wifi_link_is_started() {
    return is_started;
}

void wifi_link_set_stopped() {
    wifi_state_set_wifi(WIFI_STATION_STOPPED);
    is_started = false;
    timers = 0;
    is_connected = false;
    is_refused = false;
}

void wifi_link_set_connected() {
    is_connected = true;
    is_refused = false;
}
void wifi_link_set_disconnected() {
    is_connected = false;
}
void wifi_link_set_refused() {
    is_refused = true;
}
bool wifi_link_is_connected() {
    return is_connected;
}
bool wifi_link_is_refused() {
    return is_refused;
}

bool wifi_link_may_retry_key() {
    return !is_wrong_key_seen.exchange(true);
}
void wifi_link_forget_wrong_key() {
    is_wrong_key_seen = false;
}

void wifi_timers_arm(uint8_t dhcp_s, uint8_t association_s) {
    timers = static_cast<uint16_t>(dhcp_s << place_of(wifi_timer::dhcp) |
                                   association_s << place_of(wifi_timer::association));
}
void wifi_timers_clear() {
    timers = 0;
}
void wifi_timer_clear(wifi_timer which) {
    timers &= static_cast<uint16_t>(~(0xFFU << place_of(which)));
}
int wifi_timer_left(wifi_timer which) {
    return timers >> place_of(which) & 0xFF;
}

bool wifi_timer_count_down(wifi_timer which) {
    const unsigned place = place_of(which);
    uint16_t old = timers;
    while ((old >> place & 0xFF) != 0) {
        const auto next = static_cast<uint16_t>(old - (1U << place));
        if (timers.compare_exchange_weak(old, next))
            return (next >> place & 0xFF) == 0;
    }
    return false;
}
