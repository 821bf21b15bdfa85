// Finds the home devices that announce themselves by multicast DNS, and switches their tracking on
// and off.
#pragma once

// Thread body: after each start three rounds of browsing fill the census, one every 3 s and the
// time that it takes.
void *mdns_discovery_main(void *unused);

// Any thread, like all that follows. Starts tracking with three rounds of discovery; refused with a
// log line while it is on.
void start_device_discovery();

// Both end tracking; the two names keep the app's pause and stop apart.
void stop_device_discovery();
void pause_device_discovery();

// 1 while devices are tracked, else 0.
int is_device_discovery_active();
