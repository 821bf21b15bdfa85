// What the pinger and the sweep of home devices share.
#pragma once

#include <cstdint>

#include "device_pinger.h"

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

// Asks for a sweep for that tracking. Pinger thread.
void request_sweep(uint32_t session);

}  // namespace device_tracking
