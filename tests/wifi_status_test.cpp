// What the robot reports about its connection: events, the main thread's passes, timers.
#include "wifi_status.h"

#include <signal.h>

#include <regex>

#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "pex_misc.h"
#include "process_handles.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "wifi_connect.h"
#include "wifi_control.h"
#include "wifi_events.h"
#include "wifi_netinfo.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

constexpr char kConnected[] = "CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:00:01 completed";
constexpr char kDisconnected[] = "CTRL-EVENT-DISCONNECTED bssid=02:00:00:00:00:01 reason=3";
constexpr char kRejected[] = "CTRL-EVENT-ASSOC-REJECT bssid=02:00:00:00:00:01 status_code=17";
constexpr char kWrongKey[] = "CTRL-EVENT-SSID-TEMP-DISABLED id=0 ssid=\"Garden\" reason=WRONG_KEY";

class WifiStatus : public WifiRobot {
  protected:
    WifiStatus() {
        tell_stories();
        exchange_mqtt_app(mqtt_client_init([](auto...) {}));  // what is sent waits for ever
    }
    // The app's "activate": a connect that succeeds, and the timers armed.
    static void activate() {
        int32_t code = -1;
        wifictl_set_ssid("47617264656e");
        ASSERT_EQ(wifi_wactivate(&code), 0);
        ASSERT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
        forget_commands();
    }
    // The next state that the timers lead to, and after how many of at most 60 ticks.
    static std::string outcome() {
        const int32_t before = wifi_state_get_wifi();
        for (int count = 1; count <= 60; count++) {
            wifi_timer_tick(count);
            if (wifi_state_get_wifi() != before)
                return pex_format("%d after %d", wifi_state_get_wifi(), count);
        }
        return "none";
    }
    bool posted(const std::string &event) {
        provisioning_timer_tick(1);
        return logged("rx event " + event);
    }
};

TEST_F(WifiStatus, FollowsTheLinkAndTheGateway) {
    // What a pass in each of these states does, and whether a gateway is known then.
    const auto passes = [](std::initializer_list<int32_t> states) {
        std::string told;
        for (const int32_t state : states) {
            if (state != wifi_state_get_wifi())
                wifi_state_set_wifi(state);
            forget_commands();
            wifi_network_status_update();
            netinfo info;
            wifi_get_netinfo(&info);
            told += std::regex_replace(story("src/wifi_control"), std::regex("\n"), "; ") +
                    (info.gw != 0 ? "known | " : "| ");
        }
        return told;
    };
    const std::string ping = "sudo arping -Iwlan0 -c1 192.0.2.1 -w 2; ";
    const std::string wifistat = "events {\"wifistat\":{\"wifi\":1,\"uap\":false}}; ";
    const std::string up = ping + "wifi = 1; sudo wpa_cli -iwlan0 status; network/" + wifistat +
                           "brisk/robot/" + wifistat + "known | ";
    activate();
    EXPECT_EQ(passes({WIFI_CONNECTING, WIFI_CONNECTED}), "| wifi = 5; | ");
    give_address();
    wlan_monitor_event(kConnected);
    signal(16, SIG_IGN);
    write_file("/var/run/udhcpc.wlan0.pid", std::to_string(getpid()));
    EXPECT_EQ(passes({WIFI_CONNECTING, WIFI_ASSOC_TIMEOUT, WIFI_NETWORK_DOWN}),
              ping + "known | " + ping + "wifi = 8; known | " + ping + "wifi = 8; known | ");
    write_file("/var/run/udhcpc.wlan0.pid", "4194305");  // nobody, and need not be asked again
    write_file("/tmp/answers", "");
    EXPECT_EQ(passes({WIFI_NETWORK_DOWN, WIFI_CONNECTED, WIFI_NETWORK_DOWN}),
              up + "known | kill failed with errno 3; " + up);
    wlan_monitor_event(kDisconnected);
    provisioning_enter_state(WAITING_FOR_WACTIVATE);
    EXPECT_EQ(passes({WIFI_CONNECTED}), "wifi = 0; known | ");
    provisioning_enter_state(PS_NONE);
    EXPECT_EQ(passes({WIFI_CONNECTED, WIFI_DHCP_TIMEOUT}), "wifi = 5; | | ");
    ASSERT_EQ(system("ip route del default"), 0);
    EXPECT_EQ(wifi_netinfo_is_valid(), 0);
    EXPECT_TRUE(logged("have IP but have not read GW addr"));
}

TEST_F(WifiStatus, TimersEndWithTheReasonOrWithTheStation) {
    for (const auto &[event, ending] : {std::pair(+kDisconnected, "2 after 35"),
                                        {kRejected, "6 after 35"},
                                        {kConnected, "4 after 50"}}) {
        activate();
        wlan_monitor_event(event);
        EXPECT_EQ(outcome(), ending);
        EXPECT_EQ(outcome(), "none") << "the other timer ended with it";
        EXPECT_TRUE(posted("PROVISIONING_ERROR"));
        forget_log();
    }
    activate();
    wifi_sta_iface_down();
    EXPECT_EQ(outcome(), "none") << "the station's end forgets both";
    activate();
    give_address();
    write_file("/tmp/answers", "");
    wlan_monitor_event(kConnected);
    EXPECT_EQ(outcome(), "none");
    EXPECT_TRUE(posted("PROVISIONING_DHCP_COMPLETE"));
}

