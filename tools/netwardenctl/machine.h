// The machine that the client runs on, for what the daemon has no answer to. It is read as anybody
// may read it; nothing here needs the broker.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "owned.h"

namespace ctl {

// A tool's outcome. `output` is what came on both of its channels, at most as much as was asked.
struct ToolResult {
    enum { done, failed, killed, too_slow, not_run } end = not_run;
    int code = 0;
    std::string output;
    bool cut = false;

    bool ok() const { return end == done; }
    std::string whole_lines() const;  // without what is left of a line that was cut
    std::string why() const;          // "exit code 3", "no answer within 2 s"; for what is not ok
};
// Runs the tool, found through PATH, without a shell and in a process group of its own, which is
// ended after `limit_s`: some tools wait for a daemon that hangs.
ToolResult run_tool(const std::vector<std::string> &command, double limit_s = 3,
                    size_t largest = 1 << 16);

// The same for work of our own, whose exit code and output these then are; before this process has
// any threads.
ToolResult run_apart(const std::function<int()> &work, double limit_s, size_t largest = 1 << 16);

std::optional<std::string> find_in_path(const std::string &tool);

// At most `largest` bytes; nothing when it cannot be read, errno says why. Does not wait for the
// other end of a pipe.
std::optional<std::string> read_text_file(const std::string &path, size_t largest = 1 << 16);

// The netwarden that runs here; the one of the smallest number where there are several.
struct Daemon {
    pid_t process;
    std::vector<std::string> arguments;
};
std::optional<Daemon> find_daemon();

// The PATH in which it looks for its tools: that of the process, else of its service; nothing where
// neither tells. Of root's or one's own only: whoever chooses it chooses what runs.
std::optional<std::string> daemon_path(const std::optional<Daemon> &daemon);

// The station: as asked for, else as the running daemon was told, else wlan0.
std::string station_interface(const std::string &asked);

std::vector<std::string> interface_names();
bool is_interface(const std::string &name);

// Whether the broker of this command is on this machine, as far as its address tells.
bool is_broker_local();

// The link as the kernel's driver tells it.
struct Link {
    std::string bssid;
    std::string ssid;
    int frequency = 0;
    std::optional<int> signal;  // dBm
    int channel() const;        // 0 when the frequency is of no known one
};
// Nothing when the station has joined none; Failure when that cannot be told.
std::optional<Link> read_link(const std::string &interface);

struct Addresses {
    std::string address;  // empty when there is none, as are the others
    int prefix = 0;
    std::string gateway;
    bool gateway_answers = false;  // to ARP; asked again when the kernel does not know
};
Addresses read_addresses(const std::string &interface);

// A value of the settings store; nothing when it is not there or may not be read.
std::optional<std::string> stored(const char *key);
bool may_read_store();

}  // namespace ctl
