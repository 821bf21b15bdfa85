// The settings lock is a leaf: it covers copies only, never a system call or another lock, and may
// be taken under any other.
#include "wifi_settings.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

#include "kvs_json.h"
#include "kvs_keys.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "supplicant_status.h"

#define LOG_SOURCE "src/wifi_state"  // one source to log readers, with the state's lines

namespace {

constexpr uint8_t kDhcp = 1;
constexpr int16_t kAddrTypeUnknown = -1;
constexpr size_t kPskDigits = 64;  // a 256-bit key in hexadecimal

std::atomic<int16_t> addr_type{kAddrTypeUnknown};

std::mutex settings_lock;
pending_settings pending{};

// Written before any thread is started. A replaced name is not released: its text may be in use
// for as long as the process lives.
struct interface_name {
    const char *now;
    char *given;  // by the command line
};
interface_name sta_interface{"wlan0", nullptr};
interface_name uap_interface{"wlan1", nullptr};

constexpr auto kRelaxed = std::memory_order_relaxed;

uint8_t saved_addr_type() {
    json_t *value = nullptr;
    if (kvs_get_json_from_key(kvs_key::kAddrType, JSON_INTEGER, &value) != 0)
        return kDhcp;
    const Json owner(value);
    return static_cast<uint8_t>(json_integer_value(value));
}

void log_addr_type(uint8_t type) {
    LOGI("Setting addr type to %d", type);
}

// --- pending settings ----------------------------------------------------------------------------

// Replaces a pending text, cut to its field. The text's full length, negative when it could not be
// formatted and the old one stays.
template <size_t Size>
int set_pending(char (pending_settings::*field)[Size], const char *text) {
    std::array<char, Size> copy{};
    const int length = snprintf(copy.data(), copy.size(), "%s", text);
    if (length < 0)
        return length;
    const std::lock_guard lock(settings_lock);
    std::copy(copy.begin(), copy.end(), pending.*field);
    return length;
}

bool is_empty(const char *text) {
    return text == nullptr || *text == '\0';
}

bool is_psk(const char *pass) {
    return strlen(pass) == kPskDigits && ishexstring(pass);
}

bool is_wpa(const char *key_management) {
    const std::string_view name(key_management != nullptr ? key_management : "");
    return name == "WPA-PSK" || name == "WPA2-PSK";
}

// The passphrase may have been replaced while the key was derived; then the new one stays.
void replace_pass(const char *old, const char *psk) {
    const std::lock_guard lock(settings_lock);
    if (strcmp(pending.pass, old) == 0)
        snprintf(pending.pass, sizeof(pending.pass), "%s", psk);
}

// Turns the passphrase of a WPA network into its PSK, so that the store never holds the plain one.
// Without a key it stays as it is.
void derive_psk(pending_settings &settings) {
    const MallocText key_management(get_key_mgmt_protocol());
    if (!is_wpa(key_management.get()) || is_psk(settings.pass))
        return;
    const MallocText ssid(hex_decode_str_malloc(settings.ssid));
    char psk[kPskDigits + 1];
    if (!ssid || wpa_passphrase(ssid.get(), settings.pass, psk, sizeof(psk)) != 0)
        return;
    replace_pass(settings.pass, psk);
    snprintf(settings.pass, sizeof(settings.pass), "%s", psk);
}

void save_pass(pending_settings &settings) {
    if (settings.pass[0] == '\0') {
        if (pex_kvs_del_key(kvs_key::kPassword) != 0)
            LOGE("could not remove %s ", kvs_key::kPassword);
        return;
    }
    derive_psk(settings);
    if (pex_kvs_set_key_str(kvs_key::kPassword, settings.pass) != 0)
        LOGE("could not save passphrase to %s", kvs_key::kPassword);
}

void save_addr_type() {
    char type[8];
    snprintf(type, sizeof(type), "%d", wifi_get_addr_type());
    if (pex_kvs_set_key_str(kvs_key::kAddrType, type) != 0)
        LOGE("could not save %s %s", kvs_key::kAddrType, type);
}

// --- interface names -----------------------------------------------------------------------------

// As it is given: whoever starts the daemon runs the robot's commands anyway.
void set_interface_name(interface_name &interface, const char *name) {
    char *const copy = strdup(name);
    if (copy == nullptr) {
        LOGE("out of memory, interface %s stays", interface.now);
        return;
    }
    interface.now = copy;
    free(std::exchange(interface.given, copy));
}

}  // namespace

void wifi_set_addr_type(uint8_t type) {
    addr_type.store(type, kRelaxed);
    log_addr_type(type);
}

uint8_t wifi_get_addr_type() {
    int16_t type = addr_type.load(kRelaxed);
    if (type != kAddrTypeUnknown)
        return static_cast<uint8_t>(type);
    // A type that the app sent while the store was read wins over the saved one.
    const uint8_t saved = saved_addr_type();
    if (!addr_type.compare_exchange_strong(type, saved, kRelaxed))
        return static_cast<uint8_t>(type);
    log_addr_type(saved);
    return saved;
}

void wifictl_set_ssid(const char *text) {
    if (is_empty(text))
        return;
    if (set_pending(&pending_settings::ssid, text) >= static_cast<int>(kSsidSize))
        LOGW("SSID %s is too long -- truncated", pex_one_line(text).c_str());
}

// Unlike the SSID an empty passphrase replaces the old one: an open network has none.
void wifictl_set_pass(const char *text) {
    const int length = set_pending(&pending_settings::pass, is_empty(text) ? "" : text);
    if (length < 0 || length >= static_cast<int>(kPassSize))
        LOGE("formatting or truncation error");
}

void wifictl_set_ip_config(const char *text) {
    if (is_empty(text)) {
        LOGE("invalid param");
        return;
    }
    LOGI("setting ip config_str to %s", text);
    const int length = set_pending(&pending_settings::ip_config, text);
    if (length < 0)
        LOGE("snprintf failed");
    else if (length >= static_cast<int>(kIpConfigSize))
        LOGE("ip config string truncated");
}

const char *wifictl_get_temp_ssid() {
    return pending.ssid;
}
const char *wifictl_get_temp_pass() {
    return pending.pass;
}
const char *wifictl_get_temp_ip_config() {
    return pending.ip_config;
}

pending_settings wifictl_copy_pending() {
    const std::lock_guard lock(settings_lock);
    return pending;
}

void wifictl_save_nw_info_to_kvs() {
    pending_settings settings = wifictl_copy_pending();
    if (pex_kvs_set_key_str(kvs_key::kSsid, settings.ssid) != 0)
        LOGE("could not save %s %s", kvs_key::kSsid, settings.ssid);
    save_pass(settings);
    if (pex_kvs_set_key_str(kvs_key::kIpConfig, settings.ip_config) != 0)
        LOGE("failed to save ip config to %s", kvs_key::kIpConfig);
    save_addr_type();
}

int set_active_ifname(const char *name) {
    char stored[256];
    size_t length = sizeof(stored);
    if (pex_kvs_get_key_str(kvs_key::kInterface, stored, &length) == 0 &&
        strncmp(stored, name, sizeof(stored)) == 0)
        return 0;
    return pex_kvs_set_key_str(kvs_key::kInterface, name);
}

void wifi_set_station_interface_name(const char *name) {
    set_interface_name(sta_interface, name);
}
void wifi_set_uap_interface_name(const char *name) {
    set_interface_name(uap_interface, name);
}
const char *wifi_get_sta_interface() {
    return sta_interface.now;
}
const char *wifi_get_uap_interface() {
    return uap_interface.now;
}
