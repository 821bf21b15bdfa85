#include "wifi_control.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "kvs_keys.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "wifi_command.h"
#include "wifi_settings.h"
#include "wifi_state.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/wifi_control"

namespace {

constexpr char kModule[] = "netwarden";
constexpr char kMonitorInterface[] = "mon0";
constexpr char kStationListInterface[] = "p2p0";
constexpr char kProvisionLock[] = "/tmp/provision.lock";
constexpr char kDhcpPidFile[] = "/var/run/udhcpc.wlan0.pid";  // whatever the station's name
constexpr char kRunNetworkDir[] = "/run/ifstate";
constexpr size_t kCommandSize = 256;  // a command line with its terminator

}  // namespace

void wifi_iface_control(wifi_iface_kind kind, int add) {
    const std::string command = pex_format(
        "sudo network_device_interfaces_control.sh --interface=%s --action=%s",
        kind == wifi_iface_kind::monitor ? "monitor" : "softap", add != 0 ? "add" : "del");
    LOGI("iface control: %s", command.c_str());
    wifi_system_command(command.c_str());
}

// --- soft AP -------------------------------------------------------------------------------------

namespace {

// The scripts and the driver need the second, whatever the script's result.
void control_and_settle(wifi_iface_kind kind, bool add) {
    wifi_iface_control(kind, add ? 1 : 0);
    sleep(1);
}

// The soft AP's name: "Plover-" and the first four characters of the robot id.
std::string soft_ap_name(const char *robot_id) {
    std::array<char, 33> name;  // IEEE 802.11: at most 32 bytes
    if (snprintf(name.data(), name.size(), "%s-%.4s", "Plover", robot_id) >=
        static_cast<int>(name.size()))
        LOGW("softAp ssid truncated");
    return name.data();
}

void configure_soft_ap(int16_t channel, const char *mode) {
    const MallocText robot_id(pex_kvs_get_key_str_malloc(kvs_key::kRobotId));
    if (!robot_id) {
        LOGE("Error reading robot_id");
        return;
    }
    const std::string command =
        pex_format("sudo provision --apssid %s --apchan %d --aphwmode %s \n",
                   soft_ap_name(robot_id.get()).c_str(), channel, mode);
    LOGI("cmd = %s", command.c_str());
    LOGD("\nCalling pex_system(%s) now...", command.c_str());
    pex_system(kModule, command.c_str(), nullptr);
}

// "sudo ifdown" or "sudo ifup" for the soft AP's interface.
int switch_soft_ap(const char *verb) {
    const char *const ifname = wifi_get_uap_interface();
    const size_t size = strlen(verb) + 1 + strlen(ifname) + 1;
    const MallocText command(static_cast<char *>(malloc(size)));
    if (!command) {
        LOGE("%s", "out of memory");
        return -1;
    }
    snprintf(command.get(), size, "%s %s", verb, ifname);
    return wifi_command_logged(command.get());
}

}  // namespace

int wifi_configure_and_start_uap(int16_t channel, const char *mode) {
    control_and_settle(wifi_iface_kind::monitor, false);
    control_and_settle(wifi_iface_kind::soft_ap, true);
    configure_soft_ap(channel, mode);
    if (wifi_command_failed(switch_soft_ap("sudo ifdown")) ||
        wifi_command_failed(switch_soft_ap("sudo ifup")))
        return -1;
    wifi_state_set_uap(1);
    LOGI("SoftAP is up");
    return 0;
}

int wifi_stop_uap() {
    const int result = wifi_command_failed(switch_soft_ap("sudo ifdown")) ? -1 : 0;
    if (result == 0) {
        wifi_state_set_uap(0);
        LOGI("SoftAP is down");
    }
    control_and_settle(wifi_iface_kind::soft_ap, false);
    return result;
}

// --- monitor mode --------------------------------------------------------------------------------

int wifi_start_monitor_mode() {
    control_and_settle(wifi_iface_kind::soft_ap, false);
    control_and_settle(wifi_iface_kind::monitor, true);
    wifi_interface_down(kMonitorInterface);
    sleep(1);
    return wifi_command_failed(wifi_interface_up(kMonitorInterface)) ? -1 : 0;
}

void wifi_stop_monitor_mode() {
    wifi_interface_down(kMonitorInterface);
    control_and_settle(wifi_iface_kind::monitor, false);
}

int wifi_enable_noarp_mode(int flag) {
    const std::string command =
        pex_format("sudo network_dhcp_arp_control.sh %s", flag != 0 ? "enable" : "disable");
    LOGD("\nCalling pex_system(%s) now...", command.c_str());
    return pex_system(kModule, command.c_str(), nullptr);
}

// --- IP configuration and DHCP -------------------------------------------------------------------

namespace {

// The pending, else the saved line, which goes to a shell as it stands: what came from the network
// was checked when it arrived. Null when there is none.
std::optional<std::string> ip_config_line() {
    std::string pending = wifictl_copy_pending().ip_config;
    if (!pending.empty())
        return pending;
    const MallocText saved(pex_kvs_get_key_str_at_last_malloc(kvs_key::kIpConfig));
    if (!saved)
        return std::nullopt;
    return saved.get();
}

}  // namespace

