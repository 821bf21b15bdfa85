// What the daemon does to Wi-Fi: the station's configuration and connect, the interfaces, the soft
// AP and DHCP through the robot's scripts, and the tracking of the connection with its timers.
#pragma once

#include <cstddef>
#include <cstdint>

// --- station configuration and connect -----------------------------------------------------------

// Rewrites the supplicant's configuration file with the default text only.
void wifi_set_wpa_default_config();

// Writes the configuration for the pending (else saved) settings, restarts the station interface
// and makes the supplicant load it. 0, or -1 with `*error_code` (preset to -1 by the caller) set to
// the Wi-Fi state that tells why. The flag is accepted and ignored. Blocks for seconds.
int wifi_network_connect(int32_t *error_code, int flag);

// Tells the supplicant to load its configuration again. 0 or -1.
int wifi_wpa_reconfigure();

// Tells the supplicant to use the selected network, for another try with the same key.
void wifi_select_sta_network();

// The key management of the current connection, freed by the caller, or null.
char *get_key_mgmt_protocol();

// Leaves the supplicant's events and takes the station down. The latter's result.
int wifi_network_disconnect();

// Takes the station down and connects again. Blocks for seconds.
void wifi_network_reconnect();

// wifi_network_connect for provisioning, then 50 s for an address and 35 s to associate.
int wifi_wactivate(int32_t *error_code);

// --- interfaces, soft AP, DHCP -------------------------------------------------------------------

enum class wifi_iface_kind : int { monitor, soft_ap };

// Runs a command line under the command lock. 0, -1, or the raw status of a command that a signal
// ended (which counts as done).
int wifi_system_command(const char *command);

// Adds (non-zero flag) or removes the monitor or soft-AP interface.
void wifi_iface_control(wifi_iface_kind kind, int add);

// Starts the soft AP on `channel` in hostapd's hardware mode `mode`. 0 or -1. Blocks for seconds.
int wifi_configure_and_start_uap(int16_t channel, const char *mode);

// Stops the soft AP. 0 or -1. Blocks for a second and more.
int wifi_stop_uap();

// The monitor interface of device tracking. 0 or -1; nothing.
int wifi_start_monitor_mode();
void wifi_stop_monitor_mode();

// Non-zero enables the ARP mode of the DHCP client that monitor mode needs. 0 or -1.
int wifi_enable_noarp_mode(int flag);

// Applies the pending, else the saved IP configuration. The command's result, or -1.
int wifi_set_provision_ip_config();

// Asks the DHCP client to renew its lease. 0 or -1.
int wifi_renew_dhcp_lease();

// Takes the station interface down. The command's result.
int wifi_sta_iface_down();

// Start-up checks: 0 when the station interface, the run-time network directory is there, else -1.
int wifi_check_sta_iface_available();
int wifi_check_run_network_dir();

// Looks for a station on the soft AP: 1 and `size` bytes of its address (six 32-bit words, an octet
// each) in `out`, or 0.
int wifi_get_associated_station_status(void *out, size_t size);

// Disconnects the station with that address from the soft AP. The command's result.
int wifi_disassociate_uap_station(const uint32_t address[6]);

// --- connection status ---------------------------------------------------------------------------

// The once-a-second status pass. Main thread.
void wifi_network_status_update();

// The timer pass, once a second after an undisturbed sleep; the argument is not used. Main thread.
void wifi_timer_tick(long seconds);

// Handles one event of the supplicant. WLAN monitor thread.
void wlan_monitor_event(const char *text);

// Non-zero when the station has an address and a gateway and the gateway answers. Blocks for a
// ping.
int wifi_netinfo_is_valid();

// Refreshes BSSID, channel and security type from the supplicant's status.
void wifi_refresh_link_status();

// Connects with the saved settings unless the station is started. Blocks for seconds.
void wifi_start_sta_from_kvs_configuration();

// Signal, signal-to-noise and noise of the station; see pex_net_get_signal_levels.
int wifi_get_signal_levels(int connected, int8_t *signal, int8_t *snr, int8_t *noise);
