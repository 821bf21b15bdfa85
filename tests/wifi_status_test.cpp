// What the robot reports about its connection: events, the main thread's passes, timers.
#include "wifi_status.h"

#include <sys/wait.h>

#include "pex_misc.h"
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
constexpr char kPing[] = "sudo arping -Iwlan0 -c1 192.0.2.1 -w 2 ";

class WifiStatus : public WifiRobot {
  protected:
    // The app's "activate": a connect that succeeds, and the timers armed.
    static void activate() {
        int32_t code = -1;
        wifictl_set_ssid("47617264656e");
        ASSERT_EQ(wifi_wactivate(&code), 0);
        ASSERT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
    }
    // Ticks until the state changes, at most 60.
    static int ticks_to_change() {
        const int32_t before = wifi_state_get_wifi();
        int count = 0;
        for (; count < 60 && wifi_state_get_wifi() == before; count++)
            wifi_timer_tick(count);
        return count;
    }
    bool posted(const std::string &event) {
        provisioning_timer_tick(1);
        return logged("rx event " + event);
    }
};

TEST_F(WifiStatus, FollowsTheLinkAndTheGateway) {
    activate();
    give_address();
    fake("wpa_cli", "echo bssid=02:00:00:00:00:01");
    wlan_monitor_event(kConnected);
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
    write_file("/tmp/answers", "");
    wifi_network_status_update();
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTED);
    EXPECT_EQ(commands(), (Lines{kPing, kPing, "sudo wpa_cli -iwlan0 status\n"}));
    wlan_monitor_event(kDisconnected);
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_NETWORK_DOWN);
    netinfo info;
    wifi_get_netinfo(&info);
    EXPECT_EQ(info.gw, 0U);
    wifi_state_set_wifi(WIFI_CONNECTED);
    provisioning_enter_state(WAITING_FOR_WACTIVATE);
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_OFF);
    ASSERT_EQ(system("ip route del default"), 0);
    EXPECT_EQ(wifi_netinfo_is_valid(), 0);
    EXPECT_TRUE(logged("have IP but have not read GW addr"));
}

TEST_F(WifiStatus, AReturningNetworkRenewsTheLeaseOnce) {
    const pid_t client = fork();
    if (client == 0)
        _exit(pause());
    write_file("/var/run/udhcpc.wlan0.pid", std::to_string(client));
    activate();
    give_address();
    wlan_monitor_event(kConnected);
    for (int i = 0; i < 2; i++) {
        wifi_state_set_wifi(WIFI_NETWORK_DOWN);
        wifi_network_status_update();
        waitpid(client, nullptr, 0);
    }
    write_file("/tmp/answers", "");
    wifi_network_status_update();
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);  // a new loss asks again, and nobody is there
    wifi_network_status_update();
    EXPECT_TRUE(logged("kill failed with errno 3"));
    EXPECT_EQ(times_logged("kill failed"), 1);
}

TEST_F(WifiStatus, TimersEndWithTheReasonOrWithTheStation) {
    activate();
    wlan_monitor_event(kRejected);
    EXPECT_EQ(ticks_to_change(), 35);
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_ASSOC_REJECTED);
    EXPECT_EQ(ticks_to_change(), 60);  // the other timer ended with it
    wlan_monitor_event(kConnected);
    wifi_sta_iface_down();  // forgets both
    EXPECT_EQ(ticks_to_change(), 60);
    activate();
    EXPECT_EQ(ticks_to_change(), 35);
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_ASSOC_TIMEOUT);
    activate();
    wlan_monitor_event(kConnected);
    EXPECT_EQ(ticks_to_change(), 50);
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_DHCP_TIMEOUT);
    EXPECT_TRUE(posted("PROVISIONING_ERROR"));
    activate();
    give_address();
    write_file("/tmp/answers", "");
    wlan_monitor_event(kConnected);
    wifi_timer_tick(1);
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
    EXPECT_EQ(ticks_to_change(), 60);
    wlan_monitor_event("SME: Trying to authenticate with 02:00:00:00:00:01 (SSID='Garden' freq=1)");
    EXPECT_TRUE(logged("authenticate with **:**:**:**:**:** (SSID='******' freq=1)"));
    EXPECT_EQ(times_logged("02:00"), 0) << log_text();
}

