// Everybody wants the station at once: whole operations, one after the other, and nobody stuck.
#include "wifi_station.h"

#include <sys/resource.h>

#include <iostream>
#include <random>

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

    // What was done to the station so far, a letter each: Down, Up, Configuration loaded,
    // Provision.
    static std::string story() {
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

// Waits for those that were asked for before.
void let_all_end() {
    const StationOperation behind_them;
}

TEST_F(Station, ARestartThatHasNotBegunServesEveryRequest) {
    {
        const StationOperation ahead;
        for (int i = 0; i < 3; i++)
            wifi_station_request_restart();
        wifi_network_disconnect();  // part of the one that runs, so before them
    }
    let_all_end();
    wifi_station_request_restart();
    let_all_end();
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
    let_all_end();
    wifi_station_request_restart();
    let_all_end();
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
    let_all_end();
    EXPECT_EQ(story(), "DPDUCDDUC");
}

// Watchdog, an event, the main thread and a provisioning, in random order and number. What must
// hold is that each connect is whole: down, up and the configuration loaded, with nothing in
// between.
class Collisions : public Station {
  protected:
    static void provision(int choice) {
        constexpr int kEvents[] = {PROVISIONING_ACTIVATED,  PROVISIONING_NETWORK_CONFIG_RX,
                                   PROVISIONING_WACTIVATED, PROVISIONING_ERROR,
                                   PROVISIONING_ABORT,      PROVISIONING_TIMEOUT};
        static long now = 0;
        provisioning_state_machine(kEvents[static_cast<size_t>(choice) % std::size(kEvents)]);
        provisioning_timer_tick(now += 2);
    }
    static bool are_connects_whole(const std::string &story) {
        for (size_t i = 0; i < story.size(); i++)
            if ((story[i] == 'U' && (i == 0 || story[i - 1] != 'D' || story[i + 1] != 'C')) ||
                (story[i] == 'C' && (i == 0 || story[i - 1] != 'U')))
                return false;
        return true;
    }
    static void main_thread(int choice) {
        if (choice % 2 == 0)
            wifi_network_disconnect();
        wifi_start_sta_from_kvs_configuration();
    }
};

TEST_F(Collisions, LeaveEveryOperationWhole) {
    const int given = GTEST_FLAG_GET(random_seed);
    const unsigned seed =
        given != 0 ? static_cast<unsigned>(given) : 1 + std::random_device()() % 99'999;
    std::cout << "rerun with --gtest_random_seed=" << seed << std::endl;
    std::mt19937 random(seed);
    const auto pick = [&](int end) {
        return static_cast<int>(random() % static_cast<unsigned>(end));
    };
    using Actor = void (*)(int choice);
    constexpr Actor kActors[] = {[](int) { wifi_network_reconnect(); },
                                 [](int) { wifi_station_request_restart(); }, main_thread,
                                 provision};
    for (int round = 0; round < 30; round++) {
        const bool is_mute = pick(20) == 0;  // a supplicant that is about to go
        supplicant_.answer_with([=](const auto &) { return is_mute ? Texts{} : Texts{"OK\n"}; });
        std::vector<std::jthread> threads;
        for (const Actor actor : kActors)
            if (pick(4) > 0)
                threads.emplace_back([actor, delay = pick(4000), choice = pick(100)] {
                    usleep(static_cast<useconds_t>(delay));
                    actor(choice);
                });
    }
    let_all_end();
    const std::string letters = story();
    EXPECT_TRUE(are_connects_whole(letters)) << letters;
    EXPECT_GT(std::count(letters.begin(), letters.end(), 'C'), 20);
}

}  // namespace
