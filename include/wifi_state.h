// The daemon's picture of the Wi-Fi link, and the network settings that are pending or saved.
// Any thread unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

// The Wi-Fi state as published in wifistat and saved as the last provisioning status.
enum wifi_link_state : int32_t {
    WIFI_UNKNOWN = -1,
    WIFI_OFF = 0,
    WIFI_CONNECTED = 1,      // address and gateway, and the gateway answered
    WIFI_ASSOC_TIMEOUT = 2,  // nobody answered the association
    WIFI_AUTH_ERROR = 3,     // wrong key
    WIFI_DHCP_TIMEOUT = 4,
    WIFI_NETWORK_DOWN = 5,  // lost outside provisioning
    WIFI_ASSOC_REJECTED = 6,
    WIFI_REPORTED_BY_PEER = 7,  // only ever set by another process's wifistat message
    WIFI_CONNECTING = 8,
    WIFI_BAD_CONFIG = 9,
    WIFI_IFACE_ERROR = 10,  // IP configuration, soft AP or station interface failed
    WIFI_STATION_STOPPED = 11,
};

// Sixteen bytes: the spare fields have no user and keep the size.
struct wifistat {
    int32_t wifi;
    uint8_t spare_flag;
    uint8_t uap;
    int16_t spare_short;
    uint32_t spare_word1;
    uint32_t spare_word2;
};
static_assert(sizeof(wifistat) == 16);

// Addresses in network byte order, the BSSID first octet first, `sec` a value of security_types.
struct __attribute__((packed)) netinfo {
    uint32_t addr;
    uint32_t mask;
    uint32_t gw;
    uint32_t dns1;
    uint32_t dns2;
    uint8_t bssid[6];
    uint8_t sec;
};
static_assert(sizeof(netinfo) == 27);

constexpr uint8_t kSecurityUnknown = 7;  // netinfo.sec until the supplicant told more

// One row of the table of security types, which ends with a null name.
struct security_type {
    const char *name;
    uint8_t value;
};
extern const security_type security_types[];

// wifi -1, everything else 0.
void wifi_init_wifistat();

// Copies the 16 bytes; returns 16.
int wifi_get_wifistat(wifistat *out);

// Sets the Wi-Fi state, saves it as the last provisioning status where that is due, and resets
// netinfo for state 0 outside provisioning.
void wifi_state_set_wifi(int32_t state);
int32_t wifi_state_get_wifi();

// The saved last provisioning status, or -1.
int wifi_state_get_last_prov_status();

// Whether the soft AP is the active interface; also points "network.interface" at it.
void wifi_state_set_uap(int flag);
int wifi_state_get_uap();

// The spare fields of wifistat, kept for the record's layout.
void wifi_state_set_spare_flag(uint8_t value);
uint8_t wifi_state_get_spare_flag();
void wifi_state_set_spare_short(int16_t value);
int16_t wifi_state_get_spare_short();
void wifi_state_set_spare_word1(uint32_t value);
uint32_t wifi_state_get_spare_word1();
void wifi_state_set_spare_word2(uint32_t value);
uint32_t wifi_state_get_spare_word2();

// Resets netinfo: mask all ones, sec 7, the rest 0. May be called with the state lock held.
void wifi_init_netinfo();

// Copies the record as it stands; returns 27.
int wifi_get_netinfo(netinfo *out);

// Refreshes the addresses of the active interface and copies; 27, or -1. Without an address `out`
// is all zero and the record's other fields stay.
int wifi_read_netinfo(netinfo *out);

// Parses six hexadecimal octets separated by ":"; `text` is modified. Fewer octets leave the rest.
void wifi_netinfo_set_bssid(char *text);

// Sets netinfo.sec by the first table name that begins `name`; unknown names change nothing.
void wifictl_set_sec_type(const char *name);

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
// thread is started; the getters' texts live as long as the process.
void wifi_set_station_interface_name(const char *name);
void wifi_set_uap_interface_name(const char *name);
const char *wifi_get_sta_interface();
const char *wifi_get_uap_interface();

// The station's channel, 0 until known; filled by wifi_refresh_link_status.
int16_t wifi_get_sta_channel();
void wifi_set_sta_channel(int16_t channel);
