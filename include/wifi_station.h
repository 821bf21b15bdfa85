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

// Takes the next place in the queue for an operation that another thread is to do, or gives it up
// again. Any thread; at once.
uint32_t wifi_station_take_place();
void wifi_station_leave_place(uint32_t place);

// The place of the operation that goes on, each with another than the one before it; 0: none. Any
// thread.
uint32_t wifi_station_served_place();
