// What other processes of the robot, the app, the supplicant and the kernel say.
#include <jansson.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "../../tools/netwardenctl/text.h"
#include "border.h"
#include "device_network_hop.h"
#include "discovery.h"
#include "gateway_pinger.h"
#include "home_device_list.h"
#include "monitor_main.h"
#include "mqtt_dispatch.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "process_handles.h"
#include "tarn/tarn.h"
#include "wifi_settings.h"

namespace {

// As the daemon parses it.
Json parse(const std::string &text) {
    return Json(json_loads(text.c_str(), 0, nullptr));
}

bool is_plain(const std::string &text) {
    return is_made_of(text, "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ ");
}

}  // namespace

FUZZ(current_access_point) {
    const std::string status(text);
    channel_info link;
    link.freq = -7;
    const int result = parse_link_status(status.c_str(), &link);
    require(result == 1 ? link.bssid != nullptr : result == 0 && !link.bssid && link.freq == -7);
    if (!link.bssid)
        return;
    const std::string bssid = link.bssid.get();
    require(bssid.find('\n') == bssid.npos && text.find("bssid=" + bssid + "\n") != text.npos);
    require(text.find("freq=") != text.npos);
}

// A topic that is one of ours has exactly one way to be written, so that its answer's says it all.
FUZZ(tarn_topic) {
    const std::string topic(text.substr(0, text.find('\0')));
    tarn_lib *const transport = get_network_tarn_handle();
    int type = -1;
    require(tarn_get_req_handle_using_topic(transport, topic.c_str()) == nullptr);
    if (get_tarn_message_type(transport, topic.c_str(), &type) != 0) {
        require(type == -1 && tarn_send_resp(transport, topic.c_str(), "{}") == -1 &&
                tarn_event_ack(transport, topic.c_str()) == -1 && border::sent().empty());
        return;
    }
    require(topic.starts_with("tarn/network/") && std::count(topic.begin(), topic.end(), '/') == 4);
    require((tarn_send_resp(transport, topic.c_str(), "{}") == 0) == (type == TARN_REQUEST));
    require((tarn_event_ack(transport, topic.c_str()) == 0) == (type == TARN_EVENT));
    if (border::sent().empty())
        return;
    const size_t peer = topic.find('/', strlen("tarn/network/")) + 1, id = topic.rfind('/');
    require(border::sent()[0].starts_with("tarn/" + topic.substr(peer, id - peer) +
                                          (type == TARN_REQUEST ? "/resp" : "/ack") + "/network" +
                                          topic.substr(id) + " "));
}

FUZZ(next_cleaning) {
    border::processes_answer(text);
    require(gateway_pinger_get_next_cleaning() == 0 || has(text, "nextCleaning"));
    require(border::sent().size() == 1);
}

// Its lines are the robot's name, its training and what the robot's core answers.
FUZZ(discovery_description) {
    constexpr int kSize = 1024;
    const std::string name = take_line(text).c_str();
    const std::string trained = take_line(text).c_str();
    pex_kvs_set_key_str("robot.name", name.c_str());
    pex_kvs_set_key_str("robot.trained", trained.c_str());
    border::processes_answer(text);
    close(discovery_init());
    std::array<char, kSize> buffer;
    buffer.fill('\x7f');
    const int length = get_discovery_json(buffer.data(), kSize);
    require(length == -1 ||
            (length < kSize && strlen(buffer.data()) == static_cast<size_t>(length)));
    if (length == -1)
        return;
    const MallocText extended(add_lps_malloc(buffer.data()));
    require(!extended || json_is_integer(json_object_get(parse(extended.get()).get(), "lps")));
    // Whatever the core answers: with plain texts beside it the description is one.
    if (!is_plain(name) || (!trained.empty() && trained != "true" && trained != "false"))
        return;
    require(parse(buffer.data()) && extended);
}

namespace {

void receive(const char *topic, const std::string &text) {
    const mqtt_app_message message{1, topic, text.data(), static_cast<int>(text.size())};
    on_mqtt_app_message(nullptr, &message);
}

// Letters, digits and what options and addresses are written with; "#" stands in double quotes.
void check_command(std::string text) {
    if (const size_t none = text.find("\"#\""); none != text.npos)
        text.erase(none, 3);
    require(text.find_first_of("`$;&<>\\'\"(){}*?!|") == text.npos);
    require(std::count(text.begin(), text.end(), '\n') <= 1);
}

}  // namespace

// As anybody on the broker can publish it: the first byte picks the topic. Whatever it says, no
// command line may hold more than the daemon writes into one itself.
FUZZ(inbound_message) {
    constexpr const char *kTopics[] = {"brisk/network/events", "tarn/network/req/3/7",
                                       "tarn/network/event/3/8", "tarn/network/resp/3/9"};
    if (text.size() < 2)
        return;
    receive(kTopics[static_cast<uint8_t>(text[0]) % 4], std::string(text.substr(1)));
    for (const std::string &command : border::commands())
        if (!has(text, "logWifiLinkInfo"))  // which pipes what tools print
            check_command(command);
    check_command(wifictl_get_temp_ip_config());
}

// Lines: address, mask, gateway and two name servers; "-" leaves one out. What comes of them is
// executed as it stands.
FUZZ(static_addresses) {
    const Json settings(json_object()), message(json_object());
    for (const char *key : {"addr", "mask", "gw", "dns1", "dns2"})
        if (const std::string line = take_line(text); line != "-")
            json_object_set_new(settings.get(), key, json_stringn(line.data(), line.size()));
    json_object_set(message.get(), "wlcfg", settings.get());
    receive("brisk/network/events", MallocText(json_dumps(message.get(), 0)).get());
    const std::string line = wifictl_get_temp_ip_config();
    check_command(line);
    require(line.empty() || line.starts_with("sudo provision --clmode "));
    require(is_made_of(line, "\"#\" \n-abcdefghijklmnopqrstuvwxyzABCDEF0123456789.:/"));
}

