// What lies in files and in the environment: of the system, of the radio, of the robot's maker.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "border.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "wifi_connect.h"
#include "wifi_control.h"
#include "wifi_regdom_utils.h"
#include "wifi_settings.h"

FUZZ(name_servers) {
    border::write_file("/etc/resolv.conf", text);
    constexpr uint32_t kBefore = 0xdddddddd;
    std::array<uint32_t, 3> servers{0, 0, kBefore};
    const int result = pex_net_get_nameservers(servers.data(), 2);
    require((result == 0 || result == -1) && servers[2] == kBefore);
    for (const uint32_t server : {servers[0], servers[1]}) {
        std::array<char, INET_ADDRSTRLEN> dotted{};
        inet_ntop(AF_INET, &server, dotted.data(), dotted.size());
        require(server == 0 || text.find(dotted.data()) != text.npos);
    }
    require(servers[0] == 0 || text.find("nameserver") != text.npos);
}

// A signal to the wrong number ends a whole group of processes.
FUZZ(dhcp_client_pid) {
    border::write_file("/run/udhcpc.wlan0.pid", text);
    const int result = wifi_renew_dhcp_lease();
    const int process = border::signalled();
    require(result == 0 ? process >= 2 : result == -1 && process == 0);
    // What stands behind a zero byte counts as one with what is before it.
    require(process == 0 || has(text, std::to_string(process)) || has(text, {"", 1}));
}

FUZZ(radio_nv_file) {
    constexpr char kFile[] = "/tmp/persist/WCNSS_qcom_wlan_nv.bin";
    constexpr char kBackup[] = "/tmp/persist/WCNSS_qcom_wlan_nv.bin.bak";
    constexpr std::string_view kPattern{"\3BRI"};
    unlink(kBackup);
    border::write_file(kFile, text);
    const int result = wifi_regdom_utils_patch_nv_file();
    std::string wanted(text);
    for (size_t at = 0; (at = wanted.find(kPattern, at)) != wanted.npos;)
        wanted.replace(at + 1, 2, "00");
    require(border::read_file(kFile) == wanted);
    require(result == (wanted != text ? 0 : -1));
    require(border::read_file(kBackup).size() == (result == 0 ? text.size() : 0));
}

namespace {

// A line that the daemon writes into the supplicant's file: what comes from outside is hexadecimal.
bool is_config_line(std::string_view line) {
    for (const std::string_view key : {"\tssid=", "\tpsk=", "\twep_key0="})
        if (line.starts_with(key))
            return line.size() > key.size() && is_made_of(line.substr(key.size()), kHexDigits);
    for (const std::string_view known :
         {"network={", "}", "\tkey_mgmt=NONE", "\tscan_ssid=1", "\tpriority=1", "\tpriority=2",
          "\twep_tx_keyidx=0", "eapol_version=1", "fast_reauth=1", "ap_scan=1", "filter_ssids=1",
          "ctrl_interface=/var/run/wpa_supplicant", "ctrl_interface_group=apps"})
        if (line == known)
            return true;
    return false;
}

}  // namespace

// The first line is the SSID as the app sends it, the second the secret.
FUZZ(supplicant_config) {
    constexpr size_t kLongest = 1023;
    const std::string ssid = take_line(text).c_str();
    const std::string secret = take_line(text).c_str();
    wifictl_set_ssid(ssid.empty() ? "00" : ssid.c_str());
    wifictl_set_pass(secret.c_str());
    int32_t error = -1;
    wifi_network_connect(&error, 0);
    const std::string config = border::read_file("/etc/wpa_supplicant.conf");
    require(!config.empty() && config.size() <= kLongest);
    std::string_view rest = config;
    while (!rest.empty()) {
        const bool is_cut = config.size() == kLongest && rest.find('\n') == rest.npos;
        require(is_config_line(take_line(rest)) || is_cut);
    }
    // A long key that is not the SSID's own text, which may be logged.
    const MallocText name(hex_decode_str_malloc(ssid.c_str()));
    require(secret.size() < 10 || !is_made_of(secret, kHexDigits) || has(ssid, secret) ||
            (name && has(name.get(), secret)) || !has(border::read_file("/tmp/log"), secret));
}

FUZZ(broker_address) {
    // Changed in place: setenv keeps every value that there ever was.
    static std::array<char, 4096 + 32> variable{"MQTT_APP_BROKER="};
    static const size_t start = strlen(variable.data());
    [[maybe_unused]] static const int put = putenv(variable.data());
    variable[start + text.copy(&variable[start], variable.size() - start - 1)] = '\0';
    const std::string_view given = &variable[start];
    const char *const topics[] = {"robot/debug", nullptr};
    mqtt_app *const app = mqtt_app_create("fuzz");
    const int result = mqtt_app_init(app, topics, [](auto...) {});
    require(result < 0 || given.empty() || given.starts_with("unix:/") || given.rfind(':') > 0);
    require(result == 0 || !given.empty());
    mqtt_app_exit(app);
}
