// Locks: the state lock covers one whole change of the Wi-Fi state, with the store's write and the
// question to provisioning (which takes its own lock under it). The record lock is a leaf: it
// covers copies only, never a system call or another lock, and may be taken under any other.
#include "wifi_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "kvs_json.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "provisioning_state.h"
#include "wifi_control.h"

#define LOG_SOURCE "src/wifi_state"

const security_type security_types[] = {
    {"NONE", 0}, {"WEP", 2}, {"WPA-PSK", 3}, {"WPA2-PSK", 4}, {nullptr, 0},
};

namespace {

constexpr char kSsidKey[] = "network.ssid";
constexpr char kPassKey[] = "network.password";
constexpr char kIpConfigKey[] = "network.ip_config";
constexpr char kAddrTypeKey[] = "network.addr_type";
constexpr char kInterfaceKey[] = "network.interface";
constexpr char kProvStatusKey[] = "network.last_prov_status";

constexpr uint8_t kDhcp = 1;
constexpr int16_t kAddrTypeUnknown = -1;
constexpr size_t kPskDigits = 64;  // a 256-bit key in hexadecimal

constexpr netinfo kNoNetinfo{0, 0xFFFFFFFF, 0, 0, 0, {}, kSecurityUnknown};

std::mutex state_lock;
std::atomic<int32_t> wifi{WIFI_OFF};
std::atomic<uint8_t> uap{0};
std::atomic<uint8_t> spare_flag{0};
std::atomic<int16_t> spare_short{0};
std::atomic<uint32_t> spare_word1{0};
std::atomic<uint32_t> spare_word2{0};

std::atomic<int16_t> addr_type{kAddrTypeUnknown};
std::atomic<int16_t> sta_channel{0};

std::mutex record_lock;
netinfo info{};
pending_settings pending{};

// Written before any thread is started. A replaced name is not released: its text may be in use
// for as long as the process lives.
const char *sta_interface = "wlan0";
const char *uap_interface = "wlan1";

constexpr auto kRelaxed = std::memory_order_relaxed;

template <typename Change>
void change_netinfo(Change change) {
    const std::lock_guard lock(record_lock);
    change(info);
}

// --- Wi-Fi state ---------------------------------------------------------------------------------

void save_prov_status(int32_t state) {
    const MallocText text(pex_get_string_from_int(state));
    if (!text) {
        LOGE("pex_get_string_from_int failed");
        return;
    }
    pex_kvs_set_key_str(kProvStatusKey, text.get());
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

// --- addresses -----------------------------------------------------------------------------------

struct name_servers {
    uint32_t first;
    uint32_t second;
};

// On the soft AP the robot has none, even if the system knows some.
name_servers name_servers_of(const char *active) {
    if (strncmp(sta_interface, active, strlen(active)) != 0)
        return {0, 0};
    std::array<uint32_t, 2> servers{};
    if (pex_net_get_nameservers(servers.data(), servers.size()) != 0) {
        LOGE("pex_net_get_nameservers failed");
        return {0, 0};
    }
    return {servers[0], servers[1]};
}

// The system is asked before the record is locked: a route dump takes its time.
netinfo refresh_addresses(const char *active, uint32_t addr) {
    uint32_t mask = 0;
    pex_net_get_subnet_mask(active, &mask);
    const uint32_t gw = pex_net_get_gatewayip(nullptr, 0);
    const name_servers dns = name_servers_of(active);
    netinfo copy;
    change_netinfo([&](netinfo &record) {
        record.addr = addr;
        record.mask = mask;
        record.gw = gw;
        record.dns1 = dns.first;
        record.dns2 = dns.second;
        copy = record;
    });
    return copy;
}

uint8_t saved_addr_type() {
    json_t *value = nullptr;
    if (kvs_get_json_from_key(kAddrTypeKey, JSON_INTEGER, &value) != 0)
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
    const std::lock_guard lock(record_lock);
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
    const std::lock_guard lock(record_lock);
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
        if (pex_kvs_del_key(kPassKey) != 0)
            LOGE("could not remove %s ", kPassKey);
        return;
    }
    derive_psk(settings);
    if (pex_kvs_set_key_str(kPassKey, settings.pass) != 0)
        LOGE("could not save passphrase to %s", kPassKey);
}

void save_addr_type() {
    char type[8];
    snprintf(type, sizeof(type), "%d", wifi_get_addr_type());
    if (pex_kvs_set_key_str(kAddrTypeKey, type) != 0)
        LOGE("could not save %s %s", kAddrTypeKey, type);
}

// --- interface names -----------------------------------------------------------------------------

// As it is given: whoever starts the daemon runs the robot's commands anyway.
void set_interface_name(const char *&current, const char *name) {
    if (const char *copy = strdup(name))
        current = copy;
    else
        LOGE("out of memory, interface %s stays", current);
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
    {
        const std::lock_guard lock(state_lock);
        wifi.store(state, kRelaxed);
        follow_state(state);
    }
    LOGI("wifi = %d", state);
}

int32_t wifi_state_get_wifi() {
    return wifi.load(kRelaxed);
}

int wifi_state_get_last_prov_status() {
    json_t *value = nullptr;
    {
        const std::lock_guard lock(state_lock);
        if (kvs_get_json_from_key(kProvStatusKey, JSON_INTEGER, &value) != 0)
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
    if (set_active_ifname(flag == 1 ? uap_interface : sta_interface) != 0)
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

void wifi_init_netinfo() {
    change_netinfo([](netinfo &record) { record = kNoNetinfo; });
}

int wifi_get_netinfo(netinfo *out) {
    change_netinfo([&](const netinfo &record) { *out = record; });
    return sizeof(*out);
}

int wifi_read_netinfo(netinfo *out) {
    if (out == nullptr) {
        LOGE("bad input");
        return -1;
    }
    *out = {};
    const MallocText active(pex_kvs_get_key_str_malloc(kInterfaceKey));
    if (!active) {
        LOGE("%s: failed to get interface", "wifi_read_netinfo");
        return -1;
    }
    uint32_t addr = 0;
    pex_net_get_ip(active.get(), &addr);
    if (addr == 0)
        change_netinfo([](netinfo &record) { record.addr = 0; });
    else
        *out = refresh_addresses(active.get(), addr);
    return sizeof(*out);
}

void wifi_netinfo_set_bssid(char *text) {
    if (text == nullptr)
        return;
    std::array<uint8_t, sizeof(netinfo::bssid)> octets{};
    size_t count = 0;
    char *rest = nullptr;
    for (char *piece = strtok_r(text, ":", &rest); piece != nullptr && count < octets.size();
         piece = strtok_r(nullptr, ":", &rest))
        octets[count++] = static_cast<uint8_t>(strtoul(piece, nullptr, 16));
    change_netinfo([&](netinfo &record) { std::copy_n(octets.begin(), count, record.bssid); });
}

void wifictl_set_sec_type(const char *name) {
    // The table's name need only begin the text: the supplicant adds "/IEEE 802.1X" and the like.
    for (const security_type *row = security_types; row->name != nullptr; row++) {
        if (strncmp(name, row->name, strlen(row->name)) != 0)
            continue;
        LOGI("sec type (%s)", name);
        change_netinfo([&](netinfo &record) { record.sec = row->value; });
        return;
    }
    LOGE("could not save security type %s", name);
}

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
    const std::lock_guard lock(record_lock);
    return pending;
}

void wifictl_save_nw_info_to_kvs() {
    pending_settings settings = wifictl_copy_pending();
    if (pex_kvs_set_key_str(kSsidKey, settings.ssid) != 0)
        LOGE("could not save %s %s", kSsidKey, settings.ssid);
    save_pass(settings);
    if (pex_kvs_set_key_str(kIpConfigKey, settings.ip_config) != 0)
        LOGE("failed to save ip config to %s", kIpConfigKey);
    save_addr_type();
}

int set_active_ifname(const char *name) {
    char stored[256];
    size_t length = sizeof(stored);
    if (pex_kvs_get_key_str(kInterfaceKey, stored, &length) == 0 &&
        strncmp(stored, name, sizeof(stored)) == 0)
        return 0;
    return pex_kvs_set_key_str(kInterfaceKey, name);
}

void wifi_set_station_interface_name(const char *name) {
    set_interface_name(sta_interface, name);
}
void wifi_set_uap_interface_name(const char *name) {
    set_interface_name(uap_interface, name);
}
const char *wifi_get_sta_interface() {
    return sta_interface;
}
const char *wifi_get_uap_interface() {
    return uap_interface;
}

int16_t wifi_get_sta_channel() {
    return sta_channel.load(kRelaxed);
}
void wifi_set_sta_channel(int16_t channel) {
    sta_channel.store(channel, kRelaxed);
}
