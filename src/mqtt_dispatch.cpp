// The vocabulary of inbound messages: requests and events of other robot processes first, then the
// keys that apps and the robot use on any topic. Everything runs on the broker thread, so nothing
// here may wait for a response that this thread would have to deliver.
#include "mqtt_dispatch.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "device_tracking.h"
#include "discovery.h"
#include "gateway_pinger.h"
#include "kvs_keys.h"
#include "log.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "process_handles.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "tarn/tarn.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_restart.h"
#include "wifi_settings.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/mqtt_client"

namespace {

constexpr char kTidelinkMarker[] = "/tmp/tidelink_connected";
constexpr size_t kDiscoverySize = 1024;

// One message while it is handled. `transport` tells that its topic is the IPC library's, so that
// its sender may be answered.
struct inbound {
    const char *topic;
    std::string payload;
    json_t *root;
    bool transport;
};

// Gate of provisioning: it waits for the tidelink, the app's way to the robot. Broker thread only.
bool tidelink_connected = false;
bool provisioning_waiting = false;

std::string_view text_of(const json_t *value) {
    const char *text = json_string_value(value);
    return text != nullptr ? text : std::string_view();
}

// A word and what it does; the first row that fits is taken.
template <typename... Arguments>
struct row {
    std::string_view word;
    void (*handle)(Arguments...);
};

template <size_t N, typename... Arguments>
bool dispatch(const std::array<row<Arguments...>, N> &table, std::string_view word,
              std::type_identity_t<Arguments>... arguments) {
    for (const auto &entry : table)
        if (entry.word == word) {
            entry.handle(arguments...);
            return true;
        }
    return false;
}

// --- requests and events of other robot processes ------------------------------------------------

void answer(const inbound &message, const char *text) {
    tarn_send_resp(get_network_tarn_handle(), message.topic, text);
}

void answer_channel(const inbound &message) {
    const Json reply(json_pack("{s:i}", "channel", static_cast<int>(wifi_get_sta_channel())));
    if (!reply) {
        LOGE("json_pack() failed");
        return;
    }
    const MallocText text(json_dumps(reply.get(), 0));
    if (!text) {
        LOGE("json_dumps() failed");
        return;
    }
    answer(message, text.get());
}

void answer_discovery(const inbound &message) {
    const MallocText text(static_cast<char *>(calloc(1, kDiscoverySize)));
    if (!text)
        LOGE("could not allocate memory for discovery json");
    if (get_discovery_json(text.get(), kDiscoverySize) != -1)
        answer(message, text.get());
}

constexpr std::array kGets{
    row<const inbound &>{"channel", answer_channel},
    row<const inbound &>{"discovery", answer_discovery},
};

void on_set_log_level(const inbound &message, json_t *value) {
    if (tarn_handle_set_log_level_request(get_network_tarn_handle(), get_log_handle(),
                                          message.topic, value) != 0)
        LOGE("tarn_handle_set_log_level_request failed");
}

void on_get(const inbound &message, json_t *value) {
    dispatch(kGets, text_of(value), message);
}

void on_log_link_info(const inbound &message, json_t * /*value*/) {
    LOGD("logging network connection info");
    int8_t rssi = 0;
    int8_t snr = 0;
    int8_t noise = 0;
    const int channel = wifi_get_sta_channel();
    wifi_get_signal_levels(1, &rssi, &snr, &noise);
    LOGI("rssi: %d, channel: %d, noise: %d", rssi, channel, noise);
    answer(message, message.payload.c_str());
}

constexpr std::array kTransportEvents{
    row<>{"localConnect", [] { provisioning_state_machine(TRAIN_CONNECT); }},
    row<>{"localDisconnect", [] { provisioning_state_machine(TRAIN_DISCONNECT); }},
    row<>{"mfg_test_start", [] { provisioning_state_machine(MFG_WIFI_TEST); }},
    row<>{"restartNetwork",
          [] {
              LOGI("Network manager received restart network request, restarting...");
              wifi_station_request_restart();  // this thread must stay free
          }},
};

void on_transport_event(const inbound &message, json_t *value) {
    tarn_event_ack(get_network_tarn_handle(), message.topic);
    dispatch(kTransportEvents, text_of(value));
}

void on_mfg_test(const inbound &message, json_t *value) {
    tarn_event_ack(get_network_tarn_handle(), message.topic);
    if (text_of(value) == "btTest")
        provisioning_state_machine(TRAIN_ABORT);
}

using KeyRow = row<const inbound &, json_t *>;

// In the order of precedence: the first key that is present decides.
constexpr std::array kTransportKeys{
    KeyRow{"set_log_level", on_set_log_level},
    KeyRow{"get", on_get},
    KeyRow{"logWifiLinkInfo", on_log_link_info},
    KeyRow{"event", on_transport_event},
    KeyRow{"mfg_test", on_mfg_test},
};

template <size_t N>
bool dispatch_first_key(const std::array<KeyRow, N> &table, const inbound &message) {
    for (const auto &entry : table)
        if (json_t *value = json_object_get(message.root, entry.word.data())) {
            entry.handle(message, value);
            return true;
        }
    return false;
}

void handle_transport_message(const inbound &message) {
    tarn_lib *const transport = get_network_tarn_handle();
    if (tarn_req *request = tarn_get_req_handle_using_topic(transport, message.topic)) {
        LOGD("tarn_complete_transfer");
        tarn_complete_transfer(request, message.payload.c_str());
        return;
    }
    if (!dispatch_first_key(kTransportKeys, message))
        LOGE("Unsupported message");
}

// --- events and commands of apps and the robot ---------------------------------------------------

void on_provisioning() {
    if (!tidelink_connected) {
        LOGI("Provisioning attempted but tidelink not connected. Waiting...");
        provisioning_waiting = true;
        return;
    }
    provisioning_state_machine(PROVISIONING_ACTIVATED);
    LOGD("Tidelink connected & provisioning activated.");
}

void on_button() {
    if (is_robot_provisioning() != 0)
        provisioning_state_machine(PROVISIONING_ABORT);
    else if (is_robot_training() != 0)
        provisioning_state_machine(TRAIN_ABORT);
}

void on_start_tracking() {
    LOGD("starting wifi device tracking");
    start_device_discovery();
}

void on_pause_tracking() {
    LOGD("pausing wifi device tracking");
    pause_device_discovery();
}

void on_stop_tracking() {
    LOGD("stopping wifi device tracking");
    stop_device_discovery();
}

void on_tidelink_connected() {
    LOGD("Network manager received tidelink connected.");
    tidelink_connected = true;
    if (provisioning_waiting) {
        LOGI("Was waiting for tidelink, entering provisioning mode now.");
        provisioning_state_machine(PROVISIONING_ACTIVATED);
        provisioning_waiting = false;
    }
    if (unlink(kTidelinkMarker) != 0)
        LOGE("Failed to delete %s", kTidelinkMarker);
}

constexpr std::array kEvents{
    row<>{"provisioning", on_provisioning},
    row<>{"training", [] { provisioning_state_machine(TRAIN_START); }},
    row<>{"btnpress", on_button},
    row<>{"startWifiDeviceTracking", on_start_tracking},
    row<>{"pauseWifiDeviceTracking", on_pause_tracking},
    row<>{"stopWifiDeviceTracking", on_stop_tracking},
    row<>{"tidelinkConnected", on_tidelink_connected},
};

constexpr std::array kCommands{
    row<>{"ipdone", [] { provisioning_state_machine(PROVISIONING_COMPLETE); }},
};

// --- network configuration -----------------------------------------------------------------------

struct addressing {
    std::string addr;
    std::string mask;
    std::string gw;
    std::optional<std::string> dns1;
    std::string dns2;
    bool is_static = false;
};

// A name server that is none: empty, or the beginning of an all-zero address.
bool is_zero(std::string_view text) {
    return std::string_view("0.0.0.0").starts_with(text);
}

// These go into a command line for the shell: nothing but what an address is written with.
bool is_address(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF.:/") == text.npos;
}

void take_passphrase(const char *text) {
    if (*text == '\0') {
        wifictl_set_pass(text);
        return;
    }
    const MallocText decoded(hex_decode_str_malloc(text));
    if (!decoded) {
        LOGE("Pass string in unexpected format");
        provisioning_handle_error(WIFI_BAD_CONFIG);
        return;
    }
    wifictl_set_pass(decoded.get());
}

struct text_member {
    std::string_view key;
    void (*take)(addressing &, const char *text);
};

constexpr std::array kTextMembers{
    text_member{"ssid", [](addressing &, const char *text) { wifictl_set_ssid(text); }},
    text_member{"bssid", [](addressing &, const char *) {}},  // checked only
    text_member{"pass", [](addressing &, const char *text) { take_passphrase(text); }},
    text_member{"addr",
                [](addressing &to, const char *text) {
                    to.addr = text;
                    to.is_static = true;
                }},
    text_member{"mask", [](addressing &to, const char *text) { to.mask = text; }},
    text_member{"gw", [](addressing &to, const char *text) { to.gw = text; }},
    text_member{"dns1", [](addressing &to, const char *text) { to.dns1 = text; }},
    text_member{"dns2", [](addressing &to, const char *text) { to.dns2 = text; }},
};

void take_member(addressing &to, const char *key, const json_t *value) {
    if (std::string_view(key) == "chan") {  // checked only
        if (json_integer_value(value) == 0)
            LOGE("invalid chan in wlcfg - %d", 0);
        return;
    }
    const auto member = std::find_if(kTextMembers.begin(), kTextMembers.end(),
                                     [key](const auto &entry) { return entry.key == key; });
    if (member == kTextMembers.end())
        LOGE("unknown wlcfg item - %s", pex_one_line(key).c_str());
    else if (!json_is_string(value))
        LOGE("invalid %s in wlcfg", key);
    else
        member->take(to, json_string_value(value));
}

// The name servers for the command, one or two. The second takes the place of a first that was
// given as zero, not of one that was not given: that is the gateway.
void settle_name_servers(addressing &to) {
    if (is_zero(to.dns2))
        to.dns2.clear();
    if (!to.dns1) {
        to.dns1 = to.gw;
    } else if (is_zero(*to.dns1)) {
        to.dns1 = to.dns2.empty() ? to.gw : to.dns2;
        to.dns2.clear();
    }
}

// The blanks before the second server and at the end are what the robot's script is known to take.
std::string static_command(addressing to) {
    settle_name_servers(to);
    for (const auto *part : {&to.addr, &to.mask, &to.gw, &*to.dns1})
        if (!is_address(*part)) {
            LOGE("invalid wlcfg");
            return "";
        }
    if (!to.dns2.empty() && !is_address(to.dns2)) {
        LOGE("invalid wlcfg");
        return "";
    }
    return "sudo provision --clmode static --clipaddr " + to.addr + " --clnetmask " + to.mask +
           " --clgw " + to.gw + " --cldnsns1 " + *to.dns1 + "  --cldnsns2 " +
           (to.dns2.empty() ? "\"#\"" : to.dns2) + " \n";
}

void configure(const addressing &given) {
    if (!given.is_static) {
        wifi_set_addr_type(1);
        wifictl_set_ip_config("sudo provision --clmode dhcp \n");
        provisioning_state_machine(PROVISIONING_NETWORK_CONFIG_RX);
        return;
    }
    const std::string command = static_command(given);
    if (command.empty()) {
        LOGE("generate_static_ip_cmd failed");
        provisioning_handle_error(WIFI_BAD_CONFIG);
        return;
    }
    wifi_set_addr_type(0);
    wifictl_set_ip_config(command.c_str());
    provisioning_state_machine(PROVISIONING_NETWORK_STATIC_CONFIG_RX);
}

void take_network_configuration(const json_t *object) {
    if (!json_is_object(object)) {
        LOGE("bad wlcfg object\n");
        return;
    }
    addressing given;
    const char *key;
    json_t *value;
    json_object_foreach(const_cast<json_t *>(object), key, value) take_member(given, key, value);
    configure(given);
}

// The robot's own password and the start are honoured only beside a network configuration.
void on_wlcfg(const inbound &message, json_t *value) {
    if (message.transport) {
        LOGD("sending wifi status connecting");
        answer(message, R"({"wifistat": {"wifi": 8}})");
    }
    take_network_configuration(value);
    if (const json_t *password = json_object_get(message.root, "robotpass")) {
        if (json_is_string(password)) {
            pex_kvs_set_key_str(kvs_key::kRobotPassword, json_string_value(password));
            robot_epoch_generate_new();
        } else {
            LOGE("json_string_value failed");
        }
    }
    if (const json_t *activate = json_object_get(message.root, "wactivate")) {
        if (json_is_true(activate))
            provisioning_state_machine(PROVISIONING_WACTIVATED);
        else
            LOGE("received wactivate false");
    }
}

// --- what the robot reports ----------------------------------------------------------------------

void on_uap(const inbound & /*message*/, json_t *value) {
    if (!json_is_false(value))
        LOGW("%s: received uap json with unsupported value from app", "on_mqtt_app_message");
    else if (is_robot_training() != 0)
        provisioning_state_machine(TRAIN_END);
    else if (is_robot_provisioning() != 0)
        provisioning_state_machine(PROVISIONING_WACTIVATED);
}

void on_wifistat(const inbound & /*message*/, json_t *value) {
    const json_t *wifi = json_object_get(value, "wifi");
    if (wifi == nullptr)
        LOGW("Could not parse wifistat msg");
    else if (json_is_integer(wifi) && json_integer_value(wifi) == WIFI_REPORTED_BY_PEER)
        wifi_state_set_wifi(WIFI_REPORTED_BY_PEER);
}

void on_mission_status(const inbound & /*message*/, json_t *value) {
    const json_t *cycle = json_object_get(value, "cycle");
    const json_t *phase = json_object_get(value, "phase");
    if (!json_is_string(cycle) || !json_is_string(phase)) {
        LOGW("could not parse cycle or phase from cleanMissionStatus");
        return;
    }
    const bool in_progress = text_of(cycle) != "none" && text_of(phase) != "charge";
    if (in_progress && text_of(cycle) != "dock") {
        LOGD("non-docking mission starting -- aborting provisioning");
        provisioning_state_machine(PROVISIONING_ABORT);
    }
    gateway_pinger_set_mission_in_progress(in_progress ? 1 : 0);
}

void on_cap(const inbound & /*message*/, json_t *value) {
    const MallocText text(json_dumps(value, JSON_COMPACT));
    if (text)
        store_robot_cap(text.get());
    else
        LOGE("robot cap is NULL");
}

void on_nc(const inbound & /*message*/, json_t *value) {
    const json_int_t number = json_integer_value(value);
    if (json_is_integer(value) && number >= INT_MIN && number <= INT_MAX)
        set_nc_val(static_cast<int>(number));
    else
        LOGE("expected integer as value");
}

constexpr std::array kKeys{
    KeyRow{"uap", on_uap},     KeyRow{"wifistat", on_wifistat},
    KeyRow{"wlcfg", on_wlcfg}, KeyRow{"cleanMissionStatus", on_mission_status},
    KeyRow{"cap", on_cap},     KeyRow{"nc", on_nc},
};

// A value that is no text is one that matches nothing.
void handle_vocabulary(const inbound &message) {
    if (const json_t *event = json_object_get(message.root, "event"))
        dispatch(kEvents, text_of(event));
    else if (const json_t *command = json_object_get(message.root, "command"))
        dispatch(kCommands, text_of(command));
    else if (!dispatch_first_key(kKeys, message))
        LOGD("Unsupported message");
}

}  // namespace

void on_mqtt_app_message(mqtt_app * /*app*/, const mqtt_app_message *message) {
    if (message->payload_len <= 0) {
        LOGD("%s (null)\n", message->topic);
        return;
    }
    inbound received{message->topic,
                     std::string(message->payload, static_cast<size_t>(message->payload_len)),
                     nullptr, false};
    LOGD("mqtt_client (network) rx (len = %d) %s %s\n", message->payload_len, received.topic,
         pex_one_line(received.payload.c_str()).c_str());
    const Json root(json_loads(received.payload.c_str(), 0, nullptr));
    if (!root) {
        LOGE("json_loads() failed");
        return;
    }
    received.root = root.get();
    int type = 0;
    received.transport =
        get_tarn_message_type(get_network_tarn_handle(), received.topic, &type) == 0;
    if (received.transport)
        handle_transport_message(received);
    handle_vocabulary(received);
}
