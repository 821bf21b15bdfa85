// The status of the connection: the supplicant's events, the once-a-second passes and the timers
// decide together which Wi-Fi state the robot reports.
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "device_tracking.h"
#include "gateway_ping.h"
#include "kvs_json.h"
#include "log.h"
#include "mqtt_client.h"
#include "network_utils.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "wifi_control.h"
#include "wifi_shared.h"
#include "wifi_state.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/wifi_control"

using namespace wifi_shared;

namespace {

constexpr int kStaRequestDestination = 10;

// Main thread only.
bool lease_renewed = false;  // a renewal was asked for since the network went down
bool sta_1_sent = false;
bool needs_sta_1 = false;

// --- link status ---------------------------------------------------------------------------------

struct channel_row {
    int16_t channel;
    int frequency_mhz;
};
// IEEE 802.11, 2.4 GHz band.
constexpr std::array<channel_row, 14> channel_map{{
    {1, 2412},
    {2, 2417},
    {3, 2422},
    {4, 2427},
    {5, 2432},
    {6, 2437},
    {7, 2442},
    {8, 2447},
    {9, 2452},
    {10, 2457},
    {11, 2462},
    {12, 2467},
    {13, 2472},
    {14, 2484},
}};

// 0 for a frequency of no known channel.
int16_t channel_of(int frequency_mhz) {
    if (frequency_mhz >= 5180 && frequency_mhz <= 5825)
        return static_cast<int16_t>((frequency_mhz - 5180) / 5 + 36);
    for (const auto &row : channel_map)
        if (row.frequency_mhz == frequency_mhz)
            return row.channel;
    return 0;
}

// What the lines of one status output add up to.
struct security_seen {
    bool none = false;
    bool wep = false;
};

void on_bssid(char *value, security_seen &) {
    wifi_netinfo_set_bssid(value);
}

void on_freq(char *value, security_seen &) {
    int frequency_mhz = 0;
    std::from_chars(value, value + strlen(value), frequency_mhz);
    wifi_set_sta_channel(channel_of(frequency_mhz));
}

void on_key_mgmt(char *value, security_seen &seen) {
    if (strstr(value, "NONE") != nullptr)
        seen.none = true;  // open or WEP: the cipher tells
    else
        wifictl_set_sec_type(value);
}

void on_pairwise_cipher(char *value, security_seen &seen) {
    if (strstr(value, "WEP") == nullptr)
        return;
    wifictl_set_sec_type("WEP");
    seen.wep = true;
}

struct status_key {
    std::string_view name;
    void (*handle)(char *value, security_seen &seen);
};
constexpr status_key kStatusKeys[] = {
    {"bssid", on_bssid},
    {"freq", on_freq},
    {"key_mgmt", on_key_mgmt},
    {"pairwise_cipher", on_pairwise_cipher},
};

void handle_status_line(char *line, security_seen &seen) {
    char *rest = nullptr;
    const char *const name = strtok_r(line, "=", &rest);
    if (name == nullptr) {
        LOGE("bad property name %s, delim = (%s)", line, "=");
        return;
    }
    char *const value = strtok_r(nullptr, "=", &rest);
    if (value == nullptr) {
        LOGE("bad property value %s", name);
        return;
    }
    for (const auto &key : kStatusKeys)
        if (key.name == name)
            key.handle(value, seen);
}

// --- status pass ---------------------------------------------------------------------------------

// True when the process answered.
bool send_sta_request(const char *text) {
    std::array<char, 256> response{};
    return network_send_tarn_req(kStaRequestDestination, text, response.data(), response.size()) ==
           0;
}

void become_connected() {
    wifi_state_set_wifi(WIFI_CONNECTED);
    wifi_refresh_link_status();
    wifi_send_wifistat(0);
    lease_renewed = false;
}

void check_address() {
    const int32_t state = wifi_state_get_wifi();
    if (state == WIFI_CONNECTED)
        return;
    if (state == WIFI_NETWORK_DOWN && !lease_renewed)
        lease_renewed = wifi_renew_dhcp_lease() == 0;
    if (wifi_netinfo_is_valid() != 0) {
        become_connected();
    } else if (state != WIFI_CONNECTING) {
        wifi_state_set_wifi(WIFI_CONNECTING);
        LOGI("wifi is in connecting state");
    }
}

void pass_with_link() {
    check_address();
    if (wifi_state_get_wifi() != WIFI_CONNECTED || is_robot_provisioning() != 0 || !needs_sta_1)
        return;
    if (send_sta_request("{\"sta\": 1}")) {
        needs_sta_1 = false;
        sta_1_sent = true;
    } else {
        LOGE("Error publishing sta:1 TARN request.");
    }
}

void report_network_down() {
    if (is_robot_provisioning() != 0) {
        wifi_state_set_wifi(WIFI_OFF);
    } else {
        wifi_init_netinfo();
        wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    }
    LOGI("Network is down");
}

void pass_without_link(bool discovering) {
    if (sta_1_sent && !discovering) {
        if (send_sta_request("{\"sta\": 0}")) {
            sta_1_sent = false;
            needs_sta_1 = true;
        } else {
            LOGE("Error publishing sta:0 TARN request.");
        }
    }
    if (wifi_state_get_wifi() == WIFI_CONNECTED)
        report_network_down();
}

// --- timers --------------------------------------------------------------------------------------

void dhcp_timer_tick() {
    if (timers.left(Timers::dhcp) == 0)
        return;
    if (wifi_netinfo_is_valid() != 0) {
        timers.clear(Timers::dhcp);
        provisioning_state_machine(PROVISIONING_DHCP_COMPLETE);
    } else if (timers.count_down(Timers::dhcp)) {
        LOGE("%s: DHCP timeout", "wifi_dhcp_timer_tick");
        provisioning_handle_error(WIFI_DHCP_TIMEOUT);
    }
}

void association_timer_tick() {
    if (connected) {
        timers.clear(Timers::association);
    } else if (timers.count_down(Timers::association)) {
        provisioning_handle_error(assoc_rejected ? WIFI_ASSOC_REJECTED : WIFI_ASSOC_TIMEOUT);
        timers.clear(Timers::dhcp);
    }
}

// --- the supplicant's events ---------------------------------------------------------------------

void on_connected(const char *) {
    connected = true;
    assoc_rejected = false;
}
void on_disconnected(const char *) {
    connected = false;
}
void on_subnet_status(const char *) {
    wifi_refresh_link_status();
}
void on_terminating(const char *) {
    LOGE("wpa_supplicant is terminating - stop monitoring");
}
void on_assoc_reject(const char *) {
    LOGE("connection to AP rejected");
    assoc_rejected = true;
}

// The first report of a wrong key may be a lost frame and gets another try, the second ends it.
void on_temp_disabled(const char *text) {
    const char *const reason = strstr(text, "reason");
    if (reason == nullptr || strstr(reason, "WRONG_KEY") == nullptr ||
        wifi_state_get_wifi() == WIFI_AUTH_ERROR)
        return;
    if (!wrong_key_seen.exchange(true)) {
        provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
        return;
    }
    timers.clear();
    provisioning_handle_error(WIFI_AUTH_ERROR);
}

// Looked for in this order; the first that an event contains acts.
struct event_marker {
    const char *text;
    void (*act)(const char *event);
};
constexpr event_marker kEventMarkers[] = {
    {"CTRL-EVENT-CONNECTED ", on_connected},
    {"CTRL-EVENT-DISCONNECTED ", on_disconnected},
    {"CTRL-EVENT-SUBNET-STATUS-UPDATE ", on_subnet_status},
    {"AP-STA-CONNECTED ", nullptr},  // stations of the soft AP are only logged
    {"AP-STA-DISCONNECTED ", nullptr},
    {"CTRL-EVENT-TERMINATING ", on_terminating},
    {"CTRL-EVENT-ASSOC-REJECT ", on_assoc_reject},
    {"CTRL-EVENT-SSID-TEMP-DISABLED ", on_temp_disabled},
};

// Where the name that is quoted at `open` ends, npos when it does not. The supplicant escapes " and
// \ in a name and leaves a ' as it is: one within a word, as in "Ann's", is no end.
size_t end_of_name(const std::string &text, size_t open) {
    const auto in_word = [&](size_t i) {
        return text[i] == '\'' && isalnum(static_cast<unsigned char>(text[i + 1])) != 0;
    };
    for (size_t i = open + 1; i < text.size(); i++) {
        if (text[i] == '\\')
            i++;
        else if (text[i] == text[open] && !in_word(i))
            return i;
    }
    return text.npos;
}

// Blanks each quoted SSID; pex_hide_ssid does the first one only, up to a quote of either kind.
void hide_ssids(std::string &text) {
    pex_hide_ssid(text.data());
    for (const std::string_view key : {"ssid=", "SSID="})
        for (size_t at = text.find(key); at != text.npos; at = text.find(key, at + key.size())) {
            const size_t open = at + key.size();
            if (open == text.size() || (text[open] != '"' && text[open] != '\''))
                continue;
            const size_t end = end_of_name(text, open);
            if (end != text.npos)
                text.replace(open + 1, end - open - 1, end - open - 1, '*');
        }
}

// An event may name two access points; each pass masks one of them.
void log_event(const char *text) {
    std::string copy(text);
    hide_ssids(copy);
    while (pex_hide_mac_addr(copy.data(), 6) != 0) {
    }
    LOGI("wlan monitor event - %s", copy.c_str());
}

// --- start from the saved settings ---------------------------------------------------------------

void apply_saved_ip_config(const char *ip_config) {
    if (ip_config == nullptr) {
        LOGE("failed to get ip config");
        return;
    }
    wifictl_set_ip_config(ip_config);
    if (failed(wifi_set_provision_ip_config()))
        LOGE("failed to set ip configuration");
}

bool load_addr_type() {
    json_t *raw = nullptr;
    const int result = kvs_get_json_from_key("network.addr_type", JSON_INTEGER, &raw);
    const Json value(raw);
    if (result != 0 || !value) {
        LOGE("kvs_get_json_from_key failed");
        return false;
    }
    wifi_set_addr_type(static_cast<uint8_t>(json_integer_value(value.get())));
    return true;
}

}  // namespace

