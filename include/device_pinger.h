// The mode that the home-device threads obey: whether devices are pinged and whether they are
// looked for. Any thread.
#pragma once

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
