#include "gateway_pinger.h"

#include <semaphore>

#include "pthread_utils.h"
#include "robot.h"
#include "wifi_state.h"

namespace {

constexpr unsigned kCycleS = 20;
std::counting_semaphore<> cycles_allowed{0};
std::counting_semaphore<> cycles_ended{0};

}  // namespace

// The clock of this program: the watchdog's pause ends when the test says so, others at once.
extern "C" unsigned sleep(unsigned seconds) {
    if (seconds == kCycleS) {
        cycles_ended.release();
        cycles_allowed.acquire();
    }
    return 0;
}

namespace {

class GatewayWatchdog : public Robot {
  protected:
    void start() {
        wifi_init_netinfo();
        ASSERT_EQ(pthread_create_detached_thread(nullptr, pinger_main, nullptr, "pinger_main"), 0);
        cycles_ended.acquire();
    }

    // The log of one whole cycle.
    std::string cycle() {
        forget_log();
        cycles_allowed.release();
        cycles_ended.acquire();
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        return log_text();
    }

    static void get_an_address() {
        kvs_set("network.interface", "wlan0");
        ASSERT_EQ(system("ip link add wlan0 type veth peer name gw0 && ip link set gw0 up && "
                         "ip link set wlan0 up && ip addr add 192.0.2.2/24 dev wlan0 && "
                         "ip route add default via 192.0.2.1"),
                  0);
        netinfo info;
        ASSERT_EQ(wifi_read_netinfo(&info), 27);
        forget_commands();
    }

    static bool restarted() {
        const auto run = commands();
        return std::find(run.begin(), run.end(), "sudo ifdown wlan0") != run.end();
    }
};

TEST_F(GatewayWatchdog, RestartsOnceThenWaitsForTheMission) {
    kvs_set("network.watchdog_interval_min", "3");
    kvs_set("network.last_prov_status", "1");
    fake("ifdown", "exit 0");
    fake("ifup", "exit 1");
    start();
    EXPECT_TRUE(logged("wifi watchdog timer interval, 3 minutes"));
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    for (int count = 1; count <= 6; count++) {
        const std::string log = cycle();
        SCOPED_TRACE(log);
        EXPECT_NE(log.find("no address count, " + std::to_string(count)), std::string::npos);
        EXPECT_EQ(log.find("restarting network") != std::string::npos, count == 3);
        // Nobody answers when the next cleaning is: that forbids the reboot.
        EXPECT_EQ(log.find("Waiting to reboot...") != std::string::npos, count >= 5);
        EXPECT_EQ(log.find("No connectivity, rebooting"), std::string::npos);
    }
}

TEST_F(GatewayWatchdog, LeavesAnUnprovisionedRobotAlone) {
    kvs_set("network.watchdog_interval_min", "1");
    start();
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    EXPECT_EQ(cycle().find("no address count"), std::string::npos);
    kvs_set("network.last_prov_status", "1");
    wifi_state_set_wifi(WIFI_OFF);
    EXPECT_EQ(cycle().find("no address count"), std::string::npos);
    wifi_state_set_wifi(WIFI_CONNECTING);  // pinged anyway, but there is nobody to ping
    EXPECT_NE(cycle().find("no gateway to ping"), std::string::npos);
    EXPECT_TRUE(commands().empty());
}

TEST_F(GatewayWatchdog, RestartsAfterThreeSilentPingsInARow) {
    fake(
        "arping",
        "if [ -e /tmp/answers ]; then echo 'Unicast reply from 192.0.2.1 [02:00:00:00:00:01]'; fi");
    fake("ifdown", "exit 0");
    start();
    get_an_address();
    wifi_state_set_wifi(WIFI_CONNECTED);
    EXPECT_NE(cycle().find("ready to ping using sudo arping -Iwlan0 -c1 192.0.2.1 -w 2 "),
              std::string::npos);
    // Every second ping answered: never a restart.
    for (int i = 0; i < 3; i++) {
        write_file("/tmp/answers", "");
        EXPECT_EQ(cycle().find("loss counter"), std::string::npos);
        unlink("/tmp/answers");
        EXPECT_NE(cycle().find("no ping recv, loss counter = 1"), std::string::npos);
    }
    EXPECT_FALSE(restarted());
    cycle();
    EXPECT_NE(cycle().find("maximum ping loss count, restarting network"), std::string::npos);
    EXPECT_TRUE(restarted());
}

TEST_F(GatewayWatchdog, OnlyABracketedAddressIsAReply) {
    struct {
        const char *output;
        int answered;
    } const cases[] = {
        {"Unicast reply from 192.0.2.1 [02:00:00:00:00:01]  1.5ms", 1},
        {"ARPING 192.0.2.1\nUnicast reply from 192.0.2.1 [02:00:00:00:00:01]", 1},
        {"Unicast reply from 192.0.2.1", 0},
        {"Broadcast reply from 192.0.2.1 [02:00:00:00:00:01]", 0},
        {"", 0},
    };
    for (const auto &row : cases) {
        write_file("/tmp/output", row.output);
        EXPECT_EQ(gateway_pinger_arping_once("cat /tmp/output"), row.answered) << row.output;
    }
    EXPECT_EQ(gateway_pinger_arping_once("no-such-tool 2>/dev/null"), 0);
    forget_commands();
    EXPECT_EQ(gateway_pinger_arping_once(nullptr), 0);  // no gateway: nothing is run
    EXPECT_TRUE(commands().empty());
}

}  // namespace
