// The daemon's link to the supplicant: a thread that delivers its events, and a command channel
// that any thread may use.
#pragma once

#include <cstddef>

using wlan_monitor_event_cb = void (*)(const char *text);

// Sets interface name (copied) and callback. Main thread, before the monitor thread is started.
void wlan_monitor_init(const char *ifname, wlan_monitor_event_cb callback);

// What one datagram of the supplicant means here.
enum class wlan_monitor_scan { unchanged, started, ended };
struct wlan_monitor_message {
    const char *text;        // the event, within the datagram: interface and priority skipped
    bool is_forwarded;       // false for the noise of access points seen and lost
    wlan_monitor_scan scan;  // what it tells of a pending scan
    bool is_terminating;     // the supplicant is about to leave
};
// Reads one datagram, terminated; the result points into it.
wlan_monitor_message wlan_monitor_parse(const char *datagram);

// Thread body: connects when signalled, delivers events, leaves when told to.
void *wlan_monitor_main(void *unused);

// Wakes the thread to connect; blocks while it is connected already, which a stop request ends
// within half a second. Any thread.
void wlan_monitor_signal_attach();

// Asks the thread to disconnect, which it does at once; returns before it is done. Any thread.
void wlan_monitor_signal_deattach();

// Commands to the supplicant. The reply is terminated within `size`. 0, -1, or -2 when the
// supplicant did not answer in 10 s. Any thread.
int wlan_monitor_ctrl_status(char *reply, size_t size);
int wlan_monitor_ctrl_scan(char *reply, size_t size);
int wlan_monitor_ctrl_get_scan_results(char *reply, size_t size);
int wlan_monitor_ctrl_roam(const char *bssid, char *reply, size_t size);

// 1 from a scan's request or start until its results or failure. Any thread.
int wlan_monitor_ctrl_pending_scan();

// Keeps the connection from being closed while at least one reference is held. Any thread.
void wpa_ctrl_conn_increment_ref_count();
void wpa_ctrl_conn_decrement_ref_count();

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

int wlan_monitor_ctrl_disconnect(char *reply, size_t size);
int wlan_monitor_ctrl_reconnect(char *reply, size_t size);
int wlan_monitor_ctrl_blacklist(const char *bssid, char *reply, size_t size);
int wlan_monitor_ctrl_blacklist_show(char *reply, size_t size);
