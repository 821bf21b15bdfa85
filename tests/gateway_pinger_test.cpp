#include "gateway_pinger.h"

#include <semaphore.h>
#include <sys/resource.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "arping.h"
#include "bus.h"
#include "clock.h"
#include "gateway_ping.h"
#include "provisioning_state.h"
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

    // What the next cycle logs, and whether it restarted the network.
    std::string cycle() {
        forget_log();
        forget_commands();
        sem_post(&cycles_allowed);
        sem_wait(&cycles_ended);
        static const std::regex line(
            R"(\[(?:INFO|WARN|ERROR)\] \(src/gateway_pinger:[^)]*\) (.*))");
        std::istringstream lines(log_text());
        std::string text;
        for (std::string each; std::getline(lines, each);)
            if (std::regex_match(each, line))
                text += std::regex_replace(each, line, "$1; ");
        const bool reconnects = std::ranges::count(commands(), "sudo ifdown wlan0") > 0;
        return text + (reconnects ? "reconnect" : "");
    }
    bool cycle_logs(const std::string &text) { return cycle().find(text) != text.npos; }
};

TEST_F(GatewayWatchdog, EveryCycle) {
    constexpr char kReady[] = "ready to ping using sudo arping -Iwlan0 -c1 192.0.2.1 -w 2 ; ";
    constexpr char kLost1[] = "no ping recv, loss counter = 1; ";
    constexpr char kLost3[] =
        "no ping recv, loss counter = 3; maximum ping loss count, restarting network; reconnect";
    constexpr char kWaiting[] =
        "network_send_tarn_req failed; "
        "No connectivity but clean mission running or scheduled. Waiting to reboot...; ";
    const std::string count = "wifi is disconnected; no address count, ";
    enum : unsigned { kAddress = 1, kAnswers = 2, kProvisioning = 4, kNeverProvisioned = 8 };
    const struct {
        int wifi;
        unsigned with;
        std::string expected;
    } cycles[]{
        {WIFI_NETWORK_DOWN, 0, count + "1; "},
        {WIFI_NETWORK_DOWN, kNeverProvisioned, "wifi is disconnected; "},
        {WIFI_OFF, 0, "wifi is disconnected; "},
        {WIFI_STATION_STOPPED, 0, count + "2; "},
        {WIFI_AUTH_ERROR, 0, count + "3; restarting network; reconnect"},
        {WIFI_NETWORK_DOWN, 0, count + "4; "},
        {WIFI_NETWORK_DOWN, kAddress | kProvisioning, count + "5; " + kWaiting},
        {WIFI_NETWORK_DOWN, 0, count + "6; " + kWaiting},  // nobody tells when the next cleaning is
        {WIFI_CONNECTING, 0, "wifi is disconnected; no gateway to ping; "},
        {WIFI_NETWORK_DOWN, 0, count + "1; "},
        {WIFI_NETWORK_DOWN, 0, count + "2; "},
        {WIFI_NETWORK_DOWN, 0, count + "3; restarting network; reconnect"},
        {WIFI_CONNECTED, kAddress | kAnswers, kReady},
        {WIFI_NETWORK_DOWN, 0, count + "1; "},
        {WIFI_CONNECTED, kAddress, std::string(kReady) + kLost1},
        {WIFI_CONNECTED, kAddress, "no ping recv, loss counter = 2; "},
        {WIFI_CONNECTED, kAddress | kAnswers, ""},
        {WIFI_CONNECTED, kAddress, kLost1},
        {WIFI_CONNECTED, kAddress | kProvisioning, ""},
        {WIFI_DHCP_TIMEOUT, kAddress, "no ping recv, loss counter = 2; "},
        {WIFI_CONNECTED, kAddress, kLost3},
        {WIFI_CONNECTED, kAddress, std::string(kReady) + kLost1},
        {WIFI_NETWORK_DOWN, kAddress,
         "wifi is trying to reconnect; no ping recv, loss counter = 2; reconnect"},
    };
    kvs_set("network.watchdog_interval_min", "3");
    tell_stories();
    start();
    EXPECT_TRUE(logged("wifi watchdog timer interval, 3 minutes"));
    give_address();
    for (const auto &row : cycles) {
        const auto &[wifi, with, expected] = row;
        kvs_set("network.last_prov_status", (with & kNeverProvisioned) != 0 ? "3" : "1");
        wifi_init_netinfo();
        netinfo info;
        if ((with & kAddress) != 0)
            wifi_read_netinfo(&info);
        if ((with & kAnswers) != 0)
            write_file("/tmp/answers", "");
        wifi_state_set_wifi(wifi);
        provisioning_enter_state((with & kProvisioning) != 0 ? WAITING_FOR_WACTIVATE : PS_NONE);
        EXPECT_EQ(cycle(), expected) << &row - cycles;
        provisioning_enter_state(PS_NONE);
        unlink("/tmp/answers");
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
    for (const char *soon : {"{}", "x", R"({"nextCleaning":899})", R"({"nextCleaning":-900})"}) {
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

TEST_F(GatewayWatchdog, APingThatCannotBeSentIsNotLost) {
    tell_stories();
    start();
    EXPECT_TRUE(logged("wifi watchdog timer interval, 1440 minutes"));
    give_address();
    netinfo info;
    wifi_read_netinfo(&info);
    wifi_state_set_wifi(WIFI_CONNECTED);
    EXPECT_TRUE(cycle_logs("loss counter = 1"));
    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    const rlimit no_more_files{3, files.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &no_more_files), 0);
    sem_post(&cycles_allowed);
    sem_wait(&cycles_ended);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_EQ(times_logged("popen failed"), 1);
    EXPECT_TRUE(cycle_logs("loss counter = 2"));
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
