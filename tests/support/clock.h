// The daemon's pauses in a test program: its sleep() and the whole seconds of its nanosleep(). They
// end at once until one of these says otherwise.
#pragma once

void make_pauses_call(void (*pause)(unsigned seconds));  // on the thread that pauses
void make_pauses_last(unsigned microseconds_each_second);
