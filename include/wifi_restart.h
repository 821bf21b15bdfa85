// A restart of the network that another process asked for.
#pragma once

// Has the network restarted (wifi_network_reconnect) in its turn, by a thread of its own; returns
// at once. A restart that was asked for and has not begun yet serves this request too. Any thread.
void wifi_station_request_restart();
