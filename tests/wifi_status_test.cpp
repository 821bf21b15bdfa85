// What the robot reports about its connection: events, the main thread's passes, timers.
#include <sys/wait.h>

#include "provisioning_sm.h"
#include "wifi_control.h"
#include "wifi_robot.h"
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
    static void status_is(const std::string &lines) {
        fake("wpa_cli", "printf %s '" + lines + "'");
    }
};

TEST_F(WifiStatus, FollowsTheLinkAndTheGateway) {
    activate();
    give_address();
    status_is("bssid=02:00:00:00:00:01\nfreq=2437\nkey_mgmt=WPA2-PSK\n");
    wlan_monitor_event(kConnected);
    wifi_network_status_update();
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
    write_file("/tmp/answers", "");
    wifi_network_status_update();
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTED);
    EXPECT_EQ(commands(), (Lines{kPing, kPing, kPing, "sudo wpa_cli -iwlan0 status\n"}));
    netinfo info;
    wifi_get_netinfo(&info);
    EXPECT_THAT(info.bssid, testing::ElementsAre(2, 0, 0, 0, 0, 1));
    wlan_monitor_event(kDisconnected);
    wifi_network_status_update();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_NETWORK_DOWN);
    wifi_get_netinfo(&info);
    EXPECT_EQ(info.gw, 0U);
    EXPECT_EQ(times_logged("wifi is in connecting state"), 0);
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
        EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
        waitpid(client, nullptr, 0);
    }
    write_file("/tmp/answers", "");
    wifi_network_status_update();
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);  // a new loss asks again, and nobody is there
    wifi_network_status_update();
    EXPECT_TRUE(logged("kill failed with errno 3"));
    EXPECT_EQ(times_logged("kill failed"), 1);
}

TEST_F(WifiStatus, TimersEndWithTheReason) {
    activate();
    wlan_monitor_event(kRejected);
    EXPECT_EQ(ticks_to_change(), 35);
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_ASSOC_REJECTED);
    EXPECT_EQ(ticks_to_change(), 60);  // the other timer ended with it
    for (const char *event : {kRejected, kConnected}) {
        wlan_monitor_event(event);
        wifi_sta_iface_down();  // forgets both
        activate();
        EXPECT_EQ(ticks_to_change(), 35);
        EXPECT_EQ(wifi_state_get_wifi(), WIFI_ASSOC_TIMEOUT);
    }
    activate();
    wlan_monitor_event(kConnected);
    EXPECT_EQ(ticks_to_change(), 50);
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_DHCP_TIMEOUT);
    EXPECT_TRUE(posted("PROVISIONING_ERROR"));
    EXPECT_EQ(times_logged("wifi_dhcp_timer_tick: DHCP timeout"), 1);
}

TEST_F(WifiStatus, TimersStopForAnAddressAndForAStoppedStation) {
    activate();
    wifi_sta_iface_down();
    EXPECT_EQ(ticks_to_change(), 60);
    activate();
    give_address();
    write_file("/tmp/answers", "");
    wlan_monitor_event(kConnected);
    wifi_timer_tick(1);
    unlink("/tmp/answers");
    EXPECT_EQ(ticks_to_change(), 60);
    EXPECT_TRUE(posted("PROVISIONING_DHCP_COMPLETE"));
}

TEST_F(WifiStatus, TheSecondWrongKeyOfAConnectIsAnError) {
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
    EXPECT_EQ(ticks_to_change(), 60);
    activate();
    forget_log();
    wlan_monitor_event(kWrongKey);
    EXPECT_TRUE(posted("PROVISIONING_RETRY_PASSWORD"));
}

TEST_F(WifiStatus, EventsAreLoggedWithoutNames) {
    wlan_monitor_event("SME: Trying to authenticate with 02:00:00:00:00:01 (SSID='Garden' freq=1)");
    wlan_monitor_event("CTRL-EVENT-REASSOC 02:00:00:00:00:01 02:00:00:00:00:02");
    wlan_monitor_event(std::string(4095, '<').c_str());
    wlan_monitor_event("CTRL-EVENT-TERMINATING ");
    EXPECT_TRUE(logged("wlan monitor event - CTRL-EVENT-TERMINATING "));
    EXPECT_EQ(times_logged("authenticate with **:**:**:**:**:** (SSID='******' freq=1)"), 1);
    EXPECT_EQ(times_logged("wpa_supplicant is terminating - stop monitoring"), 1);
    EXPECT_EQ(times_logged("wlan monitor event - <<<<"), 1);
    EXPECT_EQ(times_logged("02:00"), 0) << log_text();
}

