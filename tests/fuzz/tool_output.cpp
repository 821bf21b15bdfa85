// What tools print: the supplicant's and the access point's command-line clients, arping, iw and
// the robot's scripts.
#include <linux/if_ether.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <thread>

#include "../support/clock.h"
#include "border.h"
#include "device_probe.h"
#include "device_tracking.h"
#include "gateway_ping.h"
#include "home_device_list.h"
#include "mdns_device_discover.h"
#include "owned.h"
#include "pex_net.h"
#include "pex_product_version_string.h"
#include "pthread_utils.h"
#include "supplicant_status.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_regdom_utils.h"
#include "wifi_status.h"

namespace {

bool is_security(uint8_t value) {
    for (const security_type *row = security_types; row->name != nullptr; row++)
        if (row->value == value)
            return true;
    return value == kSecurityUnknown;
}

}  // namespace

FUZZ(link_status) {
    constexpr int16_t kBefore = -7;
    wifi_init_netinfo();
    wifi_set_sta_channel(kBefore);
    border::tools_print(text);
    wifi_refresh_link_status();
    const int channel = wifi_get_sta_channel();
    require(channel == kBefore || (channel >= 0 && channel <= 14) ||
            (channel >= 36 && channel <= 165));
    netinfo info;
    wifi_get_netinfo(&info);
    require(is_security(info.sec));
    // What no line tells stays as it was.
    const uint8_t none[sizeof info.bssid]{};
    require(has(text, "bssid=") || memcmp(info.bssid, none, sizeof none) == 0);
    require(has(text, "freq=") || channel == kBefore);
}

// A security type is looked for by this text, and the passphrase's kind is decided by it.
FUZZ(key_management) {
    border::tools_print(text);
    const MallocText protocol(get_key_mgmt_protocol());
    if (!protocol)
        return;
    const std::string_view found = protocol.get();
    require(!found.empty() && found.size() < 255 && text.starts_with(found));
    require(found.find('\n') == found.npos);
}

FUZZ(soft_ap_stations) {
    constexpr uint32_t kBefore = 0xdddddddd;
    std::array<uint32_t, 8> out;
    out.fill(kBefore);
    border::tools_print(text);
    const int found = wifi_get_associated_station_status(out.data(), 6 * sizeof(uint32_t));
    require(found == 0 || (found == 1 && std::count(text.begin(), text.end(), ':') >= 5));
    require(std::all_of(out.begin() + (found != 0 ? 6 : 0), out.end(),
                        [](uint32_t word) { return word == kBefore; }));
}

FUZZ(arping_of_gateway) {
    border::tools_print(text);
    const int answered = gateway_pinger_arping_once("arping");
    require(answered == 0 || (answered == 1 && has(text, "Unicast") && has(text, "[")));
}

// A device chooses what stands between the brackets.
FUZZ(arping_of_device) {
    std::array<char, kProbeMacSize + 8> mac;
    mac.fill('\x7f');
    mac[0] = '\0';
    ping_request request{.ip = "192.168.77.30", .mac = mac.data()};
    border::tools_print(text);
    const int answered = ping_device(&request, 1, 1);
    require(border::commands().size() == 1 &&
            border::commands()[0] == "sudo arping -Iwlan0 -c2 -f 192.168.77.30 | grep reply");
    require(answered == 0 ? mac[0] == '\0' : answered == 1 && has(text, "[") && has(text, "]"));
    require(memchr(mac.data(), '\0', kProbeMacSize) != nullptr);
    require(
        std::all_of(mac.begin() + kProbeMacSize, mac.end(), [](char c) { return c == '\x7f'; }));
}

// Three queries, each with the output of its commands; a BSSID goes into a command line.
FUZZ(signal_and_noise) {
    border::tools_print(text);
    int8_t noise = 1;
    require(pex_net_get_bss_noise(&noise) == 0 || noise == -90);
    for (std::string_view command : border::commands()) {
        constexpr std::string_view kHead = "wpa_cli bss ", kTail = " | grep noise";
        if (command.starts_with(kHead))
            require(is_made_of(command.substr(kHead.size(), command.find(kTail) - kHead.size()),
                               "0123456789abcdefABCDEF:"));
    }
    require(pex_net_get_noise(&noise) == 0 || noise == -90);
    int8_t signal = 1, snr = 1;
    require(pex_net_get_signal_levels("wlan0", 1, &signal, &snr, &noise) == 0);
    require(snr == static_cast<int8_t>(signal - noise));
}

// Names and texts that whoever is on the home's network announces. The browser's thread sleeps
// between its rounds: here until the next one is wanted.
FUZZ(browser_output) {
    static Semaphore round_wanted{0}, round_done{0};
    make_pauses_call([](unsigned) {
        round_done.release();
        round_wanted.acquire();
    });
    [[maybe_unused]] static const bool started = [] {
        std::thread(mdns_discovery_main, nullptr).detach();
        round_done.acquire();
        return true;
    }();
    border::tools_print(text);
    start_device_discovery();
    round_wanted.release();
    round_done.acquire();
    stop_device_discovery();
    for (const device_texts &device : copy_device_list()) {
        require(device.ip && !device.ip->empty() && device.ip->find_first_of(":;\n") == text.npos);
        require(device.hostname && device.name && !device.mac);
        require(!device.type || has("tv light smart-speaker", *device.type));
    }
    clear_device_list();
}

// The first line is what was asked for, the rest what script and kernel report.
FUZZ(regulatory_domain) {
    const std::string wanted = take_line(text).c_str();
    border::tools_print(text);
    const int result = wifi_regdom_utils_set_regdomain(wanted.c_str());
    std::string set;
    for (const std::string &command : border::commands()) {
        constexpr std::string_view kHead = "sudo provision --clregdomain ", kTail = " \n";
        if (!command.starts_with(kHead))
            continue;
        require(command.ends_with(kTail));
        set = command.substr(kHead.size(), command.size() - kHead.size() - kTail.size());
        require(set == "\"#\"" || set == "00" ||
                (set.size() == 2 && is_made_of(set, "ABCDEFGHIJKLMNOPQRSTUVWXYZ")));
    }
    constexpr std::string_view kOfRegions = "US CN WO JP TW \"#\"";
    require(wanted.size() == 2 || kOfRegions.find(set) != kOfRegions.npos);
    require(!set.empty() && (result == -1 || (result == 0 && set != "\"#\"" && has(text, set))));
}

FUZZ(product_version) {
    border::tools_print(text);
    pex_get_product_version_string();  // kept, so read from the first input only
    border::tools_print(text);
    const MallocText version(pex_get_lang_pack_version_malloc());  // by the same reader, each time
    if (!version)
        return;
    const std::string_view read = version.get();
    require(read.empty() || (read.back() != '\n' && read.back() != '\r'));
    require(read.size() <= text.size());
    require(text.find('\0') != text.npos || text.starts_with(read));
}
