#include "wifi_events.h"

#include <cctype>
#include <cstring>
#include <string>
#include <string_view>

#include "log.h"
#include "pex_misc.h"
#include "provisioning_sm.h"
#include "wifi_state.h"
#include "wifi_status.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

// --- what the events mean ------------------------------------------------------------------------

void on_connected(const char *) {
    wifi_link_set_connected();
}
void on_disconnected(const char *) {
    wifi_link_set_disconnected();
}
void on_subnet_status(const char *) {
    wifi_refresh_link_status();
}
void on_terminating(const char *) {
    LOGE("wpa_supplicant is terminating - stop monitoring");
}
void on_assoc_reject(const char *) {
    LOGE("connection to AP rejected");
    wifi_link_set_refused();
}

// The first report of a wrong key may be a lost frame and gets another try, the second ends it.
void on_temp_disabled(const char *text) {
    const char *const reason = strstr(text, "reason");
    if (reason == nullptr || strstr(reason, "WRONG_KEY") == nullptr ||
        wifi_state_get_wifi() == WIFI_AUTH_ERROR)
        return;
    if (wifi_link_may_retry_key()) {
        provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
        return;
    }
    wifi_timers_clear();
    provisioning_handle_error(WIFI_AUTH_ERROR);
}

// Looked for in this order; the first that an event contains acts.
struct event_marker {
    const char *text;
    void (*act)(const char *event);
};
constexpr event_marker kEventMarkers[] = {
    {"CTRL-EVENT-CONNECTED ", on_connected},
    {"CTRL-EVENT-DISCONNECTED ", on_disconnected},
    {"CTRL-EVENT-SUBNET-STATUS-UPDATE ", on_subnet_status},
    {"AP-STA-CONNECTED ", nullptr},  // stations of the soft AP are only logged
    {"AP-STA-DISCONNECTED ", nullptr},
    {"CTRL-EVENT-TERMINATING ", on_terminating},
    {"CTRL-EVENT-ASSOC-REJECT ", on_assoc_reject},
    {"CTRL-EVENT-SSID-TEMP-DISABLED ", on_temp_disabled},
};

// Where the name that is quoted at `open` ends, npos when it does not. The supplicant escapes " and
// \ in a name and leaves a ' as it is: one within a word, as in "Ann's", is no end.
size_t end_of_name(const std::string &text, size_t open) {
    const auto in_word = [&](size_t i) {
        return text[i] == '\'' && isalnum(static_cast<unsigned char>(text[i + 1])) != 0;
    };
    for (size_t i = open + 1; i < text.size(); i++) {
        if (text[i] == '\\')
            i++;
        else if (text[i] == text[open] && !in_word(i))
            return i;
    }
    return text.npos;
}

// Blanks each quoted SSID; pex_hide_ssid does the first one only, up to a quote of either kind.
void hide_ssids(std::string &text) {
    pex_hide_ssid(text.data());
    for (const std::string_view key : {"ssid=", "SSID="})
        for (size_t at = text.find(key); at != text.npos; at = text.find(key, at + key.size())) {
            const size_t open = at + key.size();
            if (open == text.size() || (text[open] != '"' && text[open] != '\''))
                continue;
            const size_t end = end_of_name(text, open);
            if (end != text.npos)
                text.replace(open + 1, end - open - 1, end - open - 1, '*');
        }
}

// An event may name two access points; each pass masks one of them.
void log_event(const char *text) {
    std::string copy(text);
    hide_ssids(copy);
    while (pex_hide_mac_addr(copy.data(), 6) != 0) {
    }
    LOGI("wlan monitor event - %s", copy.c_str());
}

}  // namespace

void wlan_monitor_event(const char *text) {
    if (text == nullptr)
        return;
    for (const auto &marker : kEventMarkers) {
        if (strstr(text, marker.text) == nullptr)
            continue;
        if (marker.act != nullptr)
            marker.act(text);
        break;
    }
    log_event(text);
}
