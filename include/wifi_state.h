// The Wi-Fi state and what decides it: whether the station is started and connected, and the timers
// of a provisioning. Everything here is written by this module only. Any thread.
#pragma once

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

// wifi -1, everything else 0.
void wifi_init_wifistat();

// Copies the 16 bytes; returns 16.
int wifi_get_wifistat(wifistat *out);

// Sets the Wi-Fi state, saves it as the last provisioning status where that is due, and resets
// netinfo for state 0 outside provisioning.
void wifi_state_set_wifi(int32_t state);
int32_t wifi_state_get_wifi();

// "CONNECTED" for WIFI_CONNECTED; "?" for what is no state.
const char *wifi_state_name(int32_t state);

// The saved last provisioning status, or -1.
int wifi_state_get_last_prov_status();

// Whether the soft AP is the active interface; also points "network.interface" at it.
void wifi_state_set_uap(int flag);
int wifi_state_get_uap();

// --- the station's link: what is known of it, each a word without a lock -------------------------

// A connect brought the station's interface up.
void wifi_link_set_started();
bool wifi_link_is_started();

// The interface is down: state WIFI_STATION_STOPPED, not started, not connected, not refused, no
// timer.
void wifi_link_set_stopped();

// The supplicant reported a connection (which forgets a refusal), its end, or that the access point
// refused the station.
void wifi_link_set_connected();
void wifi_link_set_disconnected();
void wifi_link_set_refused();
bool wifi_link_is_connected();
bool wifi_link_is_refused();

// A wrong key may be a lost frame: true for the first report of one since a connect began, and
// false from then on.
bool wifi_link_may_retry_key();
void wifi_link_forget_wrong_key();

// The seconds left to get a valid address and to associate. Arming and clearing both is one change,
// and a count-down that meets a clear loses to it.
enum class wifi_timer : unsigned { dhcp, association };
void wifi_timers_arm(uint8_t dhcp_s, uint8_t association_s);
void wifi_timers_clear();
void wifi_timer_clear(wifi_timer which);
int wifi_timer_left(wifi_timer which);  // 0 when off

// Takes a second off a running timer; true when that was its last one.
bool wifi_timer_count_down(wifi_timer which);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// The spare fields of wifistat, kept for the record's layout.
void wifi_state_set_spare_flag(uint8_t value);
uint8_t wifi_state_get_spare_flag();
void wifi_state_set_spare_short(int16_t value);
int16_t wifi_state_get_spare_short();
void wifi_state_set_spare_word1(uint32_t value);
uint32_t wifi_state_get_spare_word1();
void wifi_state_set_spare_word2(uint32_t value);
uint32_t wifi_state_get_spare_word2();
