#include "waiting.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace ctl {

namespace {

volatile sig_atomic_t interrupted = 0;

// Both signals are blocked but inside ppoll, which does not take them while there is input.
bool is_interrupt_pending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1;
}

timespec time_until(Deadline end) {
    using namespace std::chrono;
    const auto left = std::max(duration_cast<nanoseconds>(end - Clock::now()), nanoseconds(0));
    const auto whole = duration_cast<seconds>(left);
    return {static_cast<time_t>(whole.count()), static_cast<long>((left - whole).count())};
}

}  // namespace

Deadline deadline_after(double seconds) {
    return seconds > 0 ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(seconds))
                       : kNever;
}

void catch_interrupts() {
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigset_t both;
    sigemptyset(&both);
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
        sigaddset(&both, signal);
    }
    pthread_sigmask(SIG_BLOCK, &both, nullptr);
}

bool wait_readable(int fd, Deadline end) {
    sigset_t none;
    sigemptyset(&none);
    pollfd ready{fd, POLLIN, 0};
    for (;;) {
        const timespec left = end == kNever ? timespec{} : time_until(end);
        const int count = ppoll(&ready, 1, end == kNever ? nullptr : &left, &none);
        if (interrupted != 0 || is_interrupt_pending())
            throw Interrupted();
        if (count >= 0)
            return count > 0;
        if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
    }
}

}  // namespace ctl
