#include "machine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string_view>

#include "broker.h"
#include "log.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "text.h"
#include "waiting.h"

namespace ctl {

namespace fs = std::filesystem;

// --- tools ---------------------------------------------------------------------------------------

namespace {

struct Actions {
    Actions() { posix_spawn_file_actions_init(&all); }
    Actions(const Actions &) = delete;
    Actions &operator=(const Actions &) = delete;
    ~Actions() { posix_spawn_file_actions_destroy(&all); }
    posix_spawn_file_actions_t all;
};

// A group of its own, and signals as a shell gives them.
struct Attributes {
    Attributes() {
        posix_spawnattr_init(&all);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&all, &none);
        posix_spawnattr_setpgroup(&all, 0);
        posix_spawnattr_setflags(&all, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    }
    Attributes(const Attributes &) = delete;
    Attributes &operator=(const Attributes &) = delete;
    ~Attributes() { posix_spawnattr_destroy(&all); }
    posix_spawnattr_t all;
};

pid_t spawn(const std::vector<std::string> &command, int output) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    Actions actions;
    posix_spawn_file_actions_addopen(&actions.all, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions.all, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions.all, output, STDERR_FILENO);
    const Attributes attributes;
    pid_t child = -1;
    return posix_spawnp(&child, arguments[0], &actions.all, &attributes.all, arguments.data(),
                        environ) == 0
               ? child
               : -1;
}

// Reads until the tool and its children have closed it, or there is enough, or the deadline.
bool read_output(int fd, Deadline end, size_t largest, ToolResult &result) {
    std::array<char, 4096> piece;
    while (wait_readable(fd, end)) {
        const ssize_t length = read(fd, piece.data(), piece.size());
        if (length <= 0)
            return true;
        result.output.append(piece.data(), static_cast<size_t>(length));
        if (result.output.size() > largest) {
            result.output.resize(largest);
            result.cut = true;
            return true;
        }
    }
    return false;
}

}  // namespace

std::string ToolResult::why() const {
    switch (end) {
        case done:
            return "";
        case failed:
            return "exit code " + std::to_string(code);
        case killed:
            return "ended by signal " + std::to_string(code);
        case too_slow:
            return "no end within its time";
        case not_run:
            return "not found, or cannot be run";
    }
    return "";
}

std::string ToolResult::whole_lines() const {
    return cut || end == too_slow ? output.substr(0, output.rfind('\n') + 1) : output;
}

namespace {

// The process's outcome when it has closed `fd`, or has been ended: first asked to, for it may have
// started others.
ToolResult await(pid_t child, int fd, double limit_s, size_t largest) {
    ToolResult result;
    const auto end_all = [child] {
        constexpr int kPauses = 100;
        constexpr useconds_t kPauseUs = 10'000;
        int status = 0;
        kill(-child, SIGTERM);
        for (int i = 0; i < kPauses; i++) {
            if (waitpid(child, &status, WNOHANG) == child) {
                kill(-child, SIGKILL);
                return status;
            }
            usleep(kPauseUs);
        }
        kill(-child, SIGKILL);
        waitpid(child, &status, 0);
        return status;
    };
    bool in_time = false;
    try {
        in_time = read_output(fd, deadline_after(limit_s), largest, result);
    } catch (...) {
        end_all();
        throw;
    }
    int status = 0;
    if (!in_time || result.cut)
        status = end_all();
    else
        waitpid(child, &status, 0);
    if (!in_time)
        result.end = ToolResult::too_slow;
    else if (result.cut)
        result.end = ToolResult::done;
    else if (WIFSIGNALED(status)) {
        result.end = ToolResult::killed;
        result.code = WTERMSIG(status);
    } else {
        result.code = WEXITSTATUS(status);
        result.end = result.code == 0 ? ToolResult::done : ToolResult::failed;
    }
    return result;
}

// In the child: what it says goes to the pipe, and how it ends is its exit code.
[[noreturn]] void be_a_tool(const std::function<int()> &work, int output) {
    setpgid(0, 0);
    const Fd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    dup2(nothing.get(), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    speak_json(false);
    int code = kRefused;
    try {
        code = work();
    } catch (const Failure &failure) {
        fflush(stdout);
        code = complain(failure.code, failure.what());
    } catch (...) {
        code = kRefused;
    }
    fflush(stdout);
    _exit(code);
}

}  // namespace

ToolResult run_tool(const std::vector<std::string> &command, double limit_s, size_t largest) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {};
    const Fd in(ends[0]);
    Fd out(ends[1]);
    const pid_t child = spawn(command, out.get());
    out.reset();
    return child < 0 ? ToolResult() : await(child, in.get(), limit_s, largest);
}

