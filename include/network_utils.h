// The JSON status texts that the daemon publishes about itself. Receivers compare them to the
// letter: members, order and the absence of blanks are part of the contract. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kStatusTextSize = 256;  // bytes every builder below is given

// Writes netinfo into 256 bytes, refreshed from the system when `fresh` is non-zero. The length,
// or 0 with the buffer untouched when there is no netinfo.
int16_t make_wifi_netinfo_json(char *buffer, int fresh);

// Writes wifistat into 256 bytes. The length, or 0 on failure.
int16_t make_wifistat_json(char *buffer);

// Publish netinfo on "network/events", wifistat there and on "brisk/robot/events"; a non-zero
// `bluetooth` also sends the text to the Bluetooth manager and waits for its answer. 1, or 0
// without memory.
int wifi_send_netinfo(int bluetooth);
int wifi_send_wifistat(int bluetooth);

// Publishes the saved configuration. 0 when nothing was sent, else the length cut to eight bits
// (kept for those who only test for zero).
int8_t wifi_send_wlcfg_json();

// Tells the robot's user-interface side a command word on "robot/debug".
void send_command_to_robot(const char *command);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// Publishes the signal levels of the station; `connected` as in wifi_get_signal_levels. The text's
// length, or 0 when they could not be read.
int wifi_send_signal_levels(int connected);
