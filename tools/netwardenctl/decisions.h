// The daemon's log on this machine, and what it says of the watchdog.
#pragma once

#include <string>
#include <vector>

namespace ctl {

// The lines of the daemon's log and, from systemd, those on its service, the oldest first; of a
// long one the last.
struct DaemonLog {
    std::vector<std::string> lines;
    std::string from;     // the tool or file
    std::string why_not;  // when there are no lines
};
DaemonLog read_daemon_log();

// A decision to restart or reboot, or not to. Alike ones in a row are one.
struct Decision {
    std::string time;  // as the log has it
    std::string what;
    std::string reason;
    int times = 1;
    std::string last_time;
};
std::vector<Decision> decisions_in(const std::vector<std::string> &log);

}  // namespace ctl