TEST_F(WifiStatus, TheSecondWrongKeyOfAConnectIsAnError) {
    for (int i = 0; i < 2; i++) {
        activate();
        wlan_monitor_event("CTRL-EVENT-SSID-TEMP-DISABLED ssid=\"WRONG_KEY\" reason=CONN_FAILED");
        wlan_monitor_event(kWrongKey);
        EXPECT_TRUE(posted("PROVISIONING_RETRY_PASSWORD"));
        EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
        wlan_monitor_event(kWrongKey);
        wlan_monitor_event(kWrongKey);
        EXPECT_EQ(wifi_state_get_wifi(), WIFI_AUTH_ERROR);
        EXPECT_TRUE(posted("PROVISIONING_ERROR"));
        EXPECT_EQ(times_logged("rx event"), 2);
        forget_log();
    }
    EXPECT_EQ(outcome(), "none");
}

TEST_F(WifiStatus, TheLogShowsNoNameOfANetwork) {
    const std::pair<const char *, const char *> events[] = {
        {"SME: Trying to authenticate with 02:00:00:00:00:01 (SSID='Garden' freq=1) 2:0:0:0:0:1 "
         "02:00:00:00:00:02",
         "SME: Trying to authenticate with **:**:**:**:**:** (SSID='******' freq=1) 2:0:0:0:0:1 "
         "**:**:**:**:**:**"},
        {R"(SSID='Garden' ssid="Home" ssid="" SSID="Yard" ssid='Attic')",
         R"(SSID='******' ssid="****" ssid="" SSID="****" ssid='*****')"},
        {R"(ssid="Ann's \"old\" \\" reason="x" SSID='Ann's house' freq=1)",
         R"(ssid="****************" reason="x" SSID='***********' freq=1)"},
        {R"(ssid=plain bssid=1 ssid="cut off)", R"(ssid=plain bssid=1 ssid="cut off)"},
        {"ssid=", "ssid="},
    };
    for (const auto &[event, shown] : events) {
        wlan_monitor_event(event);
        EXPECT_TRUE(logged_as("INFO", std::string("wlan monitor event - ") + shown)) << log_text();
    }
}

TEST_F(WifiStatus, RefreshReadsChannelAndSecurity) {
    const auto refresh = [](const std::string &script) {
        wifi_init_netinfo();
        wifi_set_sta_channel(-1);
        fake("wpa_cli", script);
        wifi_refresh_link_status();
        netinfo info;
        wifi_get_netinfo(&info);
        return pex_format("%d %d %d", wifi_get_sta_channel(), info.sec, info.bssid[5]);
    };
    // IEEE 802.11: 5 MHz apart, but for channel 14.
    for (int channel = 1; channel <= 14; channel++) {
        const int frequency = channel == 14 ? 2484 : 2407 + 5 * channel;
        EXPECT_EQ(refresh(pex_format("echo freq=%d", frequency)), pex_format("%d 7 0", channel));
    }
    for (const auto &[lines, result] :
         {std::pair("bssid=02:00:00:00:00:09\nfreq=5180\nkey_mgmt=WPA2-PSK", "36 4 9"),
          {"key_mgmt=WPA-PSK\nfreq=5179", "0 3 0"},
          {"freq=5825\npairwise_cipher=WEP-40\nkey_mgmt=NONE", "165 2 0"},
          {"freq=5826\nkey_mgmt=SAE", "0 7 0"},
          {"key_mgmt=NONE\npairwise_cipher=WEP-104", "-1 2 0"},
          {"key_mgmt=NONE\npairwise_cipher=CCMP", "-1 0 0"},
          {"freq=99999999999\n\nfreq\nssid=a=b\nkey_mgmt=\nbssid=zz\n=", "0 7 0"}})
        EXPECT_EQ(refresh("echo '" + std::string(lines) + "'"), result) << lines;
    EXPECT_EQ(refresh("head -c 99999 /dev/urandom; echo; echo freq=2437; echo key_mgmt=NONE"),
              "6 0 0");
}

TEST_F(WifiStatus, EventsChangeTheLink) {
    const std::string refresh = "sudo wpa_cli -iwlan0 status\n";
    for (const auto &[event, link] :
         {std::pair(+kConnected, std::string("connected ")),
          {"<3>AP-STA-CONNECTED x CTRL-EVENT-TERMINATING ", "connected "},
          {"AP-STA-DISCONNECTED x CTRL-EVENT-ASSOC-REJECT x", "connected "},
          {kRejected, "connected refused connection to AP rejected\n"},
          {kDisconnected, "refused "},
          {"CTRL-EVENT-TERMINATING ", "refused wpa_supplicant is terminating - stop monitoring\n"},
          {kConnected, "connected "},
          {"AP-STA-CONNECTED x CTRL-EVENT-DISCONNECTED x", ""},  // not in the text's order
          {"CTRL-EVENT-SUBNET-STATUS-UPDATE status=0", refresh},
          {"CTRL-EVENT-CONNECTED", ""}}) {
        forget_commands();
        wlan_monitor_event(event);
        EXPECT_EQ((wifi_link_is_connected() ? "connected " : "") +
                      std::string(wifi_link_is_refused() ? "refused " : "") +
                      story("src/wifi_control"),
                  link)
            << event;
    }
    wlan_monitor_event(nullptr);
}

}  // namespace
