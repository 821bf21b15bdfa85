// The vocabulary of inbound messages, handed in as the broker thread does.
#include "mqtt_dispatch.h"

#include <cstring>
#include <regex>
#include <sstream>

#include "bus.h"
#include "gateway_pinger.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "robot.h"
#include "vocabulary.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

void receive(const std::string &payload, const std::string &topic = "brisk/network/events") {
    const mqtt_app_message message{1, topic.c_str(), payload.c_str(),
                                   static_cast<int>(payload.size())};
    on_mqtt_app_message(nullptr, &message);
}

std::string answered;  // "TOPIC TEXT; " of each

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    if (topic.find("/req/") == topic.npos)
        answered += topic + " " + text;
    return "{}";
}

class Dispatcher : public Robot {
  protected:
    Dispatcher() {
        tell_stories();
        exchange_mqtt_app(mqtt_client_init(on_mqtt_app_message));
        fake("sudo", "exit 0");
    }
    // What the dispatcher made of the message, and provisioning a second later.
    std::string heard(const std::string &payload, const std::string &topic, int state) {
        static const std::regex line(
            R"(\[(?:INFO|WARN|ERROR)\] \(src/mqtt_client:[^)]*\) (.*)|)"
            R"(\[DBG\] \(src/mqtt_client:\d+\) ((?:\w+ing wifi device|non-docking).*)|)"
            R"(.* (wifi = 7|wifi = 9)|.*: rx event (\w+) in state.*)");
        answered.clear();
        provisioning_enter_state(static_cast<provisioning_state>(state));
        forget_log();
        receive(payload, topic);
        provisioning_timer_tick(now_++);
        std::istringstream all(log_text());
        std::string text;
        for (std::string each; std::getline(all, each);)
            if (std::regex_match(each, line))
                text += std::regex_replace(each, line, "$1$2$3$4; ");
        return text;
    }
    long now_ = 100;
    const Bus bus_{answer};
};

TEST_F(Dispatcher, EveryMessageOnEveryKindOfTopic) {
    for (const auto &[text, answer, on_transport, heard_anywhere, state] : kVocabulary) {
        SCOPED_TRACE(text);
        const bool is_event = std::string_view(answer) == "ack";
        EXPECT_EQ(heard(text, "brisk/network/events", state), heard_anywhere);
        EXPECT_EQ(answered, "");
        const std::string both = std::string(on_transport) + heard_anywhere;
        EXPECT_EQ(heard(text, "tarn/network/event/30/8", state), both);
        EXPECT_EQ(answered, is_event ? "tarn/30/ack/network/8 " : "");
        EXPECT_EQ(heard(text, "tarn/network/req/30/7", state), both);
        EXPECT_THAT(answered,
                    testing::StartsWith(is_event || *answer == '\0'
                                            ? ""
                                            : "tarn/30/resp/network/7 " + std::string(answer)));
        EXPECT_EQ(answered.empty(), is_event || *answer == '\0');
    }
    EXPECT_EQ(get_nc_val(), 1);
    EXPECT_EQ(kvs_get("robot.password"), "pw");
}

// In the order of the document: what goes in has the effect that is told there, and what is asked
// gets the answer that is told there.
TEST_F(Dispatcher, DocumentedMessages) {
    const std::regex example(R"((in|out) (\S+)(?: -> (.*))?)");
    std::istringstream lines(read_file("/mnt/messages.md"));
    int sent = 0;
    std::smatch found;
    for (std::string line, payload; std::getline(lines, line);) {
        if (!line.starts_with("```json ") || !std::getline(lines, payload))
            continue;
        line.erase(0, strlen("```json "));
        ASSERT_TRUE(std::regex_match(line, found, example)) << line;
        const std::string topic = found[2], effect = found[3];
        if (found[1] == "in") {
            answered.clear();
            receive(payload, topic);
            provisioning_timer_tick(now_++);
            EXPECT_THAT(log_text(), testing::HasSubstr(effect)) << line;
            forget_log();
            sent++;
        } else if (topic.starts_with("tarn/30/")) {
            EXPECT_EQ(answered, topic + " " + payload);
        }
    }
    EXPECT_GE(sent, 25);
    receive(R"({"get":"discovery"})", "tarn/network/req/30/7");
    EXPECT_THAT(answered,
                testing::HasSubstr(R"("nc":5,"proto":"mqtt","cap":{"ota":2,"maps":3,"pose":1})"));
}

constexpr char kOne[] =
    "sudo provision --clmode static --clipaddr 10.0.0.2 --clnetmask 255.0.0.0 --clgw 10.0.0.1 "
    "--cldnsns1 ";

