// Moving the station between the access points of the home's network: a survey of the channels, and
// a roam to the next one that is not the current. Hop thread only, unless said otherwise.
#pragma once

#include <cstdint>

#include "owned.h"

// An access point. Moved out of a slot, it leaves the frequency behind: empty the slot as well.
struct channel_info {
    int32_t freq = 0;  // MHz; 0 marks an empty entry
    int32_t rssi = 0;  // dBm
    MallocText bssid;
};

// Thread body: one attempt to hop for each request.
void *device_network_hop_main(void *unused);

// Asks for a hop. Each request is one attempt, also one that comes while a hop is under way: they
// queue up, as nothing but the next request repeats an attempt that failed. Any thread.
void device_network_hop_request();

// The BSSID (freed by the caller) and frequency in MHz of the link, which it waits for. 1, or 0
// with both as they were. Blocks for seconds.
int get_current_bssid(char **bssid, int32_t *frequency);

// Its parser: what that takes from the supplicant's status text. 1, or 0 with the link as it was.
int parse_link_status(const char *status, channel_info *link);

// Scans, lists every access point as a home device, and fills at most `capacity` entries, which are
// empty before. How many were filled. Blocks for up to 9 s and the supplicant's answers.
int get_channel_information(channel_info *entries, int capacity);

// Its parser: what that makes of the supplicant's text, which may have been cut to 1023 characters.
int parse_scan_results(const char *text, channel_info *entries, int capacity);

// Scans, publishes what was found, and keeps the best access points for the hops.
void update_known_channel_info();

// Publishes the entries as "wifiScanResults" on "robot/debug".
void send_bssid_rssi_json(const channel_info *entries, int count);

// Has the supplicant roam to that access point. 0, or the failure of wlan_monitor_ctrl_roam, or -1.
int bssid_roam(const char *bssid);
