// The connectivity watchdog: pings the gateway by ARP, restarts the network when it stays silent,
// and reboots the robot as a last resort, never into a cleaning mission.
#pragma once

// Thread body: one watchdog cycle every 20 s.
void *pinger_main(void *unused);

// The ARP ping's command line for the current gateway, freed by the caller; null without a
// gateway, an address or memory. Any thread.
char *create_arping_cmd_str_malloc();

// Runs the command, or builds one when null: 1 when the gateway answered, else 0. Blocks up to 2 s.
// Any thread.
int gateway_pinger_arping_once(const char *command);

// Whether a cleaning mission runs, which forbids the reboot. Any thread.
void gateway_pinger_set_mission_in_progress(int flag);
int gateway_pinger_get_mission_in_progress();

// When the scheduler says the next cleaning is due, in its unit; 0 when it cannot be asked.
// Any thread but the broker's.
int gateway_pinger_get_next_cleaning();