TEST_F(WifiStatus, TheLogShowsNoNameOfANetwork) {
    const std::pair<const char *, const char *> events[] = {
        {R"(SSID='Garden' ssid="Home" ssid="" SSID="Yard" ssid='Attic')",
         R"(SSID='******' ssid="****" ssid="" SSID="****" ssid='*****')"},
        {R"(ssid="Ann's \"old\" \\" reason="x" SSID='Ann's house' freq=1)",
         R"(ssid="****************" reason="x" SSID='***********' freq=1)"},
        {R"(ssid=plain bssid=1 ssid="cut off)", R"(ssid=plain bssid=1 ssid="cut off)"},
        {"ssid=", "ssid="},
    };
    for (const auto &[event, shown] : events) {
        wlan_monitor_event(event);
        EXPECT_TRUE(logged(std::string("wlan monitor event - ") + shown)) << log_text();
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
        return pex_format("%d %d", wifi_get_sta_channel(), info.sec);
    };
    // IEEE 802.11: 5 MHz apart, but for channel 14.
    for (int channel = 1; channel <= 14; channel++) {
        const int frequency = channel == 14 ? 2484 : 2407 + 5 * channel;
        EXPECT_EQ(refresh(pex_format("echo freq=%d", frequency)), pex_format("%d 7", channel));
    }
    for (const auto &[lines, result] :
         {std::pair("freq=5180\nkey_mgmt=WPA2-PSK", "36 4"),
          {"key_mgmt=WPA-PSK\nfreq=5179", "0 3"},
          {"freq=5825\npairwise_cipher=WEP-40\nkey_mgmt=NONE", "165 2"},
          {"freq=5826\nkey_mgmt=SAE", "0 7"},
          {"key_mgmt=NONE\npairwise_cipher=WEP-104", "-1 2"},
          {"key_mgmt=NONE\npairwise_cipher=CCMP", "-1 0"},
          {"freq=99999999999\n\nfreq\nssid=a=b\nkey_mgmt=\nbssid=zz\n=", "0 7"}})
        EXPECT_EQ(refresh("echo '" + std::string(lines) + "'"), result) << lines;
    EXPECT_EQ(refresh("head -c 100000 /dev/urandom; echo; echo freq=2437; echo key_mgmt=NONE"),
              "6 0");
}

TEST_F(WifiStatus, EventsChangeTheLink) {
    const struct {
        const char *event, *link;
    } rows[] = {{kConnected, "connected "},
                {"<3>AP-STA-CONNECTED 02:00:00:00:00:02", "connected "},
                {kRejected, "connected refused "},
                {kDisconnected, "refused "},
                {"CTRL-EVENT-TERMINATING ", "refused "},
                {kConnected, "connected "},
                {"AP-STA-DISCONNECTED x CTRL-EVENT-DISCONNECTED x", ""},  // not in the text's order
                {"CTRL-EVENT-SUBNET-STATUS-UPDATE status=0", "asked "},
                {"CTRL-EVENT-CONNECTED", "asked "}};
    forget_commands();
    for (const auto &row : rows) {
        wlan_monitor_event(row.event);
        EXPECT_EQ(std::string(wifi_link_is_connected() ? "connected " : "") +
                      (wifi_link_is_refused() ? "refused " : "") +
                      (commands().empty() ? "" : "asked "),
                  row.link)
            << row.event;
    }
    EXPECT_EQ(commands(), Lines{"sudo wpa_cli -iwlan0 status\n"});
    EXPECT_TRUE(logged_as("ERROR", "wpa_supplicant is terminating - stop monitoring"));
    wlan_monitor_event(nullptr);
}

// The monitor thread's events against the main thread's passes.
TEST_F(WifiStatus, EventsAndPassesMayMeet) {
    activate();
    std::thread monitor([] {
        for (int i = 0; i < 100; i++)
            for (const char *event : {kConnected, kRejected, kDisconnected})
                wlan_monitor_event(event);
        wlan_monitor_event(kWrongKey);
        wlan_monitor_event(kWrongKey);
    });
    for (int i = 0; i < 30; i++) {
        wifi_network_status_update();
        wifi_timer_tick(i);
    }
    monitor.join();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_AUTH_ERROR);
}

}  // namespace
