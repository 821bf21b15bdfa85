// The record of the station's link that netinfo messages are made of: addresses, access point, kind
// of security; and the channel. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

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

// The station's channel, 0 until known; filled by wifi_refresh_link_status.
int16_t wifi_get_sta_channel();
void wifi_set_sta_channel(int16_t channel);
