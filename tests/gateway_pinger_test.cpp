#include "gateway_pinger.h"

#include <semaphore.h>
#include <sys/resource.h>

#include <regex>

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
bool mission_comes_late = false;     // while the reboot is on its way

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    EXPECT_EQ(text, R"({"get":"nextCleaning"})");
    EXPECT_TRUE(topic.starts_with("tarn/9/req/network/")) << topic;
    return next_cleaning;
}

class GatewayWatchdog : public Robot {
  protected:
    void start(const std::string &limit) {
        sem_init(&cycles_allowed, 0, 0);
        sem_init(&cycles_ended, 0, 0);
        make_pauses_call([](unsigned seconds) {
            if (seconds != kCycleS) {
                if (mission_comes_late)
                    gateway_pinger_set_mission_in_progress(1);
                return add_to_commands("sleep " + std::to_string(seconds));
            }
            sem_post(&cycles_ended);
            sem_wait(&cycles_allowed);
        });
        for (const char *tool : {"ifdown", "reboot"})
            fake(tool, "exit 0");
        fake("ifup", "exit 1");
        tell_stories();
        wifi_init_netinfo();
        give_address();
        ASSERT_EQ(pthread_create_detached_thread(nullptr, pinger_main, nullptr, "pinger_main"), 0);
        sem_wait(&cycles_ended);
        EXPECT_TRUE(logged("wifi watchdog timer interval, " + limit + " minutes"));
    }
    static std::string cycle() {
        forget_commands();
        sem_post(&cycles_allowed);
        sem_wait(&cycles_ended);
        return std::regex_replace(story("src/gateway_pinger"), std::regex("\n"), "; ");
    }
    const std::string count_ = "no address count, ";
    const std::string reconnect_ =
        "sudo ifdown wlan0; wifi = 11; sleep 1; sudo ifdown wlan0; sleep 1; sudo ifup wlan0; ";
};

TEST_F(GatewayWatchdog, EveryCycle) {
    const std::string ping = "sudo arping -Iwlan0 -c1 192.0.2.1 -w 2; ",
                      unknown = "network_send_tarn_req failed; ";
    const std::string lost = ping + "no ping recv, loss counter = ";
    enum : unsigned {
        kAddress = 1,
        kAnswers = 2,
        kProvisioning = 4,
        kNeverProvisioned = 8,
        kNoFiles = 16
    };
    const struct {
        int wifi;
        unsigned with;
        std::string expected;
    } cycles[]{
        {WIFI_NETWORK_DOWN, 0, count_ + "1; "},
        {WIFI_NETWORK_DOWN, kNeverProvisioned, ""},
        {WIFI_OFF, 0, ""},
        {WIFI_STATION_STOPPED, 0, count_ + "2; "},
        {WIFI_AUTH_ERROR, 0, count_ + "3; " + reconnect_},
        {WIFI_NETWORK_DOWN, 0, count_ + "4; "},
        {WIFI_NETWORK_DOWN, kAddress | kProvisioning, count_ + "5; " + unknown},
        {WIFI_NETWORK_DOWN, 0, count_ + "6; " + unknown},
        {WIFI_CONNECTING, 0, ""},  // no gateway to ping
        {WIFI_NETWORK_DOWN, 0, count_ + "1; "},
        {WIFI_NETWORK_DOWN, 0, count_ + "2; "},
        {WIFI_NETWORK_DOWN, 0, count_ + "3; " + reconnect_},
        {WIFI_CONNECTED, kAddress | kAnswers, ping},
        {WIFI_NETWORK_DOWN, 0, count_ + "1; "},
        {WIFI_CONNECTED, kAddress, lost + "1; "},
        {WIFI_CONNECTED, kAddress, lost + "2; "},
        {WIFI_CONNECTED, kAddress | kAnswers, ping},
        {WIFI_CONNECTED, kAddress, lost + "1; "},
        {WIFI_CONNECTED, kAddress | kProvisioning, ""},
        {WIFI_CONNECTED, kAddress | kNoFiles, ""},  // not sent, so not lost
        {WIFI_DHCP_TIMEOUT, kAddress, lost + "2; "},
        {WIFI_CONNECTED, kAddress,
         lost + "3; maximum ping loss count, restarting network; " + reconnect_},
        {WIFI_CONNECTED, kAddress, lost + "1; "},
        {WIFI_NETWORK_DOWN, kAddress, reconnect_ + lost + "2; "},
        {WIFI_OFF, 0, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, kAddress | kAnswers, ping},
        {WIFI_OFF, 0, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, kProvisioning, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, 0, ""},
        {WIFI_CONNECTING, 0, reconnect_},  // six cycles without anything to ping
        {WIFI_CONNECTING, 0, ""},
    };
    kvs_set("network.watchdog_interval_min", "3");
    start("3");
    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    const rlimit no_more_files{3, files.rlim_max};
    for (const auto &[wifi, with, expected] : cycles) {
        kvs_set("network.last_prov_status", (with & kNeverProvisioned) != 0 ? "3" : "1");
        wifi_init_netinfo();
        netinfo info;
        if ((with & kAddress) != 0)
            wifi_read_netinfo(&info);
        if ((with & kAnswers) != 0)
            write_file("/tmp/answers", "");
        wifi_state_set_wifi(wifi);
        provisioning_enter_state((with & kProvisioning) != 0 ? WAITING_FOR_WACTIVATE : PS_NONE);
        setrlimit(RLIMIT_NOFILE, (with & kNoFiles) != 0 ? &no_more_files : &files);
        EXPECT_EQ(cycle(), expected);
        setrlimit(RLIMIT_NOFILE, &files);
        provisioning_enter_state(PS_NONE);
        unlink("/tmp/answers");
    }
    for (const auto &[text, times] : {std::pair("wifi is disconnected", 24),
                                      {"no gateway to ping", 10},
                                      {"ready to ping using", 4},
                                      {"wifi is trying to reconnect", 1},
                                      {"Waiting to reboot...", 2},
                                      {"popen failed", 1}})
        EXPECT_EQ(times_logged(text), times) << text;
}

