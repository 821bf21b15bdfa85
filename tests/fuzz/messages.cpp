// What other processes of the robot, the app and the supplicant say.
#include <jansson.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <tuple>

#include "../../tools/netwardenctl/text.h"
#include "border.h"
#include "device_network_hop.h"
#include "discovery.h"
#include "gateway_pinger.h"
#include "mqtt_dispatch.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "parsers.h"
#include "pex_kvs_helper.h"
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

void current_access_point(std::string_view text) {
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
void tarn_topic(std::string_view text) {
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
    require(border::sent()[0].topic == "tarn/" + topic.substr(peer, id - peer) +
                                           (type == TARN_REQUEST ? "/resp" : "/ack") + "/network" +
                                           topic.substr(id));
}

void next_cleaning(std::string_view text) {
    border::processes_answer(text);
    const int result = gateway_pinger_get_next_cleaning();
    require(border::sent().size() == 1);
    const Json answer = parse(std::string(text.substr(0, text.find('\0'))).substr(0, 255));
    const json_t *const next = json_object_get(answer.get(), "nextCleaning");
    const json_int_t wanted = json_is_integer(next) ? json_integer_value(next) : 0;
    require(result == std::clamp<json_int_t>(wanted, INT_MIN, INT_MAX));
}

// Its lines are the robot's name, its training and what the robot's core answers.
void discovery_description(std::string_view text) {
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
    const Json description = parse(buffer.data());
    require(description && extended);
    const Json answer = parse(std::string(text.substr(0, text.find('\0'))).substr(0, 511));
    const json_t *const told = json_object_get(answer.get(), "cap");
    const json_t *const shown = json_object_get(description.get(), "cap");
    if (json_is_object(told) || json_is_array(told))
        require(json_equal(shown, told));
    else
        require(json_is_object(shown) && json_object_size(shown) == 0);
}

namespace {

constexpr char kNothing[] = "as it was";

void send_settings(std::string_view &lines) {
    const Json settings(json_object()), message(json_object());
    for (const char *key : {"addr", "mask", "gw", "dns1", "dns2"})
        if (const std::string line = take_line(lines); line != "-")
            json_object_set_new(settings.get(), key, json_stringn(line.data(), line.size()));
    json_object_set(message.get(), "wlcfg", settings.get());
    const MallocText text(json_dumps(message.get(), 0));
    const mqtt_app_message received{1, "brisk/network/events", text.get(),
                                    static_cast<int>(strlen(text.get()))};
    on_mqtt_app_message(nullptr, &received);
}

bool is_address(const std::string &word) {
    return !word.empty() && is_made_of(word, "0123456789abcdefABCDEF.:/");
}

}  // namespace

// Lines: address, mask, gateway and two name servers; "-" leaves one out. What comes of them is
// executed as it stands.
void static_addresses(std::string_view text) {
    constexpr std::array<std::string_view, 14> kForm{
        "sudo", "provision", "--clmode", "static",     "--clipaddr", "A",          "--clnetmask",
        "A",    "--clgw",    "A",        "--cldnsns1", "A",          "--cldnsns2", "A"};
    wifictl_set_ip_config(kNothing);
    send_settings(text);
    std::string line = wifictl_get_temp_ip_config();
    if (line == kNothing || line == "sudo provision --clmode dhcp \n")
        return;
    size_t words = 0;
    const bool is_cut = line.size() == 512;
    require(is_cut || line.ends_with(" \n"));
    for (size_t at = 0; at < line.size(); words++) {
        const size_t end = std::min(line.find_first_of(" \n", at), line.size());
        const std::string word = line.substr(at, end - at);
        at = std::min(line.find_first_not_of(" \n", end), line.size());
        require(words < kForm.size());
        const bool fits = kForm[words] == "A" ? is_address(word) || (words == 13 && word == "\"#\"")
                                              : word == kForm[words];
        require(fits || (is_cut && at == line.size()));
    }
    require(is_cut || words == kForm.size());
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
void client_text(std::string_view text) {
    require(is_printable(ctl::printable(text)));
    require(ctl::from_hex(ctl::to_hex(text)) == std::string(text));
    const std::string topic = take_line(text);
    const Json message = ctl::parse_masked(std::string(text));
    require(hides_passwords(message.get()));
    const ctl::Line line = ctl::describe(topic, message.get());
    require(is_printable(line.what) && is_printable(line.meaning));
}
