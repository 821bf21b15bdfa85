#include "decisions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string_view>

#include "machine.h"
#include "owned.h"

namespace ctl {

namespace {

constexpr size_t kMostBytes = 4 << 20;
constexpr char kMostEntries[] = "20000";
constexpr double kLimitS = 10;

bool begins_entry(const std::string &line) {
    return !line.empty() && line[0] != ' ' && line[0] != '\t';
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// Entries from the newest to the oldest, each with the lines that belong to it, turned round.
std::vector<std::string> turned_round(std::vector<std::string> lines) {
    std::vector<std::string> result;
    for (auto end = lines.end(); end != lines.begin();) {
        auto begin = end - 1;
        while (begin != lines.begin() && !begins_entry(*begin))
            --begin;
        result.insert(result.end(), begin, end);
        end = begin;
    }
    return result;
}

bool is_daemons(const std::string &line) {
    return line.find(" network[") != line.npos || line.find(" network: ") != line.npos ||
           line.find(" netwarden.service: ") != line.npos;
}

// What is not an entry of the daemon's or on it; its entries may have several lines.
std::vector<std::string> only_daemons(const std::vector<std::string> &lines) {
    std::vector<std::string> result;
    bool is_ours = false;
    for (const std::string &line : lines) {
        is_ours = begins_entry(line) ? is_daemons(line) : is_ours;
        if (is_ours)
            result.push_back(line);
    }
    return result;
}

std::optional<std::string> end_of_file(const char *path) {
    const Fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info = {};
    if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    std::string text(std::min(static_cast<size_t>(info.st_size), kMostBytes), '\0');
    const off_t from = info.st_size - static_cast<off_t>(text.size());
    const ssize_t length = pread(file.get(), text.data(), text.size(), from);
    if (length < 0)
        return std::nullopt;
    text.resize(static_cast<size_t>(length));
    return from == 0 ? text : text.substr(std::min(text.find('\n'), text.size()));
}

}  // namespace

DaemonLog read_daemon_log() {
    DaemonLog log;
    const auto take = [&log](const std::string &from, std::vector<std::string> lines) {
        log.lines = std::move(lines);
        log.from = from;
        return !log.lines.empty();
    };
    // The newest first, for a bound to leave these.
    const ToolResult journal =
        run_tool({"journalctl", "-q", "-r", "-n", kMostEntries, "-o", "short-iso",
                  "SYSLOG_IDENTIFIER=network", "+", "UNIT=netwarden.service"},
                 kLimitS, kMostBytes);
    if ((journal.ok() || journal.end == ToolResult::too_slow) &&
        take("journalctl", only_daemons(turned_round(lines_of(journal.whole_lines())))))
        return log;
    for (const char *path : {"/var/log/messages", "/var/log/syslog", "/var/log/daemon.log"})
        if (const auto text = end_of_file(path))
            if (take(path, only_daemons(lines_of(*text))))
                return log;
    const ToolResult ring = run_tool({"logread"}, kLimitS, kMostBytes);
    if (ring.ok() && take("logread", only_daemons(lines_of(ring.whole_lines()))))
        return log;
    log.from.clear();
    log.why_not = "no line of it in the journal (" + (journal.ok() ? "empty" : journal.why()) +
                  "), in /var/log, or with logread (" + (ring.ok() ? "empty" : ring.why()) + ")";
    return log;
}

namespace {

// What the counters before a decision have said.
struct Counters {
    int lost_pings = 0;
    int without_address = 0;
};

std::string of_pings(const Counters &counters) {
    return "the gateway left " + std::to_string(std::max(counters.lost_pings, 1)) +
           " pings in a row unanswered";
}

std::string of_address(const Counters &counters) {
    if (counters.without_address == 0)
        return "no gateway to ping for minutes";
    return "no address in " + std::to_string(counters.without_address) + " rounds of 20 s";
}

struct Kind {
    std::string_view sign;  // in the log
    const char *what;
    std::string (*reason)(const Counters &counters);  // null: what follows the sign
    bool is_repeated = false;  // in every round for as long as nothing changes
};
// The first that fits counts.
constexpr std::array kKinds{
    Kind{"maximum ping loss count, restarting network", "restart of the network", of_pings},
    Kind{") restarting network", "restart of the network", of_address},
    Kind{"No connectivity, rebooting", "reboot of the robot", of_address},
    Kind{"No connectivity but clean mission running or scheduled", "no reboot",
         [](const Counters &counters) {
             return of_address(counters) + ", but a cleaning mission runs or is soon to";
         },
         true},
    Kind{"wifi is trying to reconnect", "restart of the network",
         [](const Counters &) { return std::string("the supplicant has lost the network"); }, true},
    Kind{"received restart network request", "restart of the network",
         [](const Counters &) { return std::string("another process asked for it"); }},
    Kind{": Watchdog timeout", "restart of the daemon",
         [](const Counters &) { return std::string("it hung: it told systemd nothing in time"); }},
    Kind{": Main process exited, ", "end of the daemon", nullptr},
};

void count(const std::string &line, const char *sign, int &counter) {
    const size_t at = line.find(sign);
    if (at != line.npos)
        counter = atoi(line.c_str() + at + strlen(sign));
}

// "2026-11-24T02:00:00+0000" or "Nov 24 02:00:00".
std::string time_of(const std::string &line) {
    size_t end = line.find(' ');
    const bool is_named_month = !line.empty() && (line[0] < '0' || line[0] > '9');
    constexpr size_t kNamed = sizeof "Nov 24 02:00:00" - 1;
    if (is_named_month)
        end = kNamed;
    return line.substr(0, end);
}

}  // namespace

std::vector<Decision> decisions_in(const std::vector<std::string> &log) {
    std::vector<Decision> decisions;
    Counters counters;
    const Kind *last = nullptr;
    for (const std::string &line : log) {
        count(line, "loss counter = ", counters.lost_pings);
        if (line.find("wifi is disconnected") != line.npos)  // each round begins with it
            counters.without_address = 0;
        count(line, "no address count, ", counters.without_address);
        const auto *const kind = std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind &each) {
            return line.find(each.sign) != line.npos;
        });
        if (kind == kKinds.end())
            continue;
        const std::string reason = kind->reason != nullptr
                                       ? kind->reason(counters)
                                       : line.substr(line.find(kind->sign) + kind->sign.size());
        if (last == kind && kind->is_repeated) {
            decisions.back().times++;
            decisions.back().last_time = time_of(line);
            decisions.back().reason = reason;
        } else {
            decisions.push_back({time_of(line), kind->what, reason, 1, time_of(line)});
        }
        last = kind;
    }
    return decisions;
}

}  // namespace ctl
