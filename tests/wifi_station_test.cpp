// Everybody wants the station at once: whole operations, one after the other, and nobody stuck.
#include "wifi_station.h"

#include <sys/resource.h>

#include "monitor_main.h"
#include "provisioning_sm.h"
#include "supplicant.h"
#include "wifi_connect.h"
#include "wifi_events.h"
#include "wifi_restart.h"
#include "wifi_robot.h"

namespace {

class Station : public WifiRobot {
  protected:
    void SetUp() override {
        WifiRobot::SetUp();
        fake("sudo", "exit 0");  // the robot's tools, all of them, and quick
        kvs_set("network.ssid", "486f6d65");
        kvs_set("network.password", "correct horse");
        kvs_set("network.ip_config", "sudo provision --clmode dhcp \n");
        kvs_set("network.addr_type", "1");
        wlan_monitor_init("wlan0", wlan_monitor_event);
        std::thread(wlan_monitor_main, nullptr).detach();
    }
    void TearDown() override {
        wifi_network_disconnect();
        EXPECT_TRUE(has_client_sockets(0));
        WifiRobot::TearDown();
    }

    // What was done to the station so far, a letter each, when all that was asked for has ended:
    // Down, Up, Configuration loaded, Provision.
    static std::string story() {
        const StationOperation behind_them;
        constexpr std::pair<const char *, char> kLetters[] = {
            {"sudo ifdown wlan0", 'D'},
            {"sudo ifup wlan0", 'U'},
            {"sudo wpa_cli -iwlan0 reconfigure", 'C'},
            {"sudo provision --clmode dhcp ", 'P'},
        };
        std::string letters;
        for (const auto &line : commands())
            for (const auto &[command, letter] : kLetters)
                if (line.starts_with(command))
                    letters += letter;
        return letters;
    }

    Supplicant supplicant_;
};

TEST_F(Station, ARestartThatHasNotBegunServesEveryRequest) {
    {
        const StationOperation ahead;
        for (int i = 0; i < 3; i++)
            wifi_station_request_restart();
        wifi_network_disconnect();  // part of the one that runs, so before them
    }
    EXPECT_EQ(story(), "DDDUC");
    wifi_station_request_restart();
    EXPECT_EQ(story(), "DDDUCDDUC");
}

TEST_F(Station, ARestartThatGetsNoThreadLeavesTheQueue) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer needs the memory itself";
#endif
    rlimit usual;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &usual), 0);
    const rlimit nothing_more{1, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &nothing_more), 0);
    wifi_station_request_restart();
    ASSERT_EQ(setrlimit(RLIMIT_AS, &usual), 0);
    EXPECT_TRUE(logged_as("ERROR", "failed to restart the network"));
    EXPECT_EQ(story(), "");
    wifi_station_request_restart();
    EXPECT_EQ(story(), "DDUC");
}

// A supplicant that was killed says nothing any more: who connects anew must not wait for its word.
TEST_F(Station, AConnectLeavesTheSupplicantOfTheOneBefore) {
    for (int i = 0; i < 3; i++) {
        int32_t code = -1;
        EXPECT_EQ(wifi_wactivate(&code), 0);
    }
    EXPECT_TRUE(has_client_sockets(2));
    EXPECT_EQ(story(), "DUCDUCDUC");
}

TEST_F(Station, ReturningToTheSavedNetworkIsOneOperation) {
    provisioning_state_machine(PROVISIONING_ACTIVATED);
    provisioning_timer_tick(100);
    forget_commands();
    fake("sudo",
         "if [ \"$2\" = wlan1 ]; then : >/tmp/stops; while [ -e /tmp/waits ]; do :; done; fi");
    write_file("/tmp/waits", "");
    provisioning_state_machine(PROVISIONING_ABORT);
    std::jthread main_thread([] { provisioning_timer_tick(200); });
    EXPECT_TRUE(eventually([] { return read_file("/tmp/stops") != "<none>"; }));
    wifi_station_request_restart();  // while the soft AP is being stopped
    unlink("/tmp/waits");
    main_thread.join();
    EXPECT_EQ(story(), "DPDUCDDUC");
}

TEST_F(Station, OperationsOfAllThreadsAreWhole) {
    std::vector<std::jthread> threads;
    std::string all;
    for (int i = 0; i < 12; i++, all += "DDUC")
        threads.emplace_back(wifi_network_reconnect);
    threads.clear();
    EXPECT_EQ(story(), all);
}

}  // namespace
