// The vocabulary of inbound messages, handed in as the broker thread does.
#include "mqtt_dispatch.h"

#include <cstring>
#include <regex>
#include <sstream>

#include "bus.h"
#include "device_tracking.h"
#include "gateway_pinger.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

using testing::HasSubstr;

struct phrase {
    const char *text;
    const char *heard;  // log lines, events of provisioning that it posts, what it sets
    int state = 0;      // of provisioning when it comes
    const char *answer = "";
};
constexpr char kAcknowledged[] = "ack", kConnecting[] = R"({"wifistat": {"wifi": 8}})";

constexpr phrase kOfProcesses[]{
    {R"({"set_log_level":"debug"})", "tarn_handle_set_log_level_request failed; ", 0,
     R"({"set_log_level": null})"},
    {R"({"get":"channel"})", "", 0, R"({"channel": 0})"},
    {R"({"get":"discovery"})", "", 0, R"({"ver":"3",)"},
    {R"({"get":"time"})", ""},
    {R"({"logWifiLinkInfo":1})", "rssi: -128, channel: 0, noise: -90; ", 0,
     R"({"logWifiLinkInfo":1})"},
    {R"({"event":"localConnect"})", "TRAIN_CONNECT; ", 0, kAcknowledged},
    {R"({"event":"localDisconnect"})", "TRAIN_DISCONNECT; ", 0, kAcknowledged},
    {R"({"event":"mfg_test_start"})", "MFG_WIFI_TEST; ", 0, kAcknowledged},
    {R"({"event":"restartNetwork"})",
     "Network manager received restart network request, restarting...; ", 0, kAcknowledged},
    {R"({"mfg_test":"btTest"})", "TRAIN_ABORT; ", 0, kAcknowledged},
    {R"({"mfg_test":"unheardOf"})", "", 0, kAcknowledged},
};

// From other processes an event is acknowledged, and settings are answered.
constexpr phrase kOfAnybody[]{
    {R"({"event":"tidelinkConnected"})", "Failed to delete /tmp/tidelink_connected; "},
    {R"({"event":"provisioning"})", "PROVISIONING_ACTIVATED; "},
    {R"({"event":"training"})", "TRAIN_START; "},
    {R"({"event":"btnpress"})", ""},
    {R"({"event":"btnpress"})", "PROVISIONING_ABORT; ", 4},
    {R"({"event":"btnpress"})", "TRAIN_ABORT; ", 5},
    {R"({"event":"startWifiDeviceTracking"})", "starting wifi device tracking; tracks; "},
    {R"({"event":"pauseWifiDeviceTracking"})", "pausing wifi device tracking; "},
    {R"({"event":"startWifiDeviceTracking"})", "starting wifi device tracking; tracks; "},
    {R"({"event":"stopWifiDeviceTracking"})", "stopping wifi device tracking; "},
    {R"({"event":5})", ""},
    {R"({"command":"ipdone"})", "PROVISIONING_COMPLETE; "},
    {R"({"command":"unheardOf","uap":false})", "", 5},
    {R"({"uap":false})", ""},
    {R"({"uap":false})", "PROVISIONING_WACTIVATED; ", 1},
    {R"({"uap":false})", "TRAIN_END; ", 5},
    {R"({"uap":true})", "on_mqtt_app_message: received uap json with unsupported value from app; "},
    {R"({"wifistat":{"wifi":7}})", "wifi = 7; "},
    {R"({"wifistat":{"wifi":8}})", ""},
    {R"({"wifistat":{"wifi":"7"}})", ""},
    {R"({"wifistat":3})", "Could not parse wifistat msg; "},
    {R"({"cleanMissionStatus":{"cycle":"clean","phase":"run"}})",
     "non-docking mission starting -- aborting provisioning; PROVISIONING_ABORT; mission; ", 1},
    {R"({"cleanMissionStatus":{"cycle":"dock","phase":"run"}})", "mission; ", 1},
    {R"({"cleanMissionStatus":{"cycle":"none","phase":"run"}})", "", 1},
    {R"({"cleanMissionStatus":{"cycle":"clean","phase":"charge"}})", "", 1},
    {R"({"cleanMissionStatus":{"cycle":"clean"}})",
     "could not parse cycle or phase from cleanMissionStatus; ", 1},
    {R"({"cap":{"maps":3}})", ""},
    {R"({"cap":7})", "robot cap is NULL; "},
    {R"({"nc":2147483647})", "nc 2147483647; "},
    {R"({"nc":-2147483648})", "nc -2147483648; "},
    {R"({"nc":2147483648})", "expected integer as value; "},
    {R"({"nc":-2147483649})", "expected integer as value; "},
    {R"({"nc":1.5})", "expected integer as value; "},
    {R"({"wlcfg":{}})", "PROVISIONING_NETWORK_CONFIG_RX; "},
    {R"({"wlcfg":4})", "bad wlcfg object; "},
    {R"({"wlcfg":{"ssid":"4142","pass":"6b65796b65796b6579","bssid":"0","chan":6},)"
     R"("robotpass":"pw","wactivate":true})",
     "PROVISIONING_NETWORK_CONFIG_RX; PROVISIONING_WACTIVATED; "
     "ssid 4142; pass keykeykey; robot.password pw; "},
    {R"({"wlcfg":{"pass":"","chan":0}})",
     "invalid chan in wlcfg - 0; PROVISIONING_NETWORK_CONFIG_RX; pass ; "},
    {R"({"wlcfg":{"ssid":5,"bssid":1,"pass":"xyz","gw":[],"more":1},"robotpass":7})",
     "invalid ssid in wlcfg; invalid bssid in wlcfg; Pass string in unexpected format; wifi = 9; "
     "invalid gw in wlcfg; unknown wlcfg item - more; json_string_value failed; "
     "PROVISIONING_ERROR; PROVISIONING_NETWORK_CONFIG_RX; "},
    {R"({"wlcfg":{"addr":"10.0.0.2"},"wactivate":false})",
     "invalid wlcfg; generate_static_ip_cmd failed; wifi = 9; received wactivate false; "
     "PROVISIONING_ERROR; "},
    {R"({"robotpass":"pw","wactivate":true})", ""},
};

