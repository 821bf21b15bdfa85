// Tells apps on the home network who and where the robot is: a UDP probe, a line of JSON back.
#pragma once

#include <cstddef>

// Thread body: answers probes on UDP port 5678.
void *discovery_main(void *unused);

// Fills the robot's identity and opens the socket; the socket, or -1. Discovery thread, once.
int discovery_init();

// Writes the robot's description as JSON. Its length, or -1 when it does not fit. Any thread.
int get_discovery_json(char *buffer, int size);

// Keeps the robot's capabilities (the text of a JSON object or array) for the description. Any
// thread.
void store_robot_cap(const char *text);

// The description with the last provisioning status as member "lps", freed by the caller; null on
// failure. Any thread.
char *add_lps_malloc(const char *text);

// Saves whether the robot is trained, if that changed. Any thread.
void store_robot_trained_state(int trained);
