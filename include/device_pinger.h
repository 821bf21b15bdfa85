// Keeps the census of home devices fresh while they are tracked: pings them, reports changes, asks
// for sweeps and hops.
#pragma once

// Thread body: one round every 3 s.
void *device_pinger_main(void *unused);