std::string answered;  // "TOPIC TEXT; " of each

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    if (topic.find("/req/") == topic.npos)
        answered += topic + " " + text;
    return "{}";
}

void receive(const std::string &payload, const std::string &topic = "brisk/network/events") {
    const mqtt_app_message message{1, topic.c_str(), payload.c_str(),
                                   static_cast<int>(payload.size())};
    on_mqtt_app_message(nullptr, &message);
}

class Dispatcher : public Robot {
  protected:
    Dispatcher() {
        tell_stories();
        exchange_mqtt_app(mqtt_client_init(on_mqtt_app_message));
        fake("sudo", "exit 0");
    }
    // What the dispatcher made of the message, and provisioning a second later.
    std::string heard(const phrase &message, const std::string &topic) {
        static const std::regex line(
            R"(\[(?:INFO|WARN|ERROR)\] \(src/mqtt_client:[^)]*\) (.*)|)"
            R"(\[DBG\] \(src/mqtt_client:\d+\) ((?:\w+ing wifi device|non-docking).*)|)"
            R"(.* (wifi = [79])|.*: rx event (\w+) in state.*)");
        answered.clear();
        provisioning_enter_state(static_cast<provisioning_state>(message.state));
        gateway_pinger_set_mission_in_progress(0);
        set_nc_val(0);
        wifictl_set_ssid("?");
        wifictl_set_pass("?");
        kvs_set("robot.password", "?");
        forget_log();
        receive(message.text, topic);
        provisioning_timer_tick(now_++);
        std::string text;
        std::istringstream all(log_text());
        for (std::string each; std::getline(all, each);)
            if (std::regex_match(each, line))
                text += std::regex_replace(each, line, "$1$2$3$4; ");
        for (const auto &[name, value, before] :
             {std::tuple("ssid ", std::string(wifictl_get_temp_ssid()), "?"),
              {"pass ", wifictl_get_temp_pass(), "?"},
              {"robot.password ", kvs_get("robot.password"), "?"},
              {"nc ", std::to_string(get_nc_val()), "0"}})
            text += value == before ? "" : name + value + "; ";
        text += gateway_pinger_get_mission_in_progress() != 0 ? "mission; " : "";
        text += is_device_discovery_active() != 0 ? "tracks; " : "";
        return text;
    }
    // On a topic of other processes, as an event and as a request.
    void expect_on_transport(const phrase &message, const std::string &answer,
                             const std::string &expected) {
        const bool is_event = answer == kAcknowledged, is_answered = !is_event && !answer.empty();
        EXPECT_EQ(heard(message, "tarn/network/event/30/8"), expected);
        EXPECT_EQ(answered, is_event ? "tarn/30/ack/network/8 " : "");
        EXPECT_EQ(heard(message, "tarn/network/req/30/7"), expected);
        EXPECT_EQ(answered.substr(0, strlen("tarn/30/resp/network/7 ") + answer.size()),
                  is_answered ? "tarn/30/resp/network/7 " + answer : "");
    }
    long now_ = 100;
    const Bus bus_{answer};
};

