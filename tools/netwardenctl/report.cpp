// The black box: what is known of this robot's Wi-Fi, in one file that may leave it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string_view>
#include <utility>

#include "broker.h"
#include "commands.h"
#include "decisions.h"
#include "kvs_keys.h"
#include "machine.h"
#include "owned.h"
#include "pex_kvs.h"
#include "pex_net.h"
#include "privacy.h"
#include "text.h"
#include "waiting.h"

namespace ctl {

namespace {

constexpr double kToolS = 5;
constexpr double kDoctorS = 120;  // its tools have a limit each
constexpr double kCaptureS = 60;  // as have those of the capture
constexpr size_t kLargestPart = 1 << 18;
constexpr size_t kLogLines = 500;
constexpr size_t kKernelLines = 300;
constexpr size_t kMostDecisions = 200;
constexpr char kSupplicantFile[] = "/etc/wpa_supplicant.conf";
constexpr char kCaptureScript[] = "/opt/halvik/bin/wifilogs.sh";
constexpr char kFailureFile[] = "/tmp/syslog-prov-fail-wifilog.gz.base64";

// What a part has found, and why that is not all.
struct Finding {
    std::string text;
    std::string why_not;
    Json data;  // for programs; null where the text is all
};

struct Subject {
    Options options;
    std::string station;
    DaemonLog log;
};

std::string utc(time_t when) {
    tm parts{};
    gmtime_r(&when, &parts);
    std::array<char, 64> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

std::string last_lines(const std::string &text, size_t most) {
    size_t at = text.size();
    for (size_t lines = 0; at > 0; at--)
        if (text[at - 1] == '\n' && at != text.size() && ++lines == most)
            break;
    return text.substr(at);
}

// A line that is cut may hold half a secret, which nobody knows for one.
std::string first_lines(const std::string &text) {
    return text.size() > kLargestPart ? text.substr(0, text.rfind('\n', kLargestPart - 1) + 1)
                                      : text;
}

void add(Finding &to, const std::string &title, const ToolResult &tool) {
    to.text += (title.empty() ? "" : "-- " + title + "\n") + tool.whole_lines();
    if (!to.text.empty() && !to.text.ends_with('\n'))
        to.text += '\n';
    const std::string why = tool.ok() ? (tool.cut ? "the rest is cut" : "") : tool.why();
    if (!why.empty())
        to.why_not += (to.why_not.empty() ? "" : "; ") + (title.empty() ? "" : title + ": ") + why;
}

Finding of(const ToolResult &tool) {
    Finding found;
    add(found, "", tool);
    return found;
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// Each with its command line as the title.
Finding of_tools(const std::vector<std::vector<std::string>> &commands) {
    Finding found;
    for (const auto &command : commands)
        add(found, joined(command), run_tool(command, kToolS));
    return found;
}

// The lines of a file of name and value that are asked for.
std::string chosen_lines(const std::string &path, const std::vector<std::string_view> &names) {
    std::string text;
    const std::string all = read_text_file(path).value_or("");
    for (const std::string_view name : names) {
        const size_t at = ("\n" + all).find("\n" + std::string(name));
        if (at != all.npos)
            text += all.substr(at, all.find('\n', at) - at) + "\n";
    }
    return text;
}

// --- the parts -----------------------------------------------------------------------------------

Finding look_at_machine(const Subject &) {
    Finding found;
    utsname name{};
    uname(&name);
    const time_t now = time(nullptr);
    timespec up{};
    clock_gettime(CLOCK_BOOTTIME, &up);
    found.text = "kernel        " + std::string(name.release) + " " + name.machine + "\n" +
                 chosen_lines("/etc/os-release", {"PRETTY_NAME="}) +
                 chosen_lines("/proc/meminfo", {"MemTotal:", "MemAvailable:"}) + "started       " +
                 utc(now - up.tv_sec) + ", " + std::to_string(up.tv_sec) +
                 " s ago\nload          " + read_text_file("/proc/loadavg").value_or("\n");
    const MallocText any(create_fname_malloc("x"));
    const std::string store = std::string(any.get(), strrchr(any.get(), '/'));
    struct statvfs room = {};
    for (const std::string &folder : {store, std::string("/tmp"), std::string("/etc")})
        if (statvfs(folder.c_str(), &room) == 0)
            found.text += format("free          %llu KiB in ",
                                 static_cast<unsigned long long>(room.f_bavail) *
                                     static_cast<unsigned long long>(room.f_frsize) / 1024) +
                          folder + ((room.f_flag & ST_RDONLY) != 0 ? ", read-only\n" : "\n");
    return found;
}

Finding look_at_daemon(const Subject &) {
    const auto daemon = find_daemon();
    const std::string process = daemon ? "/proc/" + std::to_string(daemon->process) : "";
    Finding found;
    add(found, "",  // the one that runs, which an update may have replaced
        run_tool(
            {access((process + "/exe").c_str(), X_OK) == 0 ? process + "/exe" : "netwarden", "-v"},
            kToolS));
    if (!daemon) {
        found.why_not += (found.why_not.empty() ? "" : "; ") + std::string("it does not run");
        return found;
    }
    found.text +=
        "arguments     " + joined(daemon->arguments) + "\n" +
        chosen_lines(process + "/status",
                     {"Pid:", "Uid:", "VmHWM:", "VmRSS:", "VmSwap:", "Threads:", "SigCgt:"});
    size_t descriptors = 0;
    if (const Directory folder(opendir((process + "/fd").c_str())); folder)
        while (const dirent *entry = readdir(folder.get()))
            descriptors += entry->d_name[0] != '.' ? 1 : 0;
    found.text += "descriptors   " + std::to_string(descriptors) + "\n";
    return found;
}

Finding look_at_service(const Subject &) {
    return of(run_tool({"systemctl", "show", "netwarden.service",
                        "--property=LoadState,UnitFileState,ActiveState,SubState,Result,"
                        "StatusText,NRestarts,ActiveEnterTimestamp,ExecMainStartTimestamp,"
                        "ExecMainCode,ExecMainStatus,MemoryCurrent,CPUUsageNSec,FragmentPath"},
                       kToolS));
}

Finding look_at_status(const Subject &subject) {
    constexpr double kRounds = 6;  // connection, three questions, two probes
    return of(run_apart([&] { return show_status(subject.options, subject.station); },
                        kToolS + kRounds * subject.options.timeout_or(3)));
}

Finding ask_doctor(const Subject &subject) {
    Finding found =
        of(run_apart([&] { return examine_machine(subject.options, subject.station); }, kDoctorS));
    if (found.why_not == ToolResult{ToolResult::failed, kRefused, "", false}.why())
        found.why_not.clear();  // it has told what is missing
    return found;
}

// Values that may be told. The store is open to the maker's other processes: what they keep there
// is not known here.
constexpr std::array kTold{
    kvs_key::kInterface, kvs_key::kIpConfig,     kvs_key::kAddrType,    kvs_key::kLastProvStatus,
    kvs_key::kRobotId,   kvs_key::kSku,          kvs_key::kRegdom,      kvs_key::kLanguage,
    kvs_key::kRobotName, kvs_key::kRobotTrained, kvs_key::kHopInterval, kvs_key::kWatchdogInterval,
};

std::vector<std::string> stored_keys() {
    static std::vector<std::string> keys;
    keys.clear();
    pex_kvs_foreach_key([](const char *key) {
        keys.emplace_back(key);
        return 0;
    });
    std::sort(keys.begin(), keys.end());
    return keys;
}

bool is_told(const std::string &key) {
    return std::find(kTold.begin(), kTold.end(), key) != kTold.end();
}

Finding look_at_store(const Subject &) {
    Finding found;
    if (!may_read_store())
        found.why_not = std::string("it cannot be read: ") + strerror(errno);
    found.data.reset(json_object());
    for (const std::string &key : stored_keys()) {
        const auto value = stored(key.c_str());
        const std::string shown = !value         ? "(empty, or not to be read)"
                                  : is_told(key) ? *value
                                                 : "******** (" + std::to_string(value->size()) +
                                                       (value->size() == 1 ? " byte)" : " bytes)");
        found.text.append(key).append(" = ").append(shown).append("\n");
        json_object_set_new(found.data.get(), printable(key).c_str(),
                            json_string(printable(shown).c_str()));
    }
    return found;
}

Finding look_for_decisions(const Subject &subject) {
    Finding found;
    found.why_not = subject.log.why_not;
    found.data.reset(json_array());
    auto decisions = decisions_in(subject.log.lines);
    if (decisions.size() > kMostDecisions) {
        found.why_not = std::to_string(decisions.size() - kMostDecisions) + " older ones are cut";
        decisions.erase(decisions.begin(), decisions.end() - kMostDecisions);
    }
    for (const Decision &each : decisions) {
        found.text += each.time + "  " + each.what + ": " + each.reason +
                      (each.times > 1 ? "; " + std::to_string(each.times) + " times, the last " +
                                            each.last_time
                                      : "") +
                      "\n";
        json_array_append_new(
            found.data.get(),
            json_pack("{s:s, s:s, s:s, s:i, s:s}", "time", printable(each.time).c_str(), "what",
                      each.what.c_str(), "reason", printable(each.reason).c_str(), "times",
                      each.times, "last_time", printable(each.last_time).c_str()));
    }
    if (decisions.empty() && found.why_not.empty())
        found.text = "none since " + subject.log.lines[0].substr(0, 24) + "\n";
    return found;
}

Finding look_at_log(const Subject &subject) {
    Finding found;
    found.why_not = subject.log.why_not;
    const auto &lines = subject.log.lines;
    size_t first = lines.size();
    for (size_t bytes = 0; first > 0 && lines.size() - first < kLogLines; first--)
        if ((bytes += lines[first - 1].size() + 1) > kLargestPart / 2)
            break;
    if (!lines.empty())
        found.text = "-- the last " + std::to_string(lines.size() - first) + " lines of " +
                     std::to_string(lines.size()) + " (" + subject.log.from + ")\n";
    for (size_t i = first; i < lines.size(); i++)
        found.text += lines[i] + "\n";
    return found;
}

Finding look_at_supplicant(const Subject &subject) {
    const auto ask = [&](const char *what) {
        std::vector<std::string> command{"wpa_cli", "-i" + subject.station, what};
        if (geteuid() != 0)
            command.insert(command.begin(), {"sudo", "-n"});
        return command;
    };
    Finding found = of_tools({ask("status"), ask("signal_poll")});
    const auto file = read_text_file(kSupplicantFile);
    found.text += std::string("-- ") + kSupplicantFile + "\n" + file.value_or("");
    if (!file)
        found.why_not += (found.why_not.empty() ? "" : "; ") + std::string(kSupplicantFile) + ": " +
                         strerror(errno);
    return found;
}

Finding look_at_kernel(const Subject &subject) {
    Finding found = of_tools({{"iw", "dev", subject.station, "link"},
                              {"iw", "dev"},
                              {"iw", "reg", "get"},
                              {"ip", "addr"},
                              {"ip", "route"},
                              {"ip", "neigh"}});
    for (const char *path :
         {"/etc/resolv.conf", "/proc/net/wireless", "/proc/net/dev", "/proc/net/sockstat"})
        found.text += std::string("-- ") + path + "\n" + read_text_file(path).value_or("(none)\n");
    constexpr size_t kRing = 4 << 20;
    ToolResult ring = run_tool({"dmesg"}, kToolS, kRing);
    ring.output = last_lines(ring.whole_lines(), kKernelLines);
    add(found, "dmesg", ring);
    return found;
}

Finding capture(const Subject &) {
    if (access(kCaptureScript, X_OK) != 0)
        return {"", std::string(kCaptureScript) + ": " + strerror(errno), nullptr};
    return of(run_tool({kCaptureScript}, kCaptureS, kLargestPart));
}

// What the daemon has kept of the last provisioning that failed. /tmp is everybody's.
Finding read_failure(const Subject &) {
    struct stat info = {};
    if (lstat(kFailureFile, &info) != 0)
        return {"", "none has failed since the start", nullptr};
    if (!S_ISREG(info.st_mode))
        return {"", std::string(kFailureFile) + " is no file", nullptr};
    const std::string command = std::string("base64 -d ") + kFailureFile + " | gzip -dc";
    Finding found = of(run_tool({"sh", "-c", command}, kToolS, kLargestPart));
    found.text = "-- written " + utc(info.st_mtime) + "\n" + found.text;
    return found;
}

struct Part {
    const char *name;
    const char *title;
    Finding (*look)(const Subject &subject);
};
constexpr std::array kParts{
    Part{"machine", "The machine", look_at_machine},
    Part{"netwarden", "The daemon", look_at_daemon},
    Part{"service", "Its service", look_at_service},
    Part{"status", "Status", look_at_status},
    Part{"doctor", "What the doctor says", ask_doctor},
    Part{"decisions", "The watchdog's decisions", look_for_decisions},
    Part{"store", "The settings store", look_at_store},
    Part{"log", "The daemon's log", look_at_log},
    Part{"supplicant", "The supplicant", look_at_supplicant},
    Part{"kernel", "The kernel", look_at_kernel},
    Part{"capture", "The Wi-Fi capture", capture},
    Part{"failed-provisioning", "The capture of the last provisioning that failed", read_failure},
};

// --- all of them ---------------------------------------------------------------------------------

bool sounds_secret(const std::string &key) {
    for (const char *sign : {"pass", "key", "secret", "token", "psk", "cert", "auth"})
        if (key.find(sign) != key.npos)
            return true;
    return false;
}

Privacy know_secrets() {
    Privacy privacy;
    privacy.hide(broker_settings().password);
    for (const std::string &key : stored_keys())
        if (const auto value = is_told(key) ? std::nullopt : stored(key.c_str())) {
            if (key == kvs_key::kSsid)
                privacy.hide(from_hex(*value).value_or(*value));
            else if (sounds_secret(key))
                privacy.hide(*value);
        }
    privacy.hide_those_of(read_text_file(kSupplicantFile).value_or(""));
    return privacy;
}

std::string written(const Part &part, const Finding &found, bool json) {
    if (json) {
        const Json line(json_pack(
            "{s:s, s:s, s:o, s:O?}", "part", part.name, "text", found.text.c_str(), "missing",
            found.why_not.empty() ? json_null() : json_string(found.why_not.c_str()), "data",
            found.data.get()));
        return compact(line.get()) + "\n";
    }
    return std::string("\n==== ") + part.title + "\n" + found.text +
           (found.why_not.empty() ? "" : "(missing: " + found.why_not + ")\n");
}

// Its texts, a line each.
void clean_texts(Privacy &privacy, json_t *data) {
    const char *key;
    json_t *member;
    size_t index;
    if (json_is_string(data)) {
        json_string_set(data, privacy.clean_line(json_string_value(data)).c_str());
    }
    json_object_foreach(data, key, member) clean_texts(privacy, member);
    json_array_foreach(data, index, member) clean_texts(privacy, member);
}

std::string collect(const Options &options, const std::string &station) {
    Privacy privacy = know_secrets();
    const Subject subject{{options.timeout_s, false}, station, read_daemon_log()};
    const std::string time = utc(::time(nullptr));
    std::string report;
    if (options.json) {
        const Json head(json_pack("{s:i, s:s, s:s, s:s}", "report", 1, "time", time.c_str(),
                                  "netwardenctl", NETWARDENCTL_VERSION, "interface",
                                  printable(station).c_str()));
        report = compact(head.get()) + "\n";
    } else {
        report = "Report of netwardenctl " NETWARDENCTL_VERSION ", " + time + ", interface " +
                 printable(station) +
                 "\nPasswords, names of networks and hardware addresses are masked; the same "
                 "address has the same\nname throughout.\n";
    }
    for (const Part &part : kParts) {
        Finding found = part.look(subject);
        found.text = first_lines(privacy.clean(first_lines(found.text)));
        found.why_not = privacy.clean_line(found.why_not);
        clean_texts(privacy, found.data.get());
        report += written(part, found, options.json);
    }
    return report;
}

// A new file that only we may read.
class ReportFile {
  public:
    explicit ReportFile(const std::string &path)
        : path_(path), fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
        if (!fd_)
            throw Failure(kNotWritten, "cannot make " + printable(path) + ": " + strerror(errno));
    }
    ReportFile(const ReportFile &) = delete;
    ReportFile &operator=(const ReportFile &) = delete;
    ~ReportFile() {
        if (fd_)
            unlink(path_.c_str());
    }
    void write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t done = ::write(fd_.get(), text.data(), text.size());
            if (done < 0)
                throw Failure(kNotWritten,
                              "cannot write " + printable(path_) + ": " + strerror(errno));
            text.remove_prefix(static_cast<size_t>(done));
        }
        if (fsync(fd_.get()) != 0 && errno != EINVAL)
            throw Failure(kNotWritten, "cannot write " + printable(path_) + ": " + strerror(errno));
        fd_.reset();
    }

  private:
    std::string path_;
    Fd fd_;
};

// "netwarden-report-20261124T021128Z.txt".
std::string default_name(bool json) {
    std::string stamp = utc(time(nullptr));
    std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
    return "netwarden-report-" + stamp + (json ? ".json" : ".txt");
}

}  // namespace

int report(const Options &options, const std::string &asked_path, const std::string &interface) {
    if (!is_broker_local())
        throw Failure(kUsage, "a report is made on the robot itself");
    const std::string station = station_interface(interface);
    if (asked_path == "-") {
        fputs(collect(options, station).c_str(), stdout);
        flush_output();
        return kDone;
    }
    const std::string path = asked_path.empty() ? default_name(options.json) : asked_path;
    ReportFile file(path);
    if (geteuid() != 0)
        notice("not everything can be read; run this as root");
    file.write(collect(options, station));
    Printer(options.json).step("report", printable(path));
    return kDone;
}

}  // namespace ctl