ToolResult run_apart(const std::function<int()> &work, double limit_s, size_t largest) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {};
    const Fd in(ends[0]);
    Fd out(ends[1]);
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
        be_a_tool(work, out.get());
    out.reset();
    if (child < 0)
        return {};
    setpgid(child, child);
    return await(child, in.get(), limit_s, largest);
}

std::optional<std::string> find_in_path(const std::string &tool) {
    if (tool.find('/') != tool.npos)
        return access(tool.c_str(), X_OK) == 0 ? std::optional(tool) : std::nullopt;
    const char *const path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string file = fs::path(folder) / tool;
        if (access(file.c_str(), X_OK) == 0 && fs::is_regular_file(file))
            return file;
    }
    return std::nullopt;
}

std::optional<std::string> read_text_file(const std::string &path, size_t largest) {
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
        return std::nullopt;
    std::string text(largest, '\0');
    size_t used = 0;
    while (used < largest) {
        const ssize_t length = read(file.get(), text.data() + used, largest - used);
        if (length < 0)
            return std::nullopt;
        if (length == 0)
            break;
        used += static_cast<size_t>(length);
    }
    text.resize(used);
    return text;
}

// --- the daemon and its interface ----------------------------------------------------------------

namespace {

std::vector<std::string> arguments_of(const std::string &process) {
    std::vector<std::string> words;
    std::istringstream text(read_text_file("/proc/" + process + "/cmdline").value_or(""));
    for (std::string word; std::getline(text, word, '\0');)
        words.push_back(word);
    return words;
}

std::optional<std::string> path_among(const std::string &words, char separator) {
    constexpr std::string_view kName = "PATH=";
    std::istringstream text(words);
    for (std::string word; std::getline(text, word, separator);)
        if (word.starts_with(kName))
            return word.substr(kName.size());
    return std::nullopt;
}

}  // namespace

std::optional<std::string> daemon_path(const std::optional<Daemon> &daemon) {
    if (daemon) {
        const std::string process = "/proc/" + std::to_string(daemon->process);
        struct stat info = {};
        if (stat(process.c_str(), &info) == 0 && (info.st_uid == 0 || info.st_uid == geteuid()))
            if (const auto text = read_text_file(process + "/environ"))
                return path_among(*text, '\0');
    }
    const ToolResult service =
        run_tool({"systemctl", "show", "--property=Environment", "--value", "netwarden.service"});
    return service.ok() ? path_among(service.output.substr(0, service.output.find('\n')), ' ')
                        : std::nullopt;
}

std::optional<Daemon> find_daemon() {
    std::optional<Daemon> found;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        pid_t process = 0;
        const auto [rest, failure] =
            std::from_chars(name.data(), name.data() + name.size(), process);
        if (failure != std::errc() || rest != name.data() + name.size())
            continue;
        auto arguments = arguments_of(name);
        if (!arguments.empty() && fs::path(arguments[0]).filename() == "netwarden" &&
            (!found || process < found->process))
            found = Daemon{process, std::move(arguments)};
    }
    return found;
}

std::string station_interface(const std::string &asked) {
    if (!asked.empty())
        return asked;
    if (const auto daemon = find_daemon())
        for (size_t i = 1; i + 1 < daemon->arguments.size(); i++)
            if (daemon->arguments[i] == "--if_sta")
                return daemon->arguments[i + 1];
    return "wlan0";
}

std::vector<std::string> interface_names() {
    struct Releaser {
        void operator()(struct if_nameindex *list) const { if_freenameindex(list); }
    };
    const std::unique_ptr<struct if_nameindex, Releaser> list(if_nameindex());
    std::vector<std::string> names;
    for (const auto *each = list.get(); each != nullptr && each->if_index != 0; each++)
        names.emplace_back(each->if_name);
    return names;
}

