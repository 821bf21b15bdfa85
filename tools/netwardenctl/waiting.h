// Waiting with a limit, and Ctrl-C: signals are only taken while the main thread waits here, so
// that everything is put back in order wherever they come.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

namespace ctl {

enum exit_code : int {
    kDone = 0,
    kRefused = 1,  // the robot said no, or failed
    kUsage = 2,
    kNoAnswer = 3,  // broker or robot
    kInterrupted = 130,
};

// Ends the command with its exit code and this text on standard error.
struct Failure : std::runtime_error {
    Failure(exit_code with, const std::string &text) : std::runtime_error(text), code(with) {}
    exit_code code;
};

// Thrown by a wait on SIGINT or SIGTERM.
struct Interrupted {};

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;
constexpr Deadline kNever = Deadline::max();

// `seconds` from now; never for 0.
Deadline deadline_after(double seconds);

// Before any thread is started.
void catch_interrupts();

// True when `fd` can be read, false at the deadline.
bool wait_readable(int fd, Deadline end);

}  // namespace ctl
