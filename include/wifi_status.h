// The status of the station's link: the once-a-second passes and the timers decide, with what the
// events told, which Wi-Fi state the robot reports.
#pragma once

// The once-a-second status pass. Main thread.
void wifi_network_status_update();

// The timer pass, once a second after an undisturbed sleep; the argument is not used. Main thread.
void wifi_timer_tick(long seconds);

// Non-zero when the station has an address and a gateway and the gateway answers. Blocks for a
// ping.
int wifi_netinfo_is_valid();

// Refreshes BSSID, channel and security type from the supplicant's status.
void wifi_refresh_link_status();
