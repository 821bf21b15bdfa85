// What the supplicant's events mean to the robot.
#pragma once

// Handles one event of the supplicant. WLAN monitor thread.
void wlan_monitor_event(const char *text);
