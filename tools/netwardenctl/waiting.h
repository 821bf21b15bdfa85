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
    kNotWritten = 4,
    kInterrupted = 130,
    kNobodyReads = 141,  // as the shell tells of a program that SIGPIPE ended
};

// Ends the command with its exit code and this text on standard error.
struct Failure : std::runtime_error {
    Failure(exit_code with, const std::string &text) : std::runtime_error(text), code(with) {}
    exit_code code;
};

// Thrown by a wait on SIGINT or SIGTERM.
struct Interrupted {};

// Thrown when the reader of a pipe is gone: there is nobody to tell anything.
struct NobodyReads {};

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;
constexpr Deadline kNever = Deadline::max();

// `seconds` from now; never for 0.
Deadline deadline_after(double seconds);

// Before any thread is started.
void catch_interrupts();

// A broken pipe is told by the write, in every thread, and programs started from here get the
// signal again. Also after whatever else has changed the process's signals.
void catch_broken_pipes();

// True when `fd` can be read, false at the deadline. NobodyReads as soon as standard output is a
// pipe without a reader: whoever waits for minutes must not learn it from the next line only.
bool wait_readable(int fd, Deadline end);

}  // namespace ctl
