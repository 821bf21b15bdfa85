// The vocabulary of inbound messages, handed in as the broker thread does.

#include "mqtt_dispatch.h"

#include "gateway_pinger.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "provisioning_sm.h"
#include "robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

class Dispatcher : public Robot {
  protected:
    static void receive(const std::string &payload) {
        const mqtt_app_message message{1, "brisk/network/events", payload.c_str(),
                                       static_cast<int>(payload.size())};
        on_mqtt_app_message(nullptr, &message);
    }
};

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

TEST_F(Dispatcher, MissionsForbidTheReboot) {
    struct {
        const char *status;
        int in_progress;
    } const cases[] = {
        {R"({"cycle":"clean","phase":"run"})", 1},  {R"({"cycle":"none","phase":"run"})", 0},
        {R"({"cycle":"dock","phase":"run"})", 1},   {R"({"cycle":"clean","phase":"charge"})", 0},
        {R"({"cycle":"clean","phase":"stop"})", 1}, {R"({"cycle":"none"})", 1},
    };
    for (const auto &row : cases) {
        receive(std::string(R"({"cleanMissionStatus":)") + row.status + "}");
        EXPECT_EQ(gateway_pinger_get_mission_in_progress(), row.in_progress) << row.status;
    }
    EXPECT_TRUE(eventually([&] { return times_logged("aborting provisioning") == 2; }));
}

TEST_F(Dispatcher, NonsenseChangesNothing) {
    std::string deep = R"({"wlcfg":)";
    for (int i = 0; i < 5000; i++)
        deep += "[";
    for (const std::string &payload :
         {std::string("{\"event\":5}"), std::string("{\"command\":null}"), std::string("[1,2]"),
          std::string("{\"uap\":true}"), std::string("{\"wifistat\":3}"),
          std::string("{\"nc\":1.5}"), std::string("{\"cap\":7}"), std::string("\xff\xfe"),
          std::string("{\"event\":\"\xff\"}"), std::string(65536, '{'), deep,
          std::string("{\"nc\":99999999999}")})
        receive(payload);
    EXPECT_EQ(times_logged("head index"), 0);  // nothing was posted
    EXPECT_TRUE(logged("on_mqtt_app_message: received uap json with unsupported value from app"));
    EXPECT_TRUE(logged("robot cap is NULL"));
    EXPECT_EQ(get_nc_val(), 0);
    receive(R"({"nc":42})");
    EXPECT_EQ(get_nc_val(), 42);
    receive(R"({"wifistat":{"wifi":7}})");
    EXPECT_EQ(wifi_state_get_wifi(), 7);
}

}  // namespace