int wifi_set_provision_ip_config() {
    const StationOperation operation;
    const auto command = ip_config_line();
    if (!command) {
        LOGW("no IP config saved");
        return -1;
    }
    const Fd lock = pex_open_regular_file(kProvisionLock, O_WRONLY | O_CREAT, 0600);
    if (!lock) {
        LOGE("error opening %s", kProvisionLock);
        return -1;
    }
    if (const int error = get_file_lock(lock.get()); error != 0)
        LOGW("error (%d) getting file lock", error);
    const auto result = static_cast<int8_t>(wifi_system_command(command->c_str()));
    if (result != 0)
        LOGE("wifi_system_command failed");
    if (const int error = release_file_lock(lock.get()); error != 0)
        LOGE("error (%d) releasing file lock", error);
    return result;
}

namespace {

// 0 for a text that names no single process: kill would take 0 and -1 for whole groups, and
// nothing the robot starts is process 1.
pid_t parse_pid(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    const bool valid = end != text && errno != ERANGE && value >= 2 && value <= INT_MAX;
    return valid ? static_cast<pid_t>(value) : 0;
}

}  // namespace

int wifi_renew_dhcp_lease() {
    const File stream(fopen(kDhcpPidFile, "re"));
    if (!stream) {
        LOGE("fopen failed");
        return -1;
    }
    size_t length = 0;
    const MallocText text(pex_read_terminated_stream(stream.get(), &length));
    if (!text) {
        LOGE("failed to read PID from %s", "filename");  // names no path: tools match on it
        return -1;
    }
    const pid_t pid = parse_pid(text.get());
    if (pid == 0) {
        LOGE("strtol() error");
        return -1;
    }
    if (kill(pid, NETWARDEN_DHCP_RENEW_SIGNAL) != 0) {
        LOGE("kill failed with errno %d", errno);
        return -1;
    }
    return 0;
}

// --- station interface and start-up checks -------------------------------------------------------

int wifi_sta_iface_down() {
    const int result =
        wifi_system_command(pex_format("%s %s", "sudo ifdown", wifi_get_sta_interface()).c_str());
    if (wifi_command_failed(result)) {
        LOGE("wifi_system_command falied");  // misspelt for ever: tools match on it
        return result;
    }
    wifi_link_set_stopped();
    return result;
}

int wifi_check_sta_iface_available() {
    const char *const ifname = wifi_get_sta_interface();
    const std::string command = pex_format("ifconfig %s | grep HWaddr", ifname);
    if (command.size() >= kCommandSize) {
        LOGE("snprintf error");
        return -1;
    }
    const Pipe pipe(command.c_str());
    if (!pipe) {
        LOGE("popen failed");
        return -1;
    }
    std::array<char, 256> line{};
    if (!pex_read_line(pipe.get(), line)) {
        LOGE("ifconfig cmd returned no output");
        return -1;
    }
    const char *const found = strstr(line.data(), "HWaddr");
    if (found == nullptr) {
        LOGE("Failed to get %s HW address", ifname);
        return -1;
    }
    LOGI("found %s iface: %s", ifname, found);
    return 0;
}

int wifi_check_run_network_dir() {
    if (access(kRunNetworkDir, F_OK) == 0)
        return 0;
    LOGE("failed to access %s", kRunNetworkDir);
    return -1;
}

// --- stations of the soft AP ---------------------------------------------------------------------

namespace {

using StationAddress = std::array<uint32_t, 6>;

// Six hexadecimal numbers separated by colons begin the line; what follows does not matter.
bool parse_address(const char *line, StationAddress &address) {
    return sscanf(line, "%x:%x:%x:%x:%x:%x", &address[0], &address[1], &address[2], &address[3],
                  &address[4], &address[5]) == 6;
}

bool find_station(FILE *listing, std::span<char> room, StationAddress &address) {
    const char *const line = room.data();
    while (pex_read_line(listing, room)) {
        if (parse_address(line, address)) {
            LOGD("found STA - %s", line);
            return true;
        }
        LOGD("all_sta line buffer = %s", line);
    }
    return false;
}

}  // namespace

int wifi_get_associated_station_status(void *out, size_t size) {
    constexpr size_t kLineSize = 100;
    WifiCommandLock lock;
    const MallocText line(static_cast<char *>(malloc(kLineSize)));
    if (!line) {
        LOGD("malloc failed");
        lock.keep();  // meant, here and below: no command runs on a robot that is out of resources
        return 0;
    }
    const std::string command =
        pex_format("%s -i%s %s\n", "sudo hostapd_cli", kStationListInterface, "all_sta");
    const Pipe listing(command.c_str());
    if (!listing) {
        LOGD("Failed to run command %s", command.c_str());
        lock.keep();
        return 0;
    }
    StationAddress address{};
    if (!find_station(listing.get(), {line.get(), kLineSize}, address))
        return 0;
    memcpy(out, address.data(), std::min(size, sizeof address));
    return 1;
}

// The listing asks p2p0 and this the soft AP's interface, on purpose: so the driver names them.
int wifi_disassociate_uap_station(const uint32_t address[6]) {
    return wifi_command_logged(pex_format("%s -i%s disassociate %02x:%02x:%02x:%02x:%02x:%02x\n",
                                          "sudo hostapd_cli", wifi_get_uap_interface(), address[0],
                                          address[1], address[2], address[3], address[4],
                                          address[5]));
}

int wifi_get_signal_levels(int is_connected, int8_t *signal, int8_t *snr, int8_t *noise) {
    return pex_net_get_signal_levels(wifi_get_sta_interface(), is_connected, signal, snr, noise);
}
