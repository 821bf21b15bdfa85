// Switching home-device tracking on and off. Any thread.
#pragma once

// Starts tracking with three rounds of discovery; refused with a log line while it is on.
void start_device_discovery();

// Both end tracking; the two names keep the app's pause and stop apart.
void stop_device_discovery();
void pause_device_discovery();

// 1 while devices are tracked, else 0.
int is_device_discovery_active();