namespace {

// Fit for a terminal: UTF-8 without control characters and without marks that turn the direction.
bool is_printable(const std::string &text) {
    const auto is_control = [](char c) { return (c >= 0 && c < 0x20) || c == 0x7f; };
    const Json value(json_stringn(text.data(), text.size()));
    if (!value || std::any_of(text.begin(), text.end(), is_control))
        return false;
    for (const auto &[head, first, last] : {std::tuple("\xc2", '\x80', '\x9f'),
                                            {"\xe2\x80", '\x8e', '\x8f'},
                                            {"\xe2\x80", '\xa8', '\xae'},
                                            {"\xe2\x81", '\xa6', '\xa9'}})
        for (size_t at = 0; (at = text.find(head, at)) != text.npos; at++)
            if (const char mark = text[at + strlen(head)]; mark >= first && mark <= last)
                return false;
    return true;
}

bool hides_passwords(json_t *value) {
    const char *key;
    json_t *member;
    size_t index;
    json_object_foreach(value, key, member) {
        const bool is_secret = strcmp(key, "pass") == 0 || strcmp(key, "robotpass") == 0;
        if (is_secret ? ctl::compact(member) != "\"*\"" : !hides_passwords(member))
            return false;
    }
    json_array_foreach(value, index, member) if (!hides_passwords(member)) return false;
    return true;
}

}  // namespace

// The first line is the topic, the rest the message, as netwardenctl shows them.
FUZZ(client_text) {
    require(is_printable(ctl::printable(text)));
    require(ctl::from_hex(ctl::to_hex(text)) == std::string(text));
    const std::string topic = take_line(text);
    const Json message = ctl::parse_masked(std::string(text));
    require(hides_passwords(message.get()));
    const ctl::Line line = ctl::describe(topic, message.get());
    require(is_printable(line.what) && is_printable(line.meaning));
}

FUZZ(scan_results) {
    channel_info entries[3];
    const int count = parse_scan_results(std::string(text).c_str(), entries, 3);
    require(count >= 0 && count <= 3);
    for (int i = 0; i < count; i++)
        require(entries[i].bssid && *entries[i].bssid != '\0' &&
                strpbrk(entries[i].bssid.get(), "\t\n") == nullptr);
    clear_device_list();
}

// The text of a supplicant's event, as any access point in range can shape it.
FUZZ(wlan_monitor_parse) {
    const std::string datagram(text);
    const wlan_monitor_message message = wlan_monitor_parse(datagram.c_str());
    require(message.text >= datagram.c_str() && message.text <= datagram.c_str() + text.size());
    require(message.is_forwarded != (has(message.text, "CTRL-EVENT-BSS-ADDED ") ||
                                     has(message.text, "CTRL-EVENT-BSS-REMOVED ")));
    require(!message.is_terminating || has(datagram.c_str(), "CTRL-EVENT-TERMINATING "));
}

// Hexadecimal values, and lines that are masked before they reach the log: by as many asterisks.
FUZZ(hidden_text) {
    const MallocText original(strndup(text.data(), text.size()));
    const size_t length = strlen(original.get());
    const MallocText decoded(hex_decode_str_malloc(original.get()));
    require(length >= 256 || (decoded != nullptr) == (ishexstring(original.get()) == 1));
    if (decoded) {
        const MallocText encoded(hex_encode_str_malloc(decoded.get(), strlen(decoded.get())));
        require(strncasecmp(encoded.get(), original.get(), strlen(encoded.get())) == 0);
    }
    for (const bool is_ssid : {true, false}) {
        const MallocText masked(strdup(original.get()));
        if (is_ssid)
            pex_hide_ssid(masked.get());
        else
            pex_hide_mac_addr(masked.get(),
                              static_cast<uint8_t>(text.empty() ? 1 : text[0]) % 8 - 1);
        require(strlen(masked.get()) == length);
        for (size_t i = 0; i < length; i++)
            require(masked.get()[i] == original.get()[i] ||
                    (masked.get()[i] == '*' && original.get()[i] != '\n'));
    }
}

namespace {

// Alone at the end of its memory: a read beyond it is seen.
void parse_routes(std::string_view datagram) {
    nlmsghdr header{};
    datagram.copy(reinterpret_cast<char *>(&header), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size())
        return;
    const MallocText alone(static_cast<char *>(malloc(header.nlmsg_len)));
    memcpy(alone.get(), datagram.data(), header.nlmsg_len);
    pex_net_route route{};
    pex_net_parse_routes(reinterpret_cast<const nlmsghdr *>(alone.get()), &route);
    require(memchr(route.ifname, '\0', sizeof route.ifname) != nullptr);
}

}  // namespace

// As it may come from a kernel that the robot was never tried on: a row of datagrams, each with its
// length in front (16 bits, little endian).
FUZZ(route_dump) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    border::opens_socket(ends[0]);
    const Fd kernel(ends[1]);
    while (text.size() >= 2) {
        const std::string_view datagram = text.substr(
            2, static_cast<uint8_t>(text[0]) + size_t{256} * static_cast<uint8_t>(text[1]));
        text.remove_prefix(2 + datagram.size());
        parse_routes(datagram);
        send(kernel.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    shutdown(kernel.get(), SHUT_WR);  // everything has come, nothing more will
    char dotted[16] = "";
    const uint32_t gateway = pex_net_get_gatewayip(dotted, sizeof dotted);
    require((gateway != 0) == (dotted[0] != '\0' && strcmp(dotted, "0.0.0.0") != 0));
}
