#include "clock.h"

#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<unsigned> a_second{0};
std::atomic<void (*)(unsigned)> pause_of{[](unsigned seconds) { usleep(seconds * a_second); }};

}  // namespace

void make_pauses_call(void (*pause)(unsigned seconds)) {
    pause_of = pause;
}

void make_pauses_last(unsigned microseconds_each_second) {
    a_second = microseconds_each_second;
}

// In front of the C library's.
extern "C" unsigned sleep(unsigned seconds) {
    pause_of.load()(seconds);
    return 0;
}
extern "C" int nanosleep(const timespec *duration, timespec * /*rest*/) {
    if (duration->tv_sec > 0)
        sleep(static_cast<unsigned>(duration->tv_sec));
    return usleep(static_cast<useconds_t>(duration->tv_nsec / 1000));
}
