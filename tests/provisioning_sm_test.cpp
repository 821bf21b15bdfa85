// The provisioning machine, tick by tick, on a robot whose tools succeed: what it runs, what it
// says.
#include "provisioning_sm.h"

#include "provisioning_state.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

using testing::ElementsAre;

class ProvisioningMachine : public WifiRobot {
  protected:
    void SetUp() override {
        WifiRobot::SetUp();
        fake("provision", "exit 0");
        fake("hostapd_cli", "exit 0");
        wifi_init_wifistat();
        wifictl_set_ssid("41");
        wifictl_set_ip_config("sudo provision --clmode dhcp \n");
    }

    // Posts and executes at the second `now`; the shell lines that were run.
    static Lines run(int event, long now) {
        forget_commands();
        provisioning_state_machine(event);
        provisioning_timer_tick(now);
        return commands();
    }

    // The network fails to come up in a state that only a tick can tell.
    bool in_state(const char *name) {
        provisioning_state_machine(PE_NONE);
        provisioning_timer_tick(1);
        return logged(std::string("rx event PE_NONE in state ") + name);
    }
};

TEST_F(ProvisioningMachine, FromSoftApToConnected) {
    kvs_set("product.robotid", "0123456789");
    EXPECT_THAT(
        run(PROVISIONING_ACTIVATED, 100),
        ElementsAre("sudo ifdown wlan0",
                    "sudo network_device_interfaces_control.sh --interface=monitor --action=del",
                    "sleep 1",
                    "sudo network_device_interfaces_control.sh --interface=softap --action=add",
                    "sleep 1", "sudo provision --apssid Plover-0123 --apchan 6 --aphwmode g \n",
                    "sudo ifdown wlan1", "sudo ifup wlan1", "sudo hostapd_cli -ip2p0 all_sta\n"));
    EXPECT_NE(is_robot_provisioning(), 0);
    EXPECT_THAT(run(PROVISIONING_WACTIVATED, 101),
                ElementsAre("sudo hostapd_cli -ip2p0 all_sta\n"));
    EXPECT_TRUE(logged("Error unexpected event PROVISIONING_WACTIVATED , ignoring"));
    EXPECT_THAT(run(PROVISIONING_NETWORK_CONFIG_RX, 102),
                ElementsAre("sudo provision --clmode dhcp \n"));
    EXPECT_THAT(
        run(PROVISIONING_WACTIVATED, 103),
        ElementsAre("sudo ifdown wlan1",
                    "sudo network_device_interfaces_control.sh --interface=softap --action=del",
                    "sleep 1", "sudo ifdown wlan0", "sleep 1", "sudo ifup wlan0",
                    "sudo wpa_cli -iwlan0 reconfigure\n"));
    run(PROVISIONING_RETRY_PASSWORD, 104);
    EXPECT_THAT(commands(), ElementsAre("sudo wpa_cli -iwlan0 select_network 0"));
    run(PROVISIONING_DHCP_COMPLETE, 105);
    EXPECT_EQ(kvs_get("network.ssid"), "41");
    run(PROVISIONING_COMPLETE, 106);
    EXPECT_EQ(is_robot_provisioning(), 0);
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 1);
}

TEST_F(ProvisioningMachine, AbortIsIgnoredInTheSecondOfTheStart) {
    run(PROVISIONING_ACTIVATED, 100);
    EXPECT_THAT(run(PROVISIONING_ABORT, 100), ElementsAre("sudo hostapd_cli -ip2p0 all_sta\n"));
    EXPECT_TRUE(logged("ignoring abort due to button debounce timer"));
    EXPECT_TRUE(logged("ignoring prov abort due to button debounce timer"));
    run(PROVISIONING_ABORT, 101);
    EXPECT_TRUE(logged("provisioning stopped in state 1"));
    EXPECT_EQ(is_robot_provisioning(), 0);
    run(MFG_WIFI_TEST, 102);
    run(PROVISIONING_ABORT, 30L * 24 * 3600);  // the milliseconds have wrapped since the start
    EXPECT_EQ(is_robot_provisioning(), 0);
}

TEST_F(ProvisioningMachine, TimesOutAfterTwentyMinutes) {
    run(PROVISIONING_ACTIVATED, 100);
    provisioning_timer_tick(1300);
    EXPECT_EQ(times_logged("PROVISIONING TIMEOUT"), 0);
    provisioning_timer_tick(1301);
    provisioning_timer_tick(1302);
    EXPECT_TRUE(logged("rx event PROVISIONING_TIMEOUT in state WAITING_FOR_NETWORK_CONFIG_RX"));
    EXPECT_EQ(is_robot_provisioning(), 0);
}

TEST_F(ProvisioningMachine, ErrorsKeepTheSoftApAndTheStatus) {
    run(PROVISIONING_ACTIVATED, 100);
    run(PROVISIONING_NETWORK_STATIC_CONFIG_RX, 101);
    fake("ifup", "exit 1");
    run(PROVISIONING_WACTIVATED, 102);
    EXPECT_TRUE(logged("failed to start station interface"));
    EXPECT_TRUE(in_state("WAITING_FOR_NETWORK_CONFIG_RX"));
    EXPECT_EQ(kvs_get("network.last_prov_status"), "10");
    run(PROVISIONING_ACTIVATED, 103);
    EXPECT_TRUE(logged("Provisioning re-started while in state WAITING_FOR_NETWORK_CONFIG_RX"));
}

TEST_F(ProvisioningMachine, TrainingEndsByItsCounterUnlessTheAppIsThere) {
    const auto ticks = [](int count) {
        for (int i = 0; i < count; i++)
            provisioning_timer_tick(200);
    };
    run(TRAIN_START, 100);
    EXPECT_NE(is_robot_training(), 0);
    EXPECT_EQ(is_robot_provisioning(), 0);
    run(TRAIN_CONNECT, 101);
    ticks(7300);
    EXPECT_NE(is_robot_training(), 0);
    run(TRAIN_DISCONNECT, 102);
    ticks(7198);
    EXPECT_NE(is_robot_training(), 0);
    ticks(2);
    EXPECT_EQ(is_robot_training(), 0);
    run(MFG_WIFI_TEST, 300);
    EXPECT_TRUE(logged("Unhandled prov event MFG_WIFI_TEST"));
    EXPECT_NE(is_robot_provisioning(), 0);
}

}  // namespace