void wifi_network_status_update() {
    // Forgotten in every pass, so that the {"sta"} requests below are never sent: meant, for the
    // other processes expect silence here.
    sta_1_sent = false;
    needs_sta_1 = false;
    const bool discovering = is_device_discovery_active() != 0;
    if (station_started && connected)
        pass_with_link();
    else
        pass_without_link(discovering);
}

void wifi_timer_tick(long /*seconds*/) {
    dhcp_timer_tick();
    association_timer_tick();
}

void wlan_monitor_event(const char *text) {
    if (text == nullptr)
        return;
    for (const auto &marker : kEventMarkers) {
        if (strstr(text, marker.text) == nullptr)
            continue;
        if (marker.act != nullptr)
            marker.act(text);
        break;
    }
    log_event(text);
}

int wifi_netinfo_is_valid() {
    netinfo info{};
    wifi_get_netinfo(&info);
    if (info.addr == 0 || info.gw == 0) {
        wifi_read_netinfo(&info);
        if (info.addr == 0)
            return 0;
        if (info.gw == 0) {
            LOGI("have IP but have not read GW addr");
            return 0;
        }
    }
    return gateway_pinger_arping_once(nullptr);
}

void wifi_refresh_link_status() {
    const std::string command = format_text("sudo wpa_cli -i%s status\n", wifi_get_sta_interface());
    const CommandLock lock;
    Pipe pipe(command.c_str());
    if (!pipe) {
        LOGE("Failed to run command %s", command.c_str());
        return;
    }
    security_seen seen;
    for (Line line; read_line(pipe.get(), line);)
        handle_status_line(line.data(), seen);
    if (seen.none && !seen.wep)
        wifictl_set_sec_type("NONE");
    if (pipe.close() == -1)
        LOGE("error closing pipe");
}

void wifi_start_sta_from_kvs_configuration() {
    const StationOperation operation;
    if (station_started)
        return;
    const MallocText ssid(pex_kvs_get_key_str_malloc("network.ssid"));
    const MallocText pass(pex_kvs_get_key_str_malloc("network.password"));
    const MallocText ip_config(pex_kvs_get_key_str_malloc("network.ip_config"));
    if (!ssid) {
        LOGE("failed to get ssid");
        return;
    }
    apply_saved_ip_config(ip_config.get());
    if (!load_addr_type())
        return;
    wifictl_set_ssid(ssid.get());
    wifictl_set_pass(pass.get());
    int32_t error_code = -1;
    if (failed(wifi_network_connect(&error_code, 0))) {
        wifi_state_set_wifi(WIFI_STATION_STOPPED);
        LOGE("failed to configure sta to %s; check kvs for pass", pex_one_line(ssid.get()).c_str());
    }
}

int wifi_get_signal_levels(int is_connected, int8_t *signal, int8_t *snr, int8_t *noise) {
    return pex_net_get_signal_levels(wifi_get_sta_interface(), is_connected, signal, snr, noise);
}
