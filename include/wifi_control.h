// Interfaces, soft AP and DHCP, all of it through the robot's scripts. (The station's connect is in
// wifi_connect.h.)
#pragma once

#include <cstddef>
#include <cstdint>

enum class wifi_iface_kind : int { monitor, soft_ap };

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

// Signal, signal-to-noise and noise of the station; see pex_net_get_signal_levels.
int wifi_get_signal_levels(int connected, int8_t *signal, int8_t *snr, int8_t *noise);
