// The station's connect to the home's network, and its end. Any thread but the broker's: it blocks
// for seconds, and each is one operation on the station (wifi_station.h).
#pragma once

#include <cstdint>

// Writes the configuration for the pending (else saved) settings, restarts the station interface
// and makes the supplicant load it. 0, or -1 with `*error_code` (preset to -1 by the caller) set to
// the Wi-Fi state that tells why. The flag is accepted and ignored. Blocks for seconds.
int wifi_network_connect(int32_t *error_code, int flag);

// Tells the supplicant to load its configuration again. 0 or -1.
int wifi_wpa_reconfigure();

// Tells the supplicant to use the selected network, for another try with the same key.
void wifi_select_sta_network();

// Leaves the supplicant's events and takes the station down. The latter's result.
int wifi_network_disconnect();

// Takes the station down and connects again. Blocks for seconds.
void wifi_network_reconnect();

// wifi_network_connect for provisioning, then 50 s for an address and 35 s to associate.
int wifi_wactivate(int32_t *error_code);

// Connects with the saved settings unless the station is started. Blocks for seconds.
void wifi_start_sta_from_kvs_configuration();