TEST_F(GatewayWatchdog, RebootsFarFromTheNextCleaningOnly) {
    fake("sudo", "exit 0");
    kvs_set("network.watchdog_interval_min", "1");
    kvs_set("network.last_prov_status", "1");
    start("1");
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    const Bus bus(answer);
    int count = 0;
    enum : uint8_t { kNone, kRuns, kBegins };
    for (const auto &[mission, answer, done] :
         {std::tuple(kNone, R"({"nextCleaning":900})", reconnect_),
          {kNone, R"({"nextCleaning":900})", ""},
          {kNone, "{}", "failed to parse next cleaning json; "},
          {kNone, "x", "json_loads() failed with error: '[' or '{' expected near 'x'; "},
          {kNone, R"({"nextCleaning":899})", ""},
          {kNone, R"({"nextCleaning":-900})", ""},
          {kRuns, R"({"nextCleaning":900})", ""},
          {kBegins, R"({"nextCleaning":900})", "No connectivity, rebooting; sleep 10; "},
          {kNone, R"({"nextCleaning":900})",
           "No connectivity, rebooting; sleep 10; sudo /sbin/reboot; "}}) {
        next_cleaning = answer;
        gateway_pinger_set_mission_in_progress(mission == kRuns ? 1 : 0);
        mission_comes_late = mission == kBegins;
        EXPECT_EQ(cycle(), count_ + std::to_string(++count) + "; " + done);
    }
}

TEST_F(GatewayWatchdog, WaitsEightHoursForAnAddressUnlessTold) {
    start("1440");
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
    // Lines are read in pieces of 255 characters.
    for (const auto &[before, answered] : {std::pair(246, 0), {245, 1}, {255, 1}}) {
        write_file("/tmp/output", "ARPING\n" + std::string(before, 'x') + "Unicast [02]");
        EXPECT_EQ(gateway_pinger_arping_once("cat /tmp/output"), answered) << before;
    }
    forget_commands();
    EXPECT_EQ(gateway_pinger_arping_once(nullptr), 0);  // no gateway: nothing is run
    EXPECT_TRUE(commands().empty());
}

}  // namespace
