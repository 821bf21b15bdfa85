#include "waiting.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

void catch_broken_pipes() {
    struct sigaction nothing = {};
    nothing.sa_handler = [](int) {};  // unlike being ignored it ends at exec
    nothing.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &nothing, nullptr);
}

bool wait_readable(int fd, Deadline end) {
    sigset_t none;
    sigemptyset(&none);
    // Of the output only errors are asked for: the other end of a pipe is closed.
    std::array<pollfd, 2> ready{pollfd{fd, POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
    for (;;) {
        const timespec left = end == kNever ? timespec{} : time_until(end);
        const int count = ppoll(ready.data(), ready.size(), end == kNever ? nullptr : &left, &none);
        if (interrupted != 0 || is_interrupt_pending())
            throw Interrupted();
        if (count >= 0 && (ready[1].revents & POLLERR) != 0)
            throw NobodyReads();
        if (count >= 0 && (ready[0].revents != 0 || ready[1].revents == 0))
            return ready[0].revents != 0;
        if (count > 0)
            ready[1].fd = -1;  // closed, or a terminal that is gone: the next write tells
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
    }
}

}  // namespace ctl