TEST_F(Dispatcher, EveryMessageOnEveryKindOfTopic) {
    for (const phrase &each : kOfProcesses) {
        SCOPED_TRACE(each.text);
        EXPECT_EQ(heard(each, "brisk/network/events"), "");
        expect_on_transport(each, each.answer, each.heard);
    }
    for (const phrase &each : kOfAnybody) {
        SCOPED_TRACE(each.text);
        const std::string text = each.text, heard_here = heard(each, "brisk/network/events");
        EXPECT_EQ(heard_here, each.heard);
        EXPECT_EQ(answered, "");
        const bool is_event = text.starts_with(R"({"event")"),
                   is_wlcfg = text.starts_with(R"({"wlcfg")");
        expect_on_transport(each,
                            is_event   ? kAcknowledged
                            : is_wlcfg ? kConnecting
                                       : "",
                            (is_event ? "" : "Unsupported message; ") + heard_here);
    }
}

// In the order of the document: what goes in has the effect that is told there, and what is asked
// gets the answer that is told there.
TEST_F(Dispatcher, DocumentedMessages) {
    const std::string text = read_file("/mnt/messages.md");
    const std::regex example("```json (in|out) (\\S+)(?: -> (.*))?\n(.*)\n");
    int sent = 0;
    for (std::sregex_iterator each(text.begin(), text.end(), example), end; each != end; ++each) {
        const std::string topic = (*each)[2], effect = (*each)[3], payload = (*each)[4];
        if ((*each)[1] == "in") {
            answered.clear();
            forget_log();
            receive(payload, topic);
            provisioning_timer_tick(now_++);
            EXPECT_THAT(log_text(), HasSubstr(effect)) << payload;
            sent++;
        } else if (topic.starts_with("tarn/30/")) {
            EXPECT_EQ(answered, topic + " " + payload);
        }
    }
    EXPECT_GE(sent, 25);
    receive(R"({"get":"discovery"})", "tarn/network/req/30/7");
    EXPECT_THAT(answered, HasSubstr(R"("nc":5,"proto":"mqtt","cap":{"ota":2,"maps":3,"pose":1})"));
}

TEST_F(Dispatcher, StaticAddressesAndTheirNameServers) {
    constexpr char kOne[] =
        "sudo provision --clmode static --clipaddr 10.0.0.2 --clnetmask "
        "255.0.0.0 --clgw 10.0.0.1 --cldnsns1 ";
    const std::string none = "  --cldnsns2 \"#\" \n";
    const struct {
        const char *servers;
        std::string command;  // behind the first server's option; empty when refused
    } cases[] = {
        {R"()", "10.0.0.1" + none},
        {R"(,"dns1":"1.1.1.1")", "1.1.1.1" + none},
        {R"(,"dns1":"1.1.1.1","dns2":"8.8.8.8")", "1.1.1.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns1":"0.0.0.0","dns2":"8.8.8.8")", "8.8.8.8" + none},
        {R"(,"dns1":"1.1.1.1","dns2":"0")", "1.1.1.1" + none},
        {R"(,"dns1":"","dns2":"")", "10.0.0.1" + none},
        {R"(,"dns2":"8.8.8.8")", "10.0.0.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns1":7,"dns2":"8.8.8.8")", "10.0.0.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns1":"1.1.1.1;reboot")", ""},
        {R"(,"dns1":"1.1.1.1","dns2":"`reboot`")", ""},
        {R"(,"gw":"10.0.0.1 x")", ""},
        {R"(,"mask":"")", ""},
    };
    for (const auto &row : cases) {
        wifictl_set_ip_config("before");
        wifi_set_addr_type(7);
        receive(std::string(R"({"wlcfg":{"addr":"10.0.0.2","mask":"255.0.0.0","gw":"10.0.0.1")") +
                row.servers + "}}");
        EXPECT_EQ(wifictl_get_temp_ip_config(), row.command.empty() ? "before" : kOne + row.command)
            << row.servers;
        EXPECT_EQ(wifi_get_addr_type(), row.command.empty() ? 7 : 0);
    }
    receive(R"({"wlcfg":{}})");
    EXPECT_STREQ(wifictl_get_temp_ip_config(), "sudo provision --clmode dhcp \n");
    EXPECT_EQ(wifi_get_addr_type(), 1);
}

