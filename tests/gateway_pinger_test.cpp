#include "gateway_pinger.h"

#include <semaphore.h>
#include <sys/resource.h>

#include "arping.h"
#include "bus.h"
#include "clock.h"
#include "gateway_ping.h"
#include "pthread_utils.h"
#include "robot.h"
#include "wifi_netinfo.h"
#include "wifi_state.h"

namespace {

constexpr unsigned kCycleS = 20;
sem_t cycles_allowed, cycles_ended;  // GCC 12's std::counting_semaphore may miss a release
std::string next_cleaning;           // what the scheduler answers

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    EXPECT_EQ(text, R"({"get":"nextCleaning"})");
    EXPECT_TRUE(topic.starts_with("tarn/9/req/network/")) << topic;
    return next_cleaning;
}

class GatewayWatchdog : public Robot {
  protected:
    static void start() {
        sem_init(&cycles_allowed, 0, 0);
        sem_init(&cycles_ended, 0, 0);
        make_pauses_call([](unsigned seconds) {
            if (seconds == kCycleS) {
                sem_post(&cycles_ended);
                sem_wait(&cycles_allowed);
            }
        });
        fake("ifdown", "exit 0");
        fake("ifup", "exit 1");
        wifi_init_netinfo();
        ASSERT_EQ(pthread_create_detached_thread(nullptr, pinger_main, nullptr, "pinger_main"), 0);
        sem_wait(&cycles_ended);
    }

    // Whether the log of the next cycle has this text.
    bool cycle_logs(const std::string &text) {
        forget_log();
        sem_post(&cycles_allowed);
        sem_wait(&cycles_ended);
        return times_logged(text) > 0;
    }
};

TEST_F(GatewayWatchdog, RestartsOnceThenWaitsForTheMission) {
    kvs_set("network.watchdog_interval_min", "3");
    kvs_set("network.last_prov_status", "1");
    start();
    EXPECT_TRUE(logged("wifi watchdog timer interval, 3 minutes"));
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    for (int count = 1; count <= 6; count++) {
        EXPECT_TRUE(cycle_logs("no address count, " + std::to_string(count))) << log_text();
        EXPECT_EQ(times_logged("restarting network") > 0, count == 3) << log_text();
        // Nobody answers when the next cleaning is: that forbids the reboot.
        EXPECT_EQ(times_logged("Waiting to reboot...") > 0, count >= 5) << log_text();
        EXPECT_EQ(times_logged("No connectivity, rebooting"), 0);
    }
}

TEST_F(GatewayWatchdog, RebootsFarFromTheNextCleaningOnly) {
    constexpr char kReboot[] = "sudo /sbin/reboot";
    fake("sudo", "exit 0");
    kvs_set("network.watchdog_interval_min", "1");
    kvs_set("network.last_prov_status", "1");
    start();
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    EXPECT_TRUE(cycle_logs("restarting network"));
    EXPECT_TRUE(cycle_logs("no address count, 2"));
    const Bus bus(answer);
    for (const char *soon : {"{}", R"({"nextCleaning":899})", R"({"nextCleaning":-900})"}) {
        next_cleaning = soon;
        EXPECT_TRUE(cycle_logs("Waiting to reboot...")) << soon;
    }
    next_cleaning = R"({"nextCleaning":900})";
    gateway_pinger_set_mission_in_progress(1);
    EXPECT_TRUE(cycle_logs("Waiting to reboot..."));
    EXPECT_THAT(commands(), testing::Not(testing::Contains(kReboot)));
    gateway_pinger_set_mission_in_progress(0);
    EXPECT_TRUE(cycle_logs("No connectivity, rebooting"));
    EXPECT_EQ(commands().back(), kReboot);
}

TEST_F(GatewayWatchdog, LeavesAnUnprovisionedRobotAlone) {
    kvs_set("network.watchdog_interval_min", "1");
    start();
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    EXPECT_FALSE(cycle_logs("no address count"));
    kvs_set("network.last_prov_status", "1");
    wifi_state_set_wifi(WIFI_OFF);
    EXPECT_FALSE(cycle_logs("no address count"));
    wifi_state_set_wifi(WIFI_CONNECTING);  // pinged anyway, but there is nobody to ping
    EXPECT_TRUE(cycle_logs("no gateway to ping"));
    EXPECT_TRUE(commands().empty());
}

TEST_F(GatewayWatchdog, RestartsAfterThreeSilentPingsInARow) {
    start();
    give_address();
    netinfo info;
    ASSERT_EQ(wifi_read_netinfo(&info), 27);
    wifi_state_set_wifi(WIFI_CONNECTED);
    EXPECT_TRUE(cycle_logs("ready to ping using sudo arping -Iwlan0 -c1 192.0.2.1 -w 2 "));
    // Every second ping answered: never a restart.
    for (int i = 0; i < 3; i++) {
        write_file("/tmp/answers", "");
        EXPECT_FALSE(cycle_logs("loss counter"));
        unlink("/tmp/answers");
        EXPECT_TRUE(cycle_logs("no ping recv, loss counter = 1"));
    }
    EXPECT_THAT(commands(), testing::Not(testing::Contains("sudo ifdown wlan0")));
    cycle_logs("");
    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    const rlimit no_more_files{3, files.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &no_more_files), 0);
    EXPECT_TRUE(cycle_logs("popen failed"));
    EXPECT_EQ(times_logged("loss counter"), 0);  // a ping that could not be sent is not lost
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_TRUE(cycle_logs("maximum ping loss count, restarting network"));
    EXPECT_THAT(commands(), testing::Contains("sudo ifdown wlan0"));
}

TEST_F(GatewayWatchdog, OnlyABracketedAddressIsAReply) {
    const struct {
        const char *line;
        std::string_view gateway, device;  // an address, or "none"
    } cases[] = {
        {"Unicast reply from 192.0.2.1 [02:01]  1.5ms", "02:01", "02:01"},
        {"Broadcast reply from 192.0.2.1 [02:01]", "none", "02:01"},
        {"Unicast [02:01", "02:01", "none"},
        {"[Unicast] []]02:01] [03]", "02:01", "Unicast"},
        {"[[Unicast [", "none", "none"},
        {"Unicast []", "none", ""},
        {"Unicast 02:01]", "none", "none"},
        {"", "none", "none"},
    };
    for (const auto &[line, gateway, device] : cases) {
        EXPECT_EQ(arping_reply(line, arping_peer::gateway).value_or("none"), gateway) << line;
        EXPECT_EQ(arping_reply(line, arping_peer::device).value_or("none"), device) << line;
    }
    write_file("/tmp/output", "ARPING 192.0.2.1\nUnicast reply from 192.0.2.1 [02:01]  1.5ms");
    EXPECT_EQ(gateway_pinger_arping_once("cat /tmp/output"), 1);
    EXPECT_EQ(gateway_pinger_arping_once("head -n1 /tmp/output"), 0);
    forget_commands();
    EXPECT_EQ(gateway_pinger_arping_once(nullptr), 0);  // no gateway: nothing is run
    EXPECT_TRUE(commands().empty());
}

}  // namespace
