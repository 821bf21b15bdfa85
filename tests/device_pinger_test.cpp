#include "device_pinger.h"

#include <net/if.h>

#include <map>
#include <sstream>

#include "clock.h"
#include "device_network_hop.h"
#include "device_probe.h"
#include "device_subnet_ping.h"
#include "device_tracking.h"
#include "home_device_list.h"
#include "log.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "pthread_utils.h"
#include "robot.h"
#include "wifi_netinfo.h"
#include "wifi_state.h"

namespace {

std::string nth_address(int i) {
    return "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
}

void add_device(int i, const char *mac, const std::string &text = "") {
    const char *const md = text.empty() ? nullptr : text.c_str();
    add_entry_to_device_list(nullptr, 0, nth_address(i).c_str(), mac, nullptr, nullptr, nullptr,
                             md);
}

std::string nth_mac(int i) {
    char mac[24];
    snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", i / 256, i % 256);
    return mac;
}

class DevicePinger : public Robot {
  protected:
    DevicePinger() {
        make_pauses_last(10'000);
        init_device_list();
        if (if_nametoindex("wlan0") == 0)  // else run again, hastened
            give_address();
        // A device answers while its file is there, with what the file holds as its address. Else
        // each tool succeeds.
        fake("sudo", R"([ "$1" = arping ] || exit 0; for ip; do :; done; [ -e /tmp/home/$ip ] && )"
                     R"(echo "Unicast reply from $ip [$(cat /tmp/home/$ip)]  1.5ms")");
    }
    static void use_subnet(const std::string &address) {
        ASSERT_EQ(system(("ip addr flush dev wlan0; ip addr add dev wlan0 " + address).c_str()), 0);
        netinfo info;
        ASSERT_EQ(wifi_read_netinfo(&info), 27);
        wifi_state_set_wifi(WIFI_CONNECTED);
    }
    void start_threads() {
        use_subnet("192.0.2.2/24");
        pthread_create_detached_thread(nullptr, device_pinger_main, nullptr, "dev_pinger");
        pthread_create_detached_thread(nullptr, device_subnet_ping_main, nullptr, "dev_sweep");
        EXPECT_TRUE(logged("pinger disabled"));  // from here on the mode is the app's
    }
    // Tracks a home that is there before the first round looks at it.
    void track(const std::function<void()> &add_devices, bool sweeps = false) {
        wifi_state_set_wifi(WIFI_NETWORK_DOWN);
        forget_log();
        if (sweeps)
            start_device_discovery();
        else
            set_pinger_mode(PINGER_MODE_PINGER, 1);
        EXPECT_TRUE(logged("wifi is disconnected"));
        add_devices();
        forget_log();
        forget_commands();
        wifi_state_set_wifi(WIFI_CONNECTED);
    }
    // That many rounds from here on have ended.
    void expect_rounds(int count) {
        const int before = times_logged(" active devices");
        EXPECT_TRUE(eventually([&] { return times_logged(" active devices") >= before + count; },
                               std::chrono::seconds(30)));
    }
    void stop_tracking() {
        stop_device_discovery();
        EXPECT_TRUE(eventually([] { return is_device_list_empty() != 0; }));
    }
};

TEST_F(DevicePinger, OnlyAnAddressReachesTheShell) {
    write_file("/tmp/home/192.0.2.7", std::string(40, 'a'));
    const struct {
        const char *ip;
        int want_mac, wait, result;
        std::string command;
    } cases[] = {
        {"192.0.2.7", 1, 0, 1, "sudo arping -Iwlan0 -c2 -f 192.0.2.7 | grep reply"},
        {"192.0.2.8", 1, 0, 0, "sudo arping -Iwlan0 -c2 -f 192.0.2.8 | grep reply"},
        {"192.0.2.7", 0, 0, 0, "sudo arping -q -Iwlan0 -c2 -f 192.0.2.7 &"},
        {"192.0.2.7", 0, 1, 1, "sudo arping -q -Iwlan0 -c2 -f 192.0.2.7"},
        {"192.0.2.8", 0, 1, 0, "sudo arping -q -Iwlan0 -c2 -f 192.0.2.8"},
        {nullptr, 0, 1, 0, ""},
        {"192.0.2", 0, 0, 0, ""},
        {"192.0.2.7;reboot", 0, 1, 0, ""},
        {"fe80::1", 1, 0, 0, ""},
    };
    char mac[kProbeMacSize + 1] = "";
    mac[kProbeMacSize] = '!';
    for (const auto &row : cases) {
        forget_commands();
        ping_request request{.ip = row.ip, .mac = mac};
        EXPECT_EQ(ping_device(&request, row.want_mac, row.wait), row.result) << row.command;
        EXPECT_EQ(commands().empty() ? "" : commands()[0], row.command);
    }
    EXPECT_EQ(std::string(mac) + mac[kProbeMacSize], std::string(31, 'a') + "!");
    EXPECT_TRUE(eventually([&] { return times_logged("no valid ip address to ping") == 4; }));
}

TEST_F(DevicePinger, SweepFindsAndReportsWhoAnswers) {
    write_file("/tmp/home/192.0.2.7", "a:b:c:d:e:f");
    write_file("/tmp/home/192.0.2.254", "02:00:00:00:00:fe");
    start_threads();
    track(
        [] {
            add_entry_to_device_list("Lamp", 2, "192.0.2.7", nullptr, "light", "cd", "\xff.local",
                                     "L1");
            add_entry_to_device_list("No address", 2, "192.0.2.9", nullptr, "tv", nullptr, "h",
                                     nullptr);
        },
        true);
    EXPECT_TRUE(eventually([&] { return times_logged("discover threads done after ") > 0; },
                           std::chrono::seconds(30)));
    expect_rounds(3);
    const std::string lamp = R"({"mac_address":"0a:0b:0c:0d:0e:0f","google_cd":"cd",)"
                             R"("type":"light","name":"Lamp","md":"L1"})";
    EXPECT_EQ(times_logged("sending object {\"wifiDevices\":[" + lamp +
                           R"(,{"mac_address":"02:00:00:00:00:fe"}]})"),
              1)
        << log_text();
    EXPECT_EQ(times_logged("pinging 254 addresses"), 1);
    EXPECT_EQ(times_logged(" starting thread "), 32);
    EXPECT_EQ(times_logged("range 192.0.2.1 , count 8"), 1);
    EXPECT_EQ(times_logged("range 192.0.2.249 , count 6"), 1);
    forget_log();
    expect_rounds(3);  // of which the first may have begun before
    EXPECT_EQ(times_logged("wifiDevices"), 0) << "nothing changed";
    EXPECT_GE(times_logged("need mac for 192.0.2.9"), 2);
    const auto lines = commands();
    const auto at = [&](const std::string &line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    EXPECT_LT(at("sudo ifup mon0"), at("sudo network_dhcp_arp_control.sh enable"));
    EXPECT_LT(at("sudo network_dhcp_arp_control.sh enable"),
              at("sudo arping -q -Iwlan0 -c2 -f 192.0.2.1"));
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    EXPECT_TRUE(logged("wifi is disconnected"));
    forget_commands();
    stop_device_discovery();
    EXPECT_TRUE(logged("clearing device list"));
    EXPECT_THAT(commands(), testing::ElementsAre("sudo ifdown mon0",
                                                 "sudo network_device_interfaces_control.sh "
                                                 "--interface=monitor --action=del",
                                                 "sudo network_dhcp_arp_control.sh disable"));
}

TEST_F(DevicePinger, HopsAtTheSavedInterval) {
    for (const auto &[saved, interval] : {std::pair("", "default bssid switch sleep 15"),
                                          {"x", "default bssid switch sleep 15"},
                                          {"2147483648", "default bssid switch sleep 15"},
                                          {"-2147483649", "default bssid switch sleep 15"},
                                          {"-2147483648", "val -2147483648"},
                                          {"2147483647", "val 2147483647"}}) {
        kvs_set("robot.disc_reconnect_sleep_sec", saved);
        std::thread(device_pinger_main, nullptr).detach();
        EXPECT_TRUE(logged(interval)) << saved;
        forget_log();
    }
    std::thread(device_network_hop_main, nullptr).detach();
    constexpr char kHop[] = "could not get current bssid, skipping bssid switch";
    use_subnet("192.0.2.2/24");
    set_pinger_mode(PINGER_MODE_DISCOVER, 1);
    set_pinger_mode(PINGER_MODE_PINGER, 1);
    expect_rounds(5);
    EXPECT_EQ(times_logged(kHop), 0) << "not in a sweep";
    set_pinger_mode(PINGER_MODE_DISCOVER, 0);
    EXPECT_TRUE(logged(kHop)) << "the one whose interval has passed";
    use_subnet("192.0.2.2/24");
    wifi_init_netinfo();
    EXPECT_TRUE(logged("no IP address"));
}

TEST_F(DevicePinger, SweepsOfAnySubnetEnd) {
    start_threads();
    for (const auto &[address, hosts] : {std::pair("192.0.2.2/30", 2),
                                         {"192.0.2.2/31", 0},
                                         {"192.0.2.2/32", 0},
                                         {"10.0.0.1/8", 4096}}) {
        forget_log();
        use_subnet(address);
        start_device_discovery();
        EXPECT_TRUE(logged("pinging " + std::to_string(hosts) + " addresses")) << address;
        EXPECT_EQ(times_logged("pinging only the first 4096"), hosts == 4096) << address;
        if (hosts == 4096) {
            EXPECT_TRUE(logged("NOT done"));
            stop_device_discovery();
        }
        EXPECT_TRUE(logged("discover threads done after ")) << address;
        EXPECT_LE(times_logged(" starting thread "), 64);
        stop_device_discovery();
        EXPECT_TRUE(logged("pinger disabled"));
    }
}

// Sweep, pinger, browser and the app's switch against each other.
TEST_F(DevicePinger, SwitchingOffAlwaysEmptiesTheList) {
    write_file("/tmp/home/192.0.2.9", "02:00:00:00:00:01");
    start_threads();
    std::jthread browser([](const std::stop_token &stop) {
        for (unsigned i = 0; !stop.stop_requested(); i++, usleep(2000)) {
            const std::string ip = "192.0.2." + std::to_string(100 + i % 200);
            add_entry_to_device_list("n", i, ip.c_str(), nullptr, "tv", "cd", "host", "md");
        }
    });
    for (useconds_t i = 0; i < 40; i++) {
        start_device_discovery();
        usleep(i % 10 * 5000);
        stop_device_discovery();
    }
    start_device_discovery();
    EXPECT_TRUE(logged("added entry for 192.0.2.9"));
    forget_log();
    stop_device_discovery();  // and on again before the pinger looks: emptied, and swept anew
    start_device_discovery();
    EXPECT_TRUE(logged("clearing device list"));
    EXPECT_TRUE(logged("pinging 254 addresses"));
    EXPECT_TRUE(logged("added entry for 192.0.2.9"));
    stop_device_discovery();
    browser.request_stop();
    browser.join();
    EXPECT_TRUE(eventually([] { return is_device_list_empty() != 0; }));
}

// Homes of any size are told whole, in one message that the broker takes.
TEST_F(DevicePinger, OneReportHoldsTheWholeHome) {
    exchange_mqtt_app(mqtt_client_init([](auto...) {}));
    log_handle *const log = log_open("robot", LOG_LEVEL_DBG, "/tmp/log", 0, 1, 0, 1, 1);
    log_configure_trunc(log, 0);
    exchange_log_handle(log);
    start_threads();
    const std::string lean(180, 'm');
    const std::string fat(900, '\x01');  // six characters each in JSON
    const struct {
        int devices;
        std::string first;  // of what each eighth device tells
        bool is_shortened;
    } homes[] = {{600, lean, false}, {4096, fat, true}};
    for (const auto &home : homes) {
        track([&] {
            for (int i = 0; i < home.devices; i++)
                add_device(i, nth_mac(i).c_str(), i % 8 == 0 ? home.first : lean);
            write_file("/tmp/log", "");
        });
        expect_rounds(2);
        const std::string text = read_file("/tmp/log");
        const size_t start = text.find("sent topic robot/debug, message ") + 32;
        const std::string report = text.substr(start, text.find("]}", start) + 2 - start);
        EXPECT_GT(report.size(), 64u << 10);
        EXPECT_LE(report.size(), kMqttAppLargestMessage);
        int devices = 0;
        for (size_t at = 0; (at = report.find("\"mac_address\"", at)) != report.npos; at++)
            devices++;
        EXPECT_EQ(devices, home.devices);
        for (const int i : {1, home.devices - 1})
            EXPECT_THAT(report, testing::HasSubstr(R"({"mac_address":")" + nth_mac(i) +
                                                   R"(","md":")" + lean + "\"}"));
        EXPECT_EQ(times_logged("512 of 4096 devices are reported by their address only"),
                  home.is_shortened);
        stop_tracking();
    }
}

// A round asks who is silent first, so the question marks where it begins.
TEST_F(DevicePinger, KeepAlivesOfALargeHomeTakeTurns) {
    start_threads();
    for (const auto &[devices, in_a_round] : {std::pair(64, 64), {65, 32}}) {
        track([count = devices] {
            add_device(0, nullptr);
            for (int i = 1; i <= count; i++)
                add_device(i, nth_mac(i).c_str());
        });
        expect_rounds(8);
        const auto lines = commands();
        stop_tracking();
        std::map<std::string, int> times;
        for (int i = 1; i <= devices; i++)
            times["sudo arping -q -Iwlan0 -c2 -f " + nth_address(i) + " &"] = 0;
        const auto by_times = [](const auto &a, const auto &b) { return a.second < b.second; };
        int at_once = in_a_round;
        for (const std::string &line : lines)
            if (line.ends_with("| grep reply")) {
                const auto [rarest, most] =
                    std::minmax_element(times.begin(), times.end(), by_times);
                EXPECT_LE(most->second, rarest->second + 1) << rarest->first << " waits too long";
                EXPECT_EQ(std::exchange(at_once, 0), in_a_round);
            } else if (line.ends_with(" &")) {
                at_once++;
                times[line]++;
            }
        EXPECT_EQ(times.size(), static_cast<size_t>(devices));
    }
}

// How many were asked in each round, and whether they took turns.
std::vector<int> questions(const std::string &log, int devices) {
    std::vector<int> rounds{0};
    std::istringstream lines(log);
    int asked = 0;
    for (std::string line; std::getline(lines, line);)
        if (line.find("pinged ") != line.npos) {
            rounds.push_back(0);
        } else if (line.find("need mac for ") != line.npos) {
            EXPECT_TRUE(line.ends_with(" " + nth_address(asked++ % devices))) << line;
            rounds.back()++;
        }
    return rounds;
}

TEST_F(DevicePinger, SilentDevicesDoNotHoldUpTheRound) {
    constexpr int kSilent = 12;
    start_threads();
    track([] {
        for (int i = 0; i < kSilent; i++)
            add_device(i, nullptr);
        add_device(kSilent, "a:b:c:d:e:f");
    });
    expect_rounds(6);
    const std::string log = log_text();
    for (const int asked : questions(log, kSilent))
        EXPECT_LE(asked, 5);
    EXPECT_EQ(times_logged("sending object"), 1);
    EXPECT_LE(questions(log.substr(0, log.find("sending object")), kSilent)[0], 5);
}

// Somebody can answer for thousands.
TEST_F(DevicePinger, SlowAnswersDoNotHoldUpTheRound) {
    if (!run_hastened(20))
        GTEST_SKIP() << "needs fast clocks";
    constexpr int kSlow = 40;
    fake("sudo",
         "[ $1 = arping ] || exit 0; /usr/bin/sleep 2; for ip; do :; done; echo \"reply "
         "[02:00:$ip]\"");
    start_threads();
    track([] {
        for (int i = 0; i < kSlow; i++)
            add_device(i, nullptr);
    });
    EXPECT_TRUE(eventually([&] { return times_logged("sending object") > 1; },
                           std::chrono::seconds(30 * 20)));
    for (const int asked : questions(log_text(), kSlow))
        EXPECT_LE(asked, 15) << "two seconds each";
}

TEST_F(DevicePinger, StopAndLostLinkEndTheRound) {
    fake("sudo",
         "[ $1 = arping ] || exit 0; while [ ! -e /tmp/go ]; do /usr/bin/sleep 0.01; done; echo "
         "'reply [02:00:00:00:00:07]'");
    start_threads();
    for (const bool is_stop : {true, false}) {
        unlink("/tmp/go");
        track([] {
            for (int i = 0; i < 3; i++)
                add_device(i, nullptr);
        });
        EXPECT_TRUE(logged("need mac for 10.0.0.1"));
        if (is_stop)
            stop_device_discovery();
        else
            wifi_state_set_wifi(WIFI_NETWORK_DOWN);
        write_file("/tmp/go", "");
        EXPECT_TRUE(logged(is_stop ? "pinger disabled" : "wifi is disconnected")) << log_text();
        EXPECT_EQ(times_logged("need mac for"), 1);
        EXPECT_EQ(times_logged("pinged 1 active devices"), 1);
        EXPECT_EQ(times_logged("sending object"), is_stop ? 0 : 1);
        stop_tracking();
    }
}

}  // namespace