// A line end in a message would begin a line of the sender's choice in the log.
TEST_F(Dispatcher, ForeignTextsStayOnTheirLogLine) {
    const std::string forged(65, 'x');
    receive("{\"wlcfg\":\n {\"a\\n[ERROR] b\":1,\"ssid\":\"\\u001b\\r\\n\\u007f \u00e4" + forged +
            "\"}}");
    EXPECT_TRUE(logged(R"(brisk/network/events {"wlcfg":? {"a\n[ERROR] b":1,)"));
    EXPECT_TRUE(logged_as("ERROR", "unknown wlcfg item - a?[ERROR] b"));
    EXPECT_TRUE(logged_as("WARN", "SSID ???? \u00e4" + forged + " is too long -- truncated"));
}

TEST_F(Dispatcher, ProvisioningWaitsForTheTidelink) {
    receive(R"({"event":"provisioning"})");
    EXPECT_TRUE(logged("Provisioning attempted but tidelink not connected. Waiting..."));
    write_file("/tmp/tidelink_connected", "");
    receive(R"({"event":"tidelinkConnected"})");
    EXPECT_TRUE(logged("Was waiting for tidelink, entering provisioning mode now."));
    EXPECT_EQ(read_file("/tmp/tidelink_connected"), "<none>");
    receive(R"({"event":"tidelinkConnected"})");
    EXPECT_EQ(times_logged("head index"), 1);
}

TEST_F(Dispatcher, AsksAndTellsOtherProcesses) {
    receive(R"({"set_log_level":"dbg"})", "tarn/network/req/30/7");
    EXPECT_EQ(std::exchange(answered, ""), R"(tarn/30/resp/network/7 {"set_log_level": "dbg"})");
    char response[8] = "";
    EXPECT_EQ(network_send_tarn_req(12, "{}", response, 8), 0);
    EXPECT_STREQ(response, "{}");
    EXPECT_EQ(network_send_tarn_event(2, "x", 2), 0);
    EXPECT_THAT(answered, testing::MatchesRegex(R"(tarn/2/event/network/[0-9]+ x)"));
    tarn_lib *const transport = get_network_tarn_handle();
    for (tarn_lib *const each : {transport, static_cast<tarn_lib *>(nullptr)}) {
        exchange_network_tarn_handle(each);
        EXPECT_EQ(network_send_tarn_req(-1, "{}", response, 8), 1);
        EXPECT_EQ(network_send_tarn_event(-1, "{}", 2), 255);
    }
    EXPECT_EQ(times_logged("tarn_alloc_req_handle failed"), 2);
    exchange_network_tarn_handle(transport);
}

TEST_F(Dispatcher, MissionsEndOnTheDockAndNonsenseChangesNothing) {
    for (const char *end : {R"("cycle":"none","phase":"run")", R"("cycle":"x","phase":"charge")"}) {
        for (const std::string &nonsense :
             {std::string("no json"), std::string("{\"nc\":\"\xff\"}"), std::string(),
              std::string(65536, '{')})
            EXPECT_EQ(heard({nonsense.c_str(), ""}, "tarn/network/req/30/7"),
                      nonsense.empty() ? "" : "json_loads() failed; ");
        gateway_pinger_set_mission_in_progress(1);
        receive(std::string(R"({"cleanMissionStatus":{)") + end + "}}");
        EXPECT_EQ(gateway_pinger_get_mission_in_progress(), 0) << end;
    }
}

}  // namespace
