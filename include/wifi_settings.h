// The settings of the home's network, pending or saved, and the names of the robot's interfaces.
// Any thread unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

// 1 is DHCP, 0 a static address; loaded from the store at the first use.
void wifi_set_addr_type(uint8_t type);
uint8_t wifi_get_addr_type();

// The pending settings: SSID as hexadecimal text (64 characters), passphrase or PSK (128), and the
// IP configuration command line (512). Longer texts are cut and logged. The getters return the
// buffer itself; a thread that is not the writer copies with the functions below.
void wifictl_set_ssid(const char *text);
void wifictl_set_pass(const char *text);
void wifictl_set_ip_config(const char *text);
const char *wifictl_get_temp_ssid();
const char *wifictl_get_temp_pass();
const char *wifictl_get_temp_ip_config();

// A consistent copy of the pending settings, taken under their lock.
constexpr size_t kSsidSize = 65;
constexpr size_t kPassSize = 129;
constexpr size_t kIpConfigSize = 513;
struct pending_settings {
    char ssid[kSsidSize];
    char pass[kPassSize];
    char ip_config[kIpConfigSize];
};
pending_settings wifictl_copy_pending();

// Saves the pending settings; a WPA passphrase is stored as the PSK derived from it.
void wifictl_save_nw_info_to_kvs();

// Writes "network.interface" when it differs. 0, or the store's error.
int set_active_ifname(const char *name);

// The interface names, "wlan0" and "wlan1" unless the command line said otherwise. Set before any
// thread is started; a getter's text lives until the name is set anew.
void wifi_set_station_interface_name(const char *name);
void wifi_set_uap_interface_name(const char *name);
const char *wifi_get_sta_interface();
const char *wifi_get_uap_interface();