bool is_interface(const std::string &name) {
    return if_nametoindex(name.c_str()) != 0;
}

bool is_broker_local() {
    const std::string &address = broker_settings().address;
    if (address.starts_with("unix:"))
        return true;
    const std::string host = address.substr(0, address.rfind(':'));
    return host == "localhost" || host == "[::1]" || host.starts_with("127.");
}

// --- link ----------------------------------------------------------------------------------------

int Link::channel() const {
    if (frequency == 2484)
        return 14;
    if (frequency >= 2412 && frequency <= 2472)
        return (frequency - 2407) / 5;
    return frequency >= 5180 && frequency <= 5885 ? (frequency - 5000) / 5 : 0;
}

std::optional<Link> read_link(const std::string &interface) {
    const ToolResult iw = run_tool({"iw", "dev", interface, "link"});
    if (!iw.ok())
        throw Failure(kRefused, "iw does not tell the link of " + printable(interface) + ": " +
                                    (iw.output.empty()
                                         ? iw.why()
                                         : printable(iw.output.substr(0, iw.output.find('\n')))));
    // "Connected to 02:00:00:00:02:00 (on wlan0)", then "\tSSID: Home" and the like.
    Link link;
    std::istringstream lines(iw.output);
    for (std::string line; std::getline(lines, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        const size_t colon = line.find(": ");
        const std::string value = colon != line.npos ? line.substr(colon + 2) : "";
        if (line.starts_with("Connected to "))
            link.bssid = line.substr(13, 17);
        else if (line.starts_with("SSID: "))
            link.ssid = value;
        else if (line.starts_with("freq: "))
            link.frequency = atoi(value.c_str());
        else if (line.starts_with("signal: "))
            link.signal = atoi(value.c_str());
    }
    return link.bssid.empty() ? std::nullopt : std::optional(link);
}

// --- addresses -----------------------------------------------------------------------------------

namespace {

std::string dotted(uint32_t address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

// Whether the kernel has the gateway's hardware address: "ADDRESS 0x1 0x2 MAC * wlan0".
bool is_in_arp_table(const std::string &address, const std::string &interface) {
    std::istringstream lines(read_text_file("/proc/net/arp").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string ip, type, flags, mac, mask, device;
        words >> ip >> type >> flags >> mac >> mask >> device;
        if (ip == address && device == interface)
            return (strtoul(flags.c_str(), nullptr, 16) & 0x2) != 0;  // ATF_COM
    }
    return false;
}

// Makes the kernel ask for the gateway. The datagram goes to the port for what is thrown away.
void nudge(uint32_t address) {
    constexpr uint16_t kDiscard = 9;
    const Fd out(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in to{AF_INET, htons(kDiscard), {address}, {}};
    sendto(out.get(), "", 0, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

bool answers_arp(uint32_t gateway, const std::string &interface) {
    constexpr int kTries = 10;
    const std::string address = dotted(gateway);
    nudge(gateway);
    for (int i = 0; i < kTries; i++) {
        if (is_in_arp_table(address, interface))
            return true;
        constexpr int kPauseMs = 100;
        poll(nullptr, 0, kPauseMs);
    }
    return false;
}

}  // namespace

Addresses read_addresses(const std::string &interface) {
    Addresses found;
    uint32_t address = 0;
    uint32_t mask = 0;
    if (pex_net_get_ip(interface.c_str(), &address) != 0 || address == 0)
        return found;
    pex_net_get_subnet_mask(interface.c_str(), &mask);
    found.address = dotted(address);
    found.prefix = std::popcount(mask);
    if (const uint32_t gateway = pex_net_get_gatewayip(nullptr, 0); gateway != 0) {
        found.gateway = dotted(gateway);
        found.gateway_answers = answers_arp(gateway, interface);
    }
    return found;
}

// --- store ---------------------------------------------------------------------------------------

std::optional<std::string> stored(const char *key) {
    const MallocText value(pex_kvs_get_key_str_malloc(key));
    return value ? std::optional<std::string>(value.get()) : std::nullopt;
}

bool may_read_store() {
    const MallocText any(create_fname_malloc("x"));
    const fs::path folder = fs::path(any ? any.get() : "").parent_path();
    return access(folder.c_str(), R_OK | X_OK) == 0;
}

}  // namespace ctl