TEST_F(WifiStatus, RefreshReadsChannelAndSecurity) {
    const struct {
        const char *status;
        int channel;
        int security;
    } cases[] = {
        {"freq=2412\nkey_mgmt=NONE\npairwise_cipher=NONE\n", 1, 0},
        {"freq=2484\nkey_mgmt=NONE\npairwise_cipher=WEP-104\n", 14, 2},
        {"freq=5180\nkey_mgmt=WPA2-PSK\n", 36, 4},
        {"freq=5745\nkey_mgmt=WPA-PSK\n", 149, 3},
        {"freq=5825\npairwise_cipher=WEP-40\nkey_mgmt=NONE", 165, 2},
        {"freq=5900\nkey_mgmt=SAE\n", 0, 7},
        {"freq=2413\n", 0, 7},
        {"freq=99999999999\n\nfreq\nssid=a=b\nkey_mgmt=\nbssid=zz\n=", 0, 7},
    };
    for (const auto &row : cases) {
        wifi_init_netinfo();
        wifi_set_sta_channel(99);
        status_is(row.status);
        wifi_refresh_link_status();
        netinfo info;
        wifi_get_netinfo(&info);
        EXPECT_EQ(wifi_get_sta_channel(), row.channel) << row.status;
        EXPECT_EQ(info.sec, row.security) << row.status;
    }
    EXPECT_TRUE(logged("bad property name =, delim = (=)"));
    EXPECT_TRUE(logged("bad property value freq"));
    fake("wpa_cli", "head -c 100000 /dev/urandom; echo; echo freq=2437");
    wifi_refresh_link_status();
    EXPECT_EQ(wifi_get_sta_channel(), 6);
}

TEST_F(WifiStatus, StartsFromTheSavedSettings) {
    wifi_start_sta_from_kvs_configuration();
    EXPECT_TRUE(logged("failed to get ssid"));
    kvs_set("network.ssid", "47617264656e");
    kvs_set("network.ip_config", "sudo provision --clmode dhcp \n");
    fake("provision", "exit 1");
    wifi_start_sta_from_kvs_configuration();
    EXPECT_TRUE(logged("failed to set ip configuration"));
    EXPECT_EQ(commands(), Lines{"sudo provision --clmode dhcp "});  // no address type, no connect
    kvs_set("network.addr_type", "1");
    fake("ifup", "exit 1");
    wifi_start_sta_from_kvs_configuration();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_STATION_STOPPED);
    EXPECT_TRUE(logged("failed to configure sta to 47617264656e; check kvs for pass"));
    fake("ifup", "exit 0");
    wifi_start_sta_from_kvs_configuration();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_CONNECTING);
    forget_commands();
    wifi_start_sta_from_kvs_configuration();
    EXPECT_TRUE(commands().empty());
}

// The monitor thread's events against the main thread's passes.
TEST_F(WifiStatus, EventsAndPassesMayMeet) {
    activate();
    std::atomic<bool> stop{false};
    std::thread monitor([&] {
        for (int i = 0; !stop; i++) {
            wlan_monitor_event(i % 2 == 0 ? kConnected : kDisconnected);
            wlan_monitor_event(i % 8 == 0 ? "CTRL-EVENT-SUBNET-STATUS-UPDATE 0" : kRejected);
        }
        wlan_monitor_event(kWrongKey);
        wlan_monitor_event(kWrongKey);
    });
    for (int i = 0; i < 30; i++) {
        wifi_network_status_update();
        wifi_timer_tick(i);
    }
    stop = true;
    monitor.join();
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_AUTH_ERROR);
    EXPECT_EQ(ticks_to_change(), 60);
}

}  // namespace
