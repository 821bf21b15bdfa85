#include "text.h"

#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace ctl {

namespace {

// By state, from -1 on.
constexpr std::array<const char *, 13> kWifiStates{
    "not yet known",
    "off",
    "connected",
    "no network of that name answered",
    "wrong password",
    "no address from DHCP",
    "network lost",
    "the access point rejected the robot",
    "as another process reports it",
    "connecting",
    "bad configuration: SSID or password",
    "IP configuration, soft AP or station interface failed",
    "station stopped",
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
    word{"provisioning", "provisioning is asked for"},
    word{"training", "training is asked for"},
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

// --- UTF-8 ---------------------------------------------------------------------------------------

// The length of the sequence at the start of the text and its code point; 0 when it is none.
size_t decode(std::string_view text, char32_t &point) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = byte(0) < 0x80             ? 1
                          : (byte(0) & 0xe0) == 0xc0 ? 2
                          : (byte(0) & 0xf0) == 0xe0 ? 3
                          : (byte(0) & 0xf8) == 0xf0 ? 4
                                                     : 0;
    if (length == 0 || length > text.size())
        return 0;
    point = length == 1 ? byte(0) : byte(0) & (0x7fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        point = point << 6 | (byte(i) & 0x3f);
    }
    constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};  // RFC 3629
    return point >= kSmallest[length] && point <= 0x10ffff ? length : 0;
}

bool drives_a_terminal(char32_t point) {
    return point < 0x20 || (point >= 0x7f && point < 0xa0) || point == 0x200e || point == 0x200f ||
           (point >= 0x2028 && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069) ||
           (point >= 0xd800 && point < 0xe000);
}

__attribute__((format(printf, 1, 2))) std::string format(const char *with, ...) {
    std::array<char, 128> text{};
    va_list arguments;
    va_start(arguments, with);
    vsnprintf(text.data(), text.size(), with, arguments);
    va_end(arguments);
    return text.data();
}

// --- the vocabulary ------------------------------------------------------------------------------

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
    if (topic != "network/events")
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

void mask(json_t *value) {
    const char *key;
    json_t *member;
    size_t index;
    json_object_foreach(value, key, member) {
        const std::string_view name = key;
        if (name == "pass" || name == "robotpass")
            json_object_set_new(value, key, json_string("*"));
        else
            mask(member);
    }
    json_array_foreach(value, index, member) mask(member);
}

// --- time ----------------------------------------------------------------------------------------

// "12:34:56.789"; for programs with the date, and in UTC as RFC 3339 writes it.
std::string time_text(bool for_programs) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm parts{};
    (for_programs ? gmtime_r : localtime_r)(&now.tv_sec, &parts);
    const int ms = static_cast<int>(now.tv_usec / 1000);
    std::array<char, 32> date{};
    strftime(date.data(), date.size(), "%Y-%m-%dT", &parts);
    const std::string time =
        format("%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec, ms);
    return for_programs ? date.data() + time + "Z" : time;
}

size_t columns_of(const std::string &text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;  // not inside a UTF-8 sequence
    }));
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        char32_t point = 0;
        const size_t length = decode(text, point);
        if (length == 0 || (length == 1 && drives_a_terminal(point)))
            result += format("\\x%02x", static_cast<unsigned char>(text[0]));
        else if (drives_a_terminal(point))
            result += format("\\u{%x}", static_cast<unsigned>(point));
        else
            result += text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

std::string to_hex(std::string_view text) {
    std::string hex;
    for (const char c : text)
        hex += format("%02x", static_cast<unsigned char>(c));
    return hex;
}

std::optional<std::string> from_hex(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    if (text.size() % 2 != 0)
        return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        const size_t digit = kDigits.find(static_cast<char>(text[i] | 0x20));
        if (digit == kDigits.npos)
            return std::nullopt;
        if (i % 2 == 0)
            bytes.push_back(static_cast<char>(digit << 4));
        else
            bytes.back() = static_cast<char>(bytes.back() | static_cast<char>(digit));
    }
    return bytes;
}

std::string wifi_state_text(json_int_t state) {
    constexpr auto kStates = static_cast<json_int_t>(kWifiStates.size());
    return state >= -1 && state + 1 < kStates ? kWifiStates[static_cast<size_t>(state + 1)]
                                              : "unknown state " + std::to_string(state);
}

Json parse_masked(const std::string &payload) {
    Json root(json_loadb(payload.data(), payload.size(), 0, nullptr));
    if (root)
        mask(root.get());
    return root;
}

std::string compact(const json_t *value) {
    const MallocText dumped(json_dumps(value, JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY));
    std::string text = dumped ? dumped.get() : "";
    // The one control character that JSON lets stand.
    for (size_t at = 0; (at = text.find('\x7f', at)) != text.npos;)
        text.replace(at, 1, "\\u007f");
    return text;
}

std::string text_member(const json_t *object, const char *key) {
    const char *text = json_string_value(json_object_get(object, key));
    return text != nullptr ? text : "";
}

Line describe(const std::string &topic, const json_t *message) {
    for (const key_row &row : kKeys)
        if (const json_t *value = json_object_get(message, row.key))
            return row.describe(topic, value);
    return {"other", printable(topic) + " " + (message != nullptr ? compact(message) : "no JSON")};
}

void print_table(const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths(rows[0].size());
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], columns_of(row[i]));
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++)
            line += row[i] + std::string(widths[i] - columns_of(row[i]) + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        puts(line.c_str());
    }
    flush_output();
}

void flush_output() {
    if (fflush(stdout) != 0)
        throw Interrupted();
}

void Printer::line(json_t *members, const Line &text) const {
    if (json_) {
        const Json object(json_pack("{s:s}", "time", time_text(true).c_str()));
        json_object_update(object.get(), members);
        puts(compact(object.get()).c_str());
    } else {
        printf("%s  %-9s  %s\n", time_text(false).c_str(), text.what.c_str(), text.meaning.c_str());
    }
    flush_output();
}

void Printer::message(const Message &message) const {
    const Json root = parse_masked(message.payload);
    const Line text = describe(message.topic, root.get());
    const Json members(json_pack("{s:s, s:O?, s:s}", "topic", printable(message.topic).c_str(),
                                 "message", root.get(), "meaning", text.meaning.c_str()));
    line(members.get(), text);
}

void Printer::step(const std::string &what, const std::string &meaning) const {
    const Json members(json_pack("{s:s, s:s}", "step", what.c_str(), "meaning", meaning.c_str()));
    line(members.get(), {what, meaning});
}

}  // namespace ctl
