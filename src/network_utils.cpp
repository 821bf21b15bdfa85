#include "network_utils.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kvs_keys.h"
#include "log.h"
#include "mqtt_client.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "tarn/robot_processes.h"
#include "topics.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/network_utils"

namespace {

constexpr uint8_t kDhcp = 1;

using dotted = std::array<char, INET_ADDRSTRLEN>;

dotted dotted_of(uint32_t address) {
    dotted text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text;
}

const char *word(bool value) {
    return value ? "true" : "false";
}

// Zeroed, so that a builder that failed leaves an empty text.
MallocText new_text() {
    return MallocText(static_cast<char *>(calloc(kStatusTextSize, 1)));
}

// Writes at `used` what fits into a status text; `used` and the full length of what was to be
// written, which is past the end when it did not fit.
__attribute__((format(printf, 3, 4))) int append(char *text, int used, const char *format, ...) {
    const size_t at = std::min(static_cast<size_t>(used), kStatusTextSize);
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text + at, kStatusTextSize - at, format, arguments);
    va_end(arguments);
    return length < 0 ? static_cast<int>(kStatusTextSize) : used + length;
}

// The SSID as a JSON string with its quotes. It is saved as hexadecimal digits, which come out as
// they are; a value that another process put into the store must not break receivers' parsers, so
// it is escaped, and there is none when it is no UTF-8.
MallocText quoted_ssid() {
    const MallocText ssid(pex_kvs_get_key_str_malloc(kvs_key::kSsid));
    if (!ssid)
        return nullptr;
    const Json value(json_string(ssid.get()));
    return MallocText(json_dumps(value.get(), JSON_ENCODE_ANY));
}

// Head and tail of wlcfg; the full length, which counts when it did not fit, too.
int make_wlcfg_json(char *text, const netinfo &info, const char *ssid) {
    const int head = append(text, 0, R"({"wlcfg":{"sec":%d,"ssid":%s)", info.sec, ssid);
    if (wifi_get_addr_type() == kDhcp)
        return append(text, head, "}}");
    return append(text, head, R"(,"addr":"%s","mask":"%s","gw":"%s","dns1":"%s","dns2":"%s"}})",
                  dotted_of(info.addr).data(), dotted_of(info.mask).data(),
                  dotted_of(info.gw).data(), dotted_of(info.dns1).data(),
                  dotted_of(info.dns2).data());
}

void send_to_bluetooth_manager(const char *text) {
    std::array<char, kStatusTextSize> response{};
    if (network_send_tarn_req(PROCESS_BLUETOOTH_MANAGER, text, response.data(), response.size()) !=
        0)
        LOGE("network_send_tarn_req() failed");
}

}  // namespace

int16_t make_wifi_netinfo_json(char *buffer, int fresh) {
    netinfo info;
    if ((fresh ? wifi_read_netinfo(&info) : wifi_get_netinfo(&info)) == -1) {
        LOGE("failed to get netinfo");
        return 0;
    }
    const uint8_t(&b)[6] = info.bssid;
    const int length = snprintf(
        buffer, kStatusTextSize,
        R"({"netinfo":{"dhcp":%s,"addr":"%s","mask":"%s","gw":"%s","dns1":"%s","dns2":"%s",)"
        R"("bssid":"%02x:%02x:%02x:%02x:%02x:%02x","sec":%d}})",
        word(wifi_get_addr_type() == kDhcp), dotted_of(info.addr).data(),
        dotted_of(info.mask).data(), dotted_of(info.gw).data(), dotted_of(info.dns1).data(),
        dotted_of(info.dns2).data(), b[0], b[1], b[2], b[3], b[4], b[5], info.sec);
    return static_cast<int16_t>(length);
}

int16_t make_wifistat_json(char *buffer) {
    wifistat status;
    if (wifi_get_wifistat(&status) == 0)
        return 0;
    return static_cast<int16_t>(snprintf(buffer, kStatusTextSize,
                                         R"({"wifistat":{"wifi":%d,"uap":%s}})", status.wifi,
                                         word(status.uap != 0)));
}

// A failed builder makes an empty message here and below: listeners know it.
int wifi_send_netinfo(int bluetooth) {
    const MallocText text = new_text();
    if (!text) {
        LOGD("out of memory");
        return 0;
    }
    const int length = make_wifi_netinfo_json(text.get(), 0);
    mqtt_client_send(nullptr, length, text.get());
    if (bluetooth) {
        LOGD("Sending netinfo to bluetooth manager");
        send_to_bluetooth_manager(text.get());
    }
    return 1;
}

int wifi_send_wifistat(int bluetooth) {
    const MallocText text = new_text();
    if (!text) {
        LOGE("malloc error");
        return 0;
    }
    const int length = make_wifistat_json(text.get());
    mqtt_client_send(nullptr, length, text.get());
    mqtt_client_send(topic::kRobotEvents, length, text.get());
    if (bluetooth) {
        LOGD("Sending wifistat to bluetooth manager");
        send_to_bluetooth_manager(text.get());
    }
    return 1;
}

int8_t wifi_send_wlcfg_json() {
    const MallocText text = new_text();
    if (!text) {
        LOGE("out of memory");
        return 0;
    }
    const MallocText ssid = quoted_ssid();
    if (!ssid) {
        LOGE("cannot load ssid");
        return 0;
    }
    netinfo info;
    if (wifi_get_netinfo(&info) == 0) {
        LOGE("cannot get netinfo");
        return 0;
    }
    const int length = make_wlcfg_json(text.get(), info, ssid.get());
    if (length >= static_cast<int>(kStatusTextSize)) {
        LOGE("message truncated, wlcfg not sent");
        return 0;
    }
    mqtt_client_send(nullptr, length, text.get());
    return static_cast<int8_t>(length);
}

void send_command_to_robot(const char *command) {
    const size_t size = strlen(command) + sizeof(R"({"command":""})");
    const MallocText text(static_cast<char *>(malloc(size)));
    if (!text) {
        LOGE("malloc error");
        return;
    }
    const int length = snprintf(text.get(), size, R"({"command":"%s"})", command);
    mqtt_client_send(topic::kRobotDebug, length, text.get());
}

int wifi_send_signal_levels(int connected) {
    int8_t rssi = 0;
    int8_t snr = 0;
    int8_t noise = 0;
    if (wifi_get_signal_levels(connected, &rssi, &snr, &noise) != 0)
        return 0;
    std::array<char, kStatusTextSize> text{};
    const int length = snprintf(text.data(), text.size(),
                                R"({"signal":{"rssi":%d,"snr":%d,"noise":%d}})", rssi, snr, noise);
    mqtt_client_send(nullptr, length, text.data());
    return length;
}
