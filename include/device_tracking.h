// The switch of home-device tracking: the mode that pinger, sweep and browser obey, and who turns
// it. Any thread.
#pragma once

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
void set_pinger_mode(int kind, int value);

// Copies both flags, read together, and returns `out`.
pinger_mode *get_pinger_mode(pinger_mode *out);

// Starts tracking with three rounds of discovery; refused with a log line while it is on.
void start_device_discovery();

// Both end tracking; the two names keep the app's pause and stop apart.
void stop_device_discovery();
void pause_device_discovery();

// 1 while devices are tracked, else 0.
int is_device_discovery_active();

// --- for the threads that track ------------------------------------------------------------------

namespace device_tracking {

// The mode, and which tracking it belongs to: every switching-off begins a new one, so that a stop
// and a start between two looks are told from no change at all.
struct Session {
    pinger_mode mode;
    uint32_t number;
};
Session current_session();

// Whether that tracking goes on and its sweep is still wanted.
bool is_sweep_wanted(uint32_t session);

// Clears the discover flag, unless it is a newer tracking's by now.
void end_sweep(uint32_t session);

// Takes one of the rounds of discovery that are left; false when there is none.
bool take_round();

}  // namespace device_tracking
