#include "wifi_status.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "device_tracking.h"
#include "gateway_ping.h"
#include "log.h"
#include "mqtt_client.h"
#include "network_utils.h"
#include "owned.h"
#include "pex_misc.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "supplicant_status.h"
#include "tarn/robot_processes.h"
#include "wifi_command.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

// Main thread only.
bool lease_renewed = false;  // a renewal was asked for since the network went down

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

void handle_status_line(const char *line, security_seen &seen) {
    auto [name, value] = supplicant_status_property(line);
    if (name.empty()) {
        LOGE("bad property name %s, delim = (%s)", line, "=");
        return;
    }
    if (value.empty()) {
        LOGE("bad property value %s", name.c_str());
        return;
    }
    for (const auto &key : kStatusKeys)
        if (key.name == name)
            key.handle(value.data(), seen);
}

// --- status pass ---------------------------------------------------------------------------------

// Tells the robot that the station is up (1) or down (0), once for each change. It never does: both
// marks are forgotten in every pass, before they could be seen, and the other processes have come
// to expect the silence. `due` tells the rest of the condition.
struct {
    bool is_up_told = false;
    bool is_up_due = false;
} station_marks;

void tell_station(bool is_up, bool due) {
    if (!due || !(is_up ? station_marks.is_up_due : station_marks.is_up_told))
        return;
    std::array<char, 256> response{};
    if (network_send_tarn_req(PROCESS_STATION_STATUS, is_up ? R"({"sta": 1})" : R"({"sta": 0})",
                              response.data(), response.size()) == 0)
        station_marks = {is_up, !is_up};
    else
        LOGE(is_up ? "Error publishing sta:1 TARN request."
                   : "Error publishing sta:0 TARN request.");
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
    tell_station(true, wifi_state_get_wifi() == WIFI_CONNECTED && is_robot_provisioning() == 0);
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
    tell_station(false, !discovering);
    if (wifi_state_get_wifi() == WIFI_CONNECTED)
        report_network_down();
}

// --- timers --------------------------------------------------------------------------------------

void dhcp_timer_tick() {
    if (wifi_timer_left(wifi_timer::dhcp) == 0)
        return;
    if (wifi_netinfo_is_valid() != 0) {
        wifi_timer_clear(wifi_timer::dhcp);
        provisioning_state_machine(PROVISIONING_DHCP_COMPLETE);
    } else if (wifi_timer_count_down(wifi_timer::dhcp)) {
        LOGE("%s: DHCP timeout", "wifi_dhcp_timer_tick");
        provisioning_handle_error(WIFI_DHCP_TIMEOUT);
    }
}

void association_timer_tick() {
    if (wifi_link_is_connected()) {
        wifi_timer_clear(wifi_timer::association);
    } else if (wifi_timer_count_down(wifi_timer::association)) {
        provisioning_handle_error(wifi_link_is_refused() ? WIFI_ASSOC_REJECTED
                                                         : WIFI_ASSOC_TIMEOUT);
        wifi_timer_clear(wifi_timer::dhcp);
    }
}

}  // namespace

void wifi_network_status_update() {
    station_marks = {};
    const bool discovering = is_device_discovery_active() != 0;
    if (wifi_link_is_started() && wifi_link_is_connected())
        pass_with_link();
    else
        pass_without_link(discovering);
}

void wifi_timer_tick(long /*seconds*/) {
    dhcp_timer_tick();
    association_timer_tick();
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
    const std::string command = pex_format("sudo wpa_cli -i%s status\n", wifi_get_sta_interface());
    const WifiCommandLock lock;
    Pipe pipe(command.c_str());
    if (!pipe) {
        LOGE("Failed to run command %s", command.c_str());
        return;
    }
    security_seen seen;
    for (std::array<char, 256> line{}; pex_read_line(pipe.get(), line);)
        handle_status_line(line.data(), seen);
    if (seen.none && !seen.wep)
        wifictl_set_sec_type("NONE");
    if (pipe.close() == -1)
        LOGE("error closing pipe");
}
