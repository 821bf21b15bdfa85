// One question to a home device: an ARP ping by the system's tool.
#pragma once

#include <cstddef>
#include <cstdint>

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
