// Home devices on the network: the mode that tracks them, the ARP pings that keep the census fresh,
// and the sweep of the subnet that finds those who do not announce themselves.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

struct pinger_mode {
    unsigned char pinger;
    unsigned char discover;
};

// What set_pinger_mode changes; other kinds change nothing.
enum pinger_mode_kind : int {
    PINGER_MODE_CLEAR = 0,
    PINGER_MODE_DISCOVER = 1,
    PINGER_MODE_PINGER = 2
};

// Any thread.
void set_pinger_mode(int kind, int value);

// Copies both flags, read together, and returns `out`. Any thread.
pinger_mode *get_pinger_mode(pinger_mode *out);

// One probe, in the order of the arguments of add_entry_to_device_list. Any text may be null.
constexpr size_t kProbeMacSize = 32;
struct ping_request {
    const char *name = nullptr;
    uint32_t name_rank = 0;
    const char *ip = nullptr;
    char *mac = nullptr;  // a buffer of kProbeMacSize for the answer
    const char *type = nullptr;
    const char *google_cd = nullptr;
    const char *hostname = nullptr;
    const char *md = nullptr;
};

// Pings `ip` by ARP: with `want_mac` for its hardware address, else with `wait` for its answer,
// else in the background. 1 when an answer was seen, else 0. Any thread; blocks for up to 2 s.
int ping_device(ping_request *request, int want_mac, int wait);

// Thread body: each 3 s pings the devices of the list and reports a change.
void *device_pinger_main(void *unused);

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

// Thread body: one sweep of the station's subnet for each request of the pinger.
void *device_subnet_ping_main(void *unused);
