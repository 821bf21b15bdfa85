// One owner of the station: whole operations on it run one after the other, in the order in which
// they were asked for, whichever thread asks.
#pragma once

#include <cstdint>

// Makes what its thread does to the station one operation for as long as the object lives: waits
// for the operations ahead, and the later ones wait for it. Within an operation of the same thread
// it is part of that one. For any thread but the broker's and the WLAN monitor's, which operations
// wait for.
class StationOperation {
  public:
    StationOperation();
    explicit StationOperation(uint32_t place);  // one whose place was taken before
    ~StationOperation();
    StationOperation(const StationOperation &) = delete;
    StationOperation &operator=(const StationOperation &) = delete;
};

// Has the network restarted (wifi_network_reconnect) in its turn, by a thread of its own; returns
// at once. A restart that was asked for and has not begun yet serves this request too. Any thread.
void wifi_station_request_restart();
