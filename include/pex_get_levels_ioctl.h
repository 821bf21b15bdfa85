// The station's signal from the kernel's wireless statistics.
#pragma once

#include <cstdint>

// Signal in dBm, -128 when unknown. 0 or -1. Any thread.
int pex_net_get_signal_levels_from_ioctl(int8_t *signal);
