// The station's connect: the interface restarted, the supplicant configured, its events followed.
#include "wifi_connect.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kvs_json.h"
#include "kvs_keys.h"
#include "log.h"
#include "monitor_main.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "supplicant_config.h"
#include "wifi_command.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"
#include "wifi_state.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

constexpr int kSelectedNetwork = 0;  // the first block; nothing ever selects another
constexpr uint8_t kDhcpLimitS = 50;
constexpr uint8_t kAssociationLimitS = 35;

bool restart_station(int32_t *error_code) {
    wifi_interface_down(wifi_get_sta_interface());
    sleep(1);
    if (!wifi_command_failed(wifi_interface_up(wifi_get_sta_interface())))
        return true;
    LOGE("failed to start station interface");
    *error_code = WIFI_IFACE_ERROR;
    return false;
}

// --- start from the saved settings ---------------------------------------------------------------

void apply_saved_ip_config(const char *ip_config) {
    if (ip_config == nullptr) {
        LOGE("failed to get ip config");
        return;
    }
    wifictl_set_ip_config(ip_config);
    if (wifi_command_failed(wifi_set_provision_ip_config()))
        LOGE("failed to set ip configuration");
}

bool load_addr_type() {
    json_t *raw = nullptr;
    const bool is_read = pex_outlast_shortage(
        [&] { return kvs_get_json_from_key(kvs_key::kAddrType, JSON_INTEGER, &raw) == 0; });
    const Json value(raw);
    if (!is_read || !value) {
        LOGE("kvs_get_json_from_key failed");
        return false;
    }
    wifi_set_addr_type(static_cast<uint8_t>(json_integer_value(value.get())));
    return true;
}

}  // namespace

int wifi_network_connect(int32_t *error_code, int /*flag*/) {
    if (error_code == nullptr) {
        LOGE("invalid input");
        return -1;
    }
    const StationOperation operation;
    // The supplicant is about to be ended: whoever still listens to it must not wait for its word.
    wlan_monitor_signal_deattach();
    wifi_set_wpa_default_config();
    wifi_init_netinfo();
    wifi_link_forget_wrong_key();
    if (!restart_station(error_code))
        return -1;
    wifi_link_set_started();
    wlan_monitor_signal_attach();
    if (!supplicant_config_write(error_code)) {
        LOGE("failed to configure sta with given network info");
        return -1;
    }
    if (wifi_command_failed(wifi_wpa_reconfigure())) {
        LOGE("failed to reconfigure the supplicant");
        *error_code = WIFI_IFACE_ERROR;
        return -1;
    }
    wifi_state_set_wifi(WIFI_CONNECTING);
    return 0;
}

int wifi_wpa_reconfigure() {
    return wifi_command_logged(
        pex_format("sudo wpa_cli -i%s reconfigure\n", wifi_get_sta_interface()));
}

void wifi_select_sta_network() {
    const StationOperation operation;
    const char *const ifname = wifi_get_sta_interface();
    const size_t size = strlen(ifname) + 37;  // the rest of the line
    const MallocText command(static_cast<char *>(malloc(size)));
    if (!command) {
        LOGE("out of memory");
        return;
    }
    snprintf(command.get(), size, "sudo wpa_cli -i%s select_network %d", ifname, kSelectedNetwork);
    wifi_system_command(command.get());
}

int wifi_network_disconnect() {
    const StationOperation operation;
    wlan_monitor_signal_deattach();
    return wifi_sta_iface_down();
}

void wifi_network_reconnect() {
    const StationOperation operation;
    wifi_network_disconnect();
    sleep(1);
    int32_t error_code = -1;
    wifi_network_connect(&error_code, 0);
}

int wifi_wactivate(int32_t *error_code) {
    const StationOperation operation;
    const int result = wifi_network_connect(error_code, 1);
    wifi_timers_arm(kDhcpLimitS, kAssociationLimitS);
    return result;
}

void wifi_start_sta_from_kvs_configuration() {
    const StationOperation operation;
    if (wifi_link_is_started())
        return;
    const MallocText ssid(pex_kvs_get_key_str_at_last_malloc(kvs_key::kSsid));
    const MallocText pass(pex_kvs_get_key_str_at_last_malloc(kvs_key::kPassword));
    const MallocText ip_config(pex_kvs_get_key_str_at_last_malloc(kvs_key::kIpConfig));
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
    if (wifi_command_failed(wifi_network_connect(&error_code, 0))) {
        wifi_state_set_wifi(WIFI_STATION_STOPPED);
        LOGE("failed to configure sta to %s; check kvs for pass", pex_one_line(ssid.get()).c_str());
    }
}
