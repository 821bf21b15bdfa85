// The sweep of the station's subnet that finds the home devices that do not announce themselves.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Asks for a sweep for that tracking (device_tracking.h). Pinger thread.
void device_subnet_ping_request(uint32_t session);

// Thread body: one sweep for each request.
void *device_subnet_ping_main(void *unused);

// The part of a sweep that one worker does; `done` is the last that the worker touches.
struct ping_range {
    uint32_t first;  // IPv4, network byte order
    uint16_t count;
    uint32_t session;  // the tracking that asked
    pthread_t thread;
    std::atomic<uint8_t> done;
};

// Thread body of a worker: adds the devices that answer to the list. The argument is a ping_range.
void *ping_range_main(void *range);