TEST_F(Dispatcher, StaticAddressesAndTheirNameServers) {
    const std::string none = "  --cldnsns2 \"#\" \n";
    struct {
        const char *servers;
        std::string command;  // behind the first server's option; empty when refused
    } const cases[] = {
        {R"()", "10.0.0.1" + none},
        {R"(,"dns1":"1.1.1.1")", "1.1.1.1" + none},
        {R"(,"dns1":"1.1.1.1","dns2":"8.8.8.8")", "1.1.1.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns1":"0.0.0.0","dns2":"8.8.8.8")", "8.8.8.8" + none},
        {R"(,"dns1":"1.1.1.1","dns2":"0")", "1.1.1.1" + none},
        {R"(,"dns1":"","dns2":"")", "10.0.0.1" + none},
        {R"(,"dns1":"","dns2":"8.8.8.8")", "8.8.8.8" + none},
        {R"(,"dns2":"8.8.8.8")", "10.0.0.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns1":7,"dns2":"8.8.8.8")", "10.0.0.1  --cldnsns2 8.8.8.8 \n"},
        {R"(,"dns2":"0.0.0.0")", "10.0.0.1" + none},
        {R"(,"dns1":"1.1.1.1;reboot")", ""},
        {R"(,"dns1":"1.1.1.1","dns2":"`reboot`")", ""},
        {R"(,"gw":"10.0.0.1 x")", ""},
        {R"(,"mask":"")", ""},
    };
    for (const auto &row : cases) {
        wifictl_set_ip_config("before");
        receive(std::string(R"({"wlcfg":{"addr":"10.0.0.2","mask":"255.0.0.0","gw":"10.0.0.1")") +
                row.servers + "}}");
        EXPECT_EQ(wifictl_get_temp_ip_config(), row.command.empty() ? "before" : kOne + row.command)
            << row.servers;
    }
    EXPECT_TRUE(eventually([&] { return times_logged("generate_static_ip_cmd failed") == 4; }));
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_BAD_CONFIG);
    EXPECT_EQ(wifi_get_addr_type(), 0);
    receive(R"({"wlcfg":{}})");
    EXPECT_STREQ(wifictl_get_temp_ip_config(), "sudo provision --clmode dhcp \n");
    EXPECT_EQ(wifi_get_addr_type(), 1);
}

TEST_F(Dispatcher, CredentialsAreDecodedAndBadMembersNamed) {
    receive(R"({"wlcfg":{"ssid":"4142","pass":"6b6579","bssid":"x","chan":6},"robotpass":"pw"})");
    EXPECT_STREQ(wifictl_get_temp_ssid(), "4142");
    EXPECT_STREQ(wifictl_get_temp_pass(), "key");
    EXPECT_EQ(kvs_get("robot.password"), "pw");
    receive(R"({"wlcfg":{"ssid":5,"pass":"xyz","chan":0,"gw":[],"more":1},"robotpass":7,)"
            R"("wactivate":false})");
    for (const char *text :
         {"invalid ssid in wlcfg", "Pass string in unexpected format", "invalid chan in wlcfg - 0",
          "invalid gw in wlcfg", "unknown wlcfg item - more", "json_string_value failed",
          "received wactivate false"})
        EXPECT_TRUE(logged(text)) << text;
    EXPECT_STREQ(wifictl_get_temp_pass(), "key");
    receive(R"({"wlcfg":{"pass":""}})");
    EXPECT_STREQ(wifictl_get_temp_pass(), "");
    receive(R"({"wlcfg":4})");
    EXPECT_TRUE(logged("bad wlcfg object"));
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
    EXPECT_TRUE(logged("Failed to delete /tmp/tidelink_connected"));
    EXPECT_EQ(times_logged("head index"), 1);
}

TEST_F(Dispatcher, AsksAndTellsOtherProcesses) {
    char response[8] = "";
    EXPECT_EQ(network_send_tarn_req(12, "{}", response, sizeof response), 0);
    EXPECT_STREQ(response, "{}");
    answered.clear();
    EXPECT_EQ(network_send_tarn_event(2, R"({"event":"x"})", 2), 0);
    EXPECT_THAT(answered, testing::MatchesRegex(R"(tarn/2/event/network/[0-9]+ ..event.:.x..)"));
    tarn_lib *const transport = exchange_network_tarn_handle(nullptr);
    EXPECT_EQ(network_send_tarn_req(12, "{}", response, sizeof response), 1);
    EXPECT_EQ(network_send_tarn_event(2, "{}", 2), 255);
    EXPECT_EQ(times_logged("tarn_alloc_req_handle failed"), 2);
    exchange_network_tarn_handle(transport);
}

TEST_F(Dispatcher, MissionsForbidTheReboot) {
    for (const auto &[status, in_progress] : {std::pair(R"({"cycle":"clean","phase":"run"})", 1),
                                              {R"({"cycle":"none","phase":"run"})", 0},
                                              {R"({"cycle":"dock","phase":"run"})", 1},
                                              {R"({"cycle":"clean","phase":"charge"})", 0},
                                              {R"({"cycle":"clean","phase":"stop"})", 1},
                                              {R"({"cycle":"none"})", 1}}) {
        receive(std::string(R"({"cleanMissionStatus":)") + status + "}");
        EXPECT_EQ(gateway_pinger_get_mission_in_progress(), in_progress) << status;
    }
}

TEST_F(Dispatcher, NonsenseChangesNothing) {
    const std::string deep(5000, '[');
    for (const std::string &payload :
         {std::string(), std::string("no json"), std::string(R"({"event":5})"),
          std::string(R"({"command":null})"), std::string("[1,2]"), std::string("\xff\xfe"),
          std::string("{\"event\":\"\xff\"}"), std::string(65536, '{'), R"({"wlcfg":)" + deep,
          std::string(R"({"nc":99999999999})")})
        receive(payload);
    EXPECT_EQ(times_logged("head index"), 0) << "nothing was posted";
    EXPECT_EQ(times_logged("json_loads() failed"), 5);
    EXPECT_EQ(times_logged("brisk/network/events (null)"), 1);
    EXPECT_EQ(get_nc_val(), 0);
}

}  // namespace
