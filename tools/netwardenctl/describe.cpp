// The robot's vocabulary in words.
#include <algorithm>
#include <array>

#include "text.h"

namespace ctl {

namespace {

// By state, from -1 on: the name on a command line, and the meaning.
struct state_row {
    const char *name;
    const char *meaning;
};
constexpr std::array kWifiStates{
    state_row{"unknown", "not yet known"},
    state_row{"off", "off"},
    state_row{"connected", "connected"},
    state_row{"no-network", "no network of that name answered"},
    state_row{"wrong-password", "wrong password"},
    state_row{"no-address", "no address from DHCP"},
    state_row{"network-down", "network lost"},
    state_row{"rejected", "the access point rejected the robot"},
    state_row{"told", "as another process reports it"},
    state_row{"connecting", "connecting"},
    state_row{"bad-settings", "bad configuration: SSID or password"},
    state_row{"not-applied", "IP configuration, soft AP or station interface failed"},
    state_row{"stopped", "station stopped"},
};

struct word {
    std::string_view name;
    const char *meaning;
};

constexpr std::array kCommands{
    word{"provstart", "provisioning started"},
    word{"provfail", "provisioning timed out"},
    word{"provabort", "provisioning aborted"},
    word{"trainstart", "training started"},
    word{"trainconnect", "an app is connected for training"},
    word{"traindisconnect", "the training app has left"},
    word{"trainabort", "training aborted"},
    word{"traindone", "training done"},
    word{"softapconnect", "a phone joined the soft AP"},
    word{"ipdone", "connected and saved"},
};

constexpr std::array kEvents{
    word{"provisioning", "the robot is asked to start it"},
    word{"training", "the robot is asked to start it"},
    word{"btnpress", "the robot's button was pressed"},
    word{"tidelinkConnected", "the way to the app is open"},
    word{"startWifiDeviceTracking", "tracking of the home's devices is switched on"},
    word{"pauseWifiDeviceTracking", "tracking of the home's devices is paused"},
    word{"stopWifiDeviceTracking", "tracking of the home's devices is switched off"},
    word{"resetCloudConnection", "provisioning is over, the cloud connection starts anew"},
};

constexpr std::array<std::pair<json_int_t, const char *>, 5> kSecurity{
    {{0, "open"}, {2, "WEP"}, {3, "WPA-PSK"}, {4, "WPA2-PSK"}, {7, "security not yet known"}}};

template <size_t N>
std::string named(const std::array<word, N> &table, const std::string &name) {
    const auto found =
        std::find_if(table.begin(), table.end(), [&](const word &w) { return w.name == name; });
    return printable(name) + (found != table.end() ? ": " + std::string(found->meaning) : "");
}

std::string security_text(json_int_t value) {
    for (const auto &[number, name] : kSecurity)
        if (number == value)
            return name;
    return "security " + std::to_string(value);
}

std::string network_text(const json_t *wlcfg) {
    const std::string ssid = text_member(wlcfg, "ssid");
    const auto bytes = from_hex(ssid);
    return "network \"" + printable(bytes ? *bytes : ssid) + "\"";
}

// --- messages ----------------------------------------------------------------------------------

json_int_t number(const json_t *object, const char *key) {
    return json_integer_value(json_object_get(object, key));
}

std::string shown(const json_t *object, const char *key) {
    return printable(text_member(object, key));
}

Line describe_wifistat(const std::string &, const json_t *value) {
    const json_t *wifi = json_object_get(value, "wifi");
    if (!json_is_integer(wifi))
        return {"wifistat", compact(value)};
    const json_int_t state = json_integer_value(wifi);
    return {"wifi " + std::to_string(state),
            wifi_state_text(state) +
                (json_is_true(json_object_get(value, "uap")) ? ", soft AP up" : "")};
}

Line describe_netinfo(const std::string &, const json_t *value) {
    return {"netinfo", shown(value, "addr") + " mask " + shown(value, "mask") +
                           (json_is_true(json_object_get(value, "dhcp")) ? " by DHCP" : " static") +
                           ", gateway " + shown(value, "gw") + ", name servers " +
                           shown(value, "dns1") + " " + shown(value, "dns2") + ", access point " +
                           shown(value, "bssid") + ", " + security_text(number(value, "sec"))};
}

Line describe_wlcfg(const std::string &topic, const json_t *value) {
    const std::string addr = shown(value, "addr");
    const std::string addressing = addr.empty() ? ", DHCP" : ", static address " + addr;
    if (topic != kOutbound)
        return {"wlcfg", "the app sends settings: " + network_text(value) + addressing};
    return {"wlcfg", network_text(value) + ", " + security_text(number(value, "sec")) + addressing};
}

Line describe_command(const std::string &topic, const json_t *value) {
    const char *word = json_string_value(value);
    if (topic == kInbound && word != nullptr)
        return {"command", printable(word) + ": sent to netwarden"};
    return {"command", named(kCommands, word != nullptr ? word : "")};
}

Line describe_event(const std::string &, const json_t *value) {
    const char *word = json_string_value(value);
    return {"event", named(kEvents, word != nullptr ? word : "")};
}

Line describe_signal(const std::string &, const json_t *value) {
    return {
        "signal",
        format("%d dBm, %d dB above a noise of %d dBm", static_cast<int>(number(value, "rssi")),
               static_cast<int>(number(value, "snr")), static_cast<int>(number(value, "noise")))};
}

std::string join(const json_t *list, const char *unit, std::string (*item)(const json_t *)) {
    std::string text = std::to_string(json_array_size(list)) + " " + unit;
    for (size_t i = 0; i < json_array_size(list); i++)
        text += (i == 0 ? ": " : ", ") + item(json_array_get(list, i));
    return text;
}

std::string device_text(const json_t *device) {
    for (const char *key : {"name", "hostname"})
        if (const std::string text = shown(device, key); !text.empty())
            return text + " (" + shown(device, "mac_address") + ")";
    return shown(device, "mac_address");
}

std::string access_point_text(const json_t *point) {
    return shown(point, "bssid") + format(" %d dBm %d MHz", static_cast<int>(number(point, "rssi")),
                                          static_cast<int>(number(point, "freq")));
}

Line describe_devices(const std::string &, const json_t *value) {
    return {"devices", join(value, "in the home", device_text)};
}

Line describe_scan(const std::string &, const json_t *value) {
    return {"scan", join(value, "access points", access_point_text)};
}

struct key_row {
    const char *key;
    Line (*describe)(const std::string &topic, const json_t *value);
};
constexpr std::array kKeys{
    key_row{"event", describe_event},         key_row{"command", describe_command},
    key_row{"wifistat", describe_wifistat},   key_row{"netinfo", describe_netinfo},
    key_row{"wlcfg", describe_wlcfg},         key_row{"signal", describe_signal},
    key_row{"wifiDevices", describe_devices}, key_row{"wifiScanResults", describe_scan},
};

}  // namespace

std::string wifi_state_text(json_int_t state) {
    constexpr auto kStates = static_cast<json_int_t>(kWifiStates.size());
    return state >= -1 && state < kStates - 1 ? kWifiStates[static_cast<size_t>(state + 1)].meaning
                                              : "unknown state " + std::to_string(state);
}

std::vector<std::string> wifi_state_names() {
    std::vector<std::string> names;
    names.reserve(kWifiStates.size());
    for (const state_row &row : kWifiStates)
        names.emplace_back(row.name);
    return names;
}

int wifi_state_named(const std::string &name) {
    const auto row = std::find_if(kWifiStates.begin(), kWifiStates.end(),
                                  [&](const state_row &each) { return each.name == name; });
    return static_cast<int>(row - kWifiStates.begin()) - 1;
}

Line describe(const std::string &topic, const json_t *message) {
    for (const key_row &row : kKeys)
        if (const json_t *value = json_object_get(message, row.key))
            return row.describe(topic, value);
    return {"other", printable(topic) + " " + (message != nullptr ? compact(message) : "no JSON")};
}

}  // namespace ctl
