// The connectivity watchdog: pings the gateway by ARP, restarts the network when it stays silent,
// and reboots the robot as a last resort, never into a cleaning mission.
#pragma once

// Thread body: one watchdog cycle every 20 s.
void *pinger_main(void *unused);

// Whether a cleaning mission runs, which forbids the reboot. Any thread.
void gateway_pinger_set_mission_in_progress(int flag);
int gateway_pinger_get_mission_in_progress();

// When the scheduler says the next cleaning is due, in its unit; 0 when it cannot be asked.
// Any thread but the broker's.
int gateway_pinger_get_next_cleaning();
