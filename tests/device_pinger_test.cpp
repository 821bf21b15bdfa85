// The pinger round by round: each begins when the test says, and is told as one story.
#include "device_pinger.h"

#include <sys/stat.h>
#include <sys/syscall.h>

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
#include "wifi_settings.h"
#include "wifi_state.h"

static constexpr char kSeconds[] = "/tmp/seconds";  // as long as many have passed

// The daemon's threads live in the time that a test gives them.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    struct stat passed = {};
    if (clock != CLOCK_MONOTONIC || gettid() == getpid())
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    *now = {1000 + (stat(kSeconds, &passed) == 0 ? passed.st_size : 0), 0};
    return 0;
}

namespace {

constexpr std::chrono::seconds kPatience{30};
constexpr char kSource[] = "src/device_pinger";
constexpr char kOn[] =
    "sudo network_device_interfaces_control.sh --interface=softap --action=del\n"
    "sudo network_device_interfaces_control.sh --interface=monitor --action=add\n"
    "sudo ifdown mon0\nsudo ifup mon0\nsudo network_dhcp_arp_control.sh enable\n";
constexpr char kOff[] =
    "sudo ifdown mon0\nsudo network_device_interfaces_control.sh --interface=monitor --action=del\n"
    "sudo network_dhcp_arp_control.sh disable\nclearing device list\n";

std::string address(int host) {
    return "192.0.2." + std::to_string(host);
}
// The same of one host or of several in turn.
std::string arping(const std::string &head, int host, int last, const std::string &tail) {
    const std::string line = "sudo arping " + head + "-Iwlan0 -c2 -f " + address(host) + tail;
    return host < last ? line + arping(head, host + 1, last, tail) : line;
}
std::string alive(int host, int last = 0) {
    return arping("-q ", host, last, " &\n");
}
std::string waiting(int host, int last = 0) {
    return arping("-q ", host, last, "\n");
}
std::string question(int host) {
    return arping("", host, host, " | grep reply\n");
}
std::string no_reply(int host, int last = 0) {
    const std::string lines = question(host) + "no reply from " + address(host) + "\n";
    return host < last ? lines + no_reply(host + 1, last) : lines;
}
std::string report(const std::string &devices) {
    return "robot/debug {\"wifiDevices\":[" + devices + "]}\n";
}

struct device {
    const char *name = nullptr, *mac = nullptr, *type = nullptr, *cd = nullptr, *host = nullptr,
               *md = nullptr;
};
void add(int host, const device &given = {}) {
    add_entry_to_device_list(given.name, 2, host != 0 ? address(host).c_str() : nullptr, given.mac,
                             given.type, given.cd, given.host, given.md);
}

Semaphore round_allowed{0}, round_ended{0};

void pause_between_rounds(unsigned seconds) {
    if (seconds != 3) {
        usleep(1000);
        return;
    }
    round_ended.release();
    round_allowed.acquire();
}

class DevicePinger : public Robot {
  protected:
    DevicePinger() {
        make_pauses_call(pause_between_rounds);
        init_device_list();
        give_address();
        use_subnet("192.0.2.2/24");
        // A device answers while its file is there, with what the file holds as its address. Each
        // question takes two seconds. Each other tool succeeds.
        fake("sudo", R"([ "$1" = arping ] || exit 0; [ "$2" = -q ] || printf .. >>/tmp/seconds; )"
                     R"(for ip; do :; done; [ -e /tmp/home/$ip ] && )"
                     R"(echo "Unicast reply from $ip [$(cat /tmp/home/$ip)]  1.5ms")");
    }
    static void answer(int host, const std::string &mac) {
        write_file("/tmp/home/" + address(host), mac);
    }
    static void use_subnet(const std::string &subnet) {
        ASSERT_EQ(system(("ip addr flush dev wlan0; ip addr add dev wlan0 " + subnet).c_str()), 0);
        netinfo info;
        ASSERT_EQ(wifi_read_netinfo(&info), 27);
        wifi_state_set_wifi(WIFI_CONNECTED);
    }
    // A pinger that has come to its first pause; what it did before.
    static std::string start(bool is_tracking = true) {
        exchange_mqtt_app(mqtt_client_init([](auto...) {}));
        tell_stories();
        forget_commands();
        pthread_create_detached_thread(nullptr, device_pinger_main, nullptr, "dev_pinger");
        round_ended.acquire();
        set_pinger_mode(PINGER_MODE_PINGER, is_tracking ? 1 : 0);
        return story(kSource);
    }
    static std::string round(const std::function<void()> &meanwhile = [] {}) {
        forget_commands();
        round_allowed.release();
        meanwhile();
        round_ended.acquire();
        return story(kSource);
    }
};

TEST_F(DevicePinger, OnlyAnAddressReachesTheShell) {
    enum kind : char { kLearn, kWait, kAlive };
    const std::string kBad = "no valid ip address to ping\n", kWlan0 = "wlan0";
    const std::tuple<const char *, kind, int, std::string, std::string> probes[] = {
        {"192.0.2.7", kLearn, 1, question(7), kWlan0},
        {"192.0.2.8", kLearn, 0, no_reply(8), kWlan0},
        {"192.0.2.7", kWait, 1, waiting(7), kWlan0},
        {"192.0.2.8", kWait, 0, waiting(8), kWlan0},
        {"192.0.2.7", kAlive, 0, alive(7), kWlan0},
        {nullptr, kWait, 0, kBad, kWlan0},
        {"192.0.2", kAlive, 0, kBad, kWlan0},
        {"192.0.2.7;reboot", kWait, 0, kBad, kWlan0},
        {"fe80::1", kLearn, 0, kBad, kWlan0},
        {"192.0.2.7", kWait, 0, "no valid interface for pinging\n", ""},
        {"192.0.2.7", kLearn, 0, "broken ping packet 192.0.2.7\n", std::string(84, 'i')},
    };
    answer(7, std::string(40, 'a'));
    tell_stories();
    char mac[kProbeMacSize + 1] = "";
    mac[kProbeMacSize] = '!';
    for (const auto &[ip, kind, result, expected, interface] : probes) {
        forget_commands();
        wifi_set_station_interface_name(interface.c_str());
        ping_request request{.ip = ip, .mac = mac};
        EXPECT_EQ(ping_device(&request, kind == kLearn, kind == kWait), result) << expected;
        EXPECT_EQ(story(kSource), expected);
    }
    EXPECT_EQ(std::string(mac) + mac[kProbeMacSize], std::string(31, 'a') + "!");
}

TEST_F(DevicePinger, TellsTheHomeWhenItChanges) {
    const std::string lamp = R"({"mac_address":"0a:0b:0c:0d:0e:0f","google_cd":"cd",)"
                             R"("type":"light","name":"Lamp")";
    const std::string speaker = R"({"mac_address":"02:00:00:00:00:09","hostname":"speaker.local"})";
    const std::string placeless = R"({"mac_address":"02:00:00:00:00:08"})";
    const std::pair<std::function<void()>, std::string> rounds[] = {
        {[] {}, ""},
        {[] { add(1); }, "clearing device list\n"},
        {[] { start_device_discovery(), wifi_state_set_wifi(WIFI_NETWORK_DOWN); }, ""},
        {[] { wifi_state_set_wifi(WIFI_CONNECTED), wifi_init_netinfo(); }, ""},
        {[] { use_subnet("192.0.2.2/24"); }, kOn + report("")},
        {[] { add(9, {.host = "speaker.local"}); }, no_reply(9) + report("")},
        {[] { answer(9, "2:0:0:0:0:9"); }, question(9) + report(speaker)},
        {[] {
             answer(7, "a:b:c:d:e:f");
             add(7, {.name = "Lamp", .type = "light", .cd = "cd", .host = "\xff.local"});
             add(0, {.mac = "02:00:00:00:00:08"});
         },
         alive(9) + question(7) + report(speaker + "," + lamp + "}," + placeless)},
        {[] {}, alive(9) + alive(7)},  // nothing is new
        {[] { add(7, {.name = "Lamp", .md = "L1"}); },
         alive(9) + alive(7) + report(speaker + "," + lamp + R"(,"md":"L1"},)" + placeless)},
        // Off and on again before the pinger looks: emptied, and a new tracking.
        {[] { stop_device_discovery(), start_device_discovery(); }, std::string(kOff) + kOn},
        {[] { add(9, {.host = "speaker.local"}); }, question(9) + report(speaker)},
        {[] { wifi_state_set_wifi(WIFI_NETWORK_DOWN), stop_device_discovery(); }, kOff},
    };
    EXPECT_EQ(start(false), "sudo network_dhcp_arp_control.sh disable\n");
    for (const auto &[change, expected] : rounds) {
        change();
        EXPECT_EQ(round(), expected) << "round " << &change - &rounds[0].first;
    }
}

TEST_F(DevicePinger, HopsAtTheSavedInterval) {
    constexpr char kHop[] = "could not get current bssid, skipping bssid switch";
    make_pauses_call([](unsigned) {
        round_ended.release();
        for (;;)
            pause();
    });
    for (const auto &[saved, interval] : {std::pair("", "default bssid switch sleep 15"),
                                          {"2147483648", "default bssid switch sleep 15"},
                                          {"-2147483649", "default bssid switch sleep 15"},
                                          {"-2147483648", "val -2147483648"},
                                          {"2147483647", "val 2147483647"}}) {
        kvs_set("robot.disc_reconnect_sleep_sec", saved);
        std::thread(device_pinger_main, nullptr).detach();
        round_ended.acquire();
        EXPECT_EQ(times_logged(interval), 1) << saved;
        forget_log();
    }
    make_pauses_call(pause_between_rounds);
    kvs_set("robot.disc_reconnect_sleep_sec", "10");
    start();
    exchange_log_handle(nullptr);
    std::thread(device_network_hop_main, nullptr).detach();
    round();
    // Seconds since the start, discover, pinger; hops until then.
    for (const auto &[seconds, discover, pinger, hops] : {std::tuple(10u, 1, 1, 0),
                                                          {30u, 1, 0, 0},
                                                          {30u, 0, 1, 1},
                                                          {39u, 0, 1, 1},
                                                          {40u, 0, 1, 2}}) {
        write_file(kSeconds, std::string(seconds, 's'));
        set_pinger_mode(PINGER_MODE_DISCOVER, discover);
        set_pinger_mode(PINGER_MODE_PINGER, pinger);
        round();
        EXPECT_TRUE(eventually([&, due = hops] { return times_logged(kHop) >= due; }, kPatience));
        EXPECT_EQ(times_logged(kHop), hops) << seconds;
    }
}

TEST_F(DevicePinger, SweepsAreBoundedAndEnd) {
    wifi_set_station_interface_name("");  // a probe then ends at once
    std::thread(device_subnet_ping_main, nullptr).detach();
    for (const auto &[subnet, addresses, workers, probes, last] :
         {std::tuple("192.0.2.2/24", "254", 32, 254, "range 192.0.2.249 , count 6"),
          {"192.0.2.2/30", "2", 1, 2, "range 192.0.2.1 , count 2"},
          {"192.0.2.2/31", "0", 0, 0, ""},
          {"192.0.2.2/32", "0", 0, 0, ""},
          {"10.0.0.1/20", "4094", 512, 4094, "range 10.0.15.249 , count 6"},
          {"10.0.0.1/19", "4096", 512, 4096, "only the first 4096"},
          {"10.0.0.1/8", "4096", 64, 0, "stopping pinger early"}}) {
        const bool is_wanted = subnet != std::string_view("10.0.0.1/8");
        forget_log();
        use_subnet(subnet);
        set_pinger_mode(PINGER_MODE_CLEAR, 0);
        set_pinger_mode(PINGER_MODE_DISCOVER, 1);
        device_subnet_ping_request(device_tracking::current_session().number - (is_wanted ? 0 : 1));
        EXPECT_TRUE(logged("discover threads done after 0l seconds")) << subnet;
        EXPECT_EQ(times_logged("pinging " + std::string(addresses) + " addresses"), 1) << subnet;
        EXPECT_EQ(times_logged("no valid interface for pinging"), probes) << subnet;
        EXPECT_EQ(times_logged(" starting thread "), workers) << subnet;
        EXPECT_GE(times_logged(last), 1) << subnet;
        pinger_mode mode;
        EXPECT_EQ(get_pinger_mode(&mode)->discover, is_wanted ? 0 : 1) << subnet;
    }
}

TEST_F(DevicePinger, SweepFindsAndReportsWhoAnswers) {
    answer(3, "02:00:00:00:00:03");
    answer(6, "02:00:00:00:00:06");
    use_subnet("192.0.2.2/29");
    start(false);
    start_device_discovery();
    round();
    add(3);
    std::thread(device_subnet_ping_main, nullptr).detach();
    pinger_mode mode;
    EXPECT_TRUE(eventually([&] { return get_pinger_mode(&mode)->discover == 0; }, kPatience));
    EXPECT_EQ(story(kSource), waiting(1, 6));
    EXPECT_EQ(round(), question(3) + question(6) +
                           report(R"({"mac_address":"02:00:00:00:00:03"},)"
                                  R"({"mac_address":"02:00:00:00:00:06"})"));
}

// Homes of any size are told whole, in one message that the broker takes.
TEST_F(DevicePinger, OneReportHoldsTheWholeHome) {
    constexpr size_t kRoom =
        kMqttAppLargestMessage - std::string_view(R"({"wifiDevices":[]})").size();
    const auto text_of = [](const char *mac, size_t model) {
        return std::string(R"({"mac_address":")") + mac +
               (model > 0 ? R"(","md":")" + std::string(model, 'm') : "") + "\"}";
    };
    start();
    log_configure_trunc(get_log_handle(), 0);
    // Lengths of the models that two devices announce, and of the second that is told. What else is
    // told of each are 43 characters and a comma.
    for (const auto &[first, second, told] : {std::tuple(10ul, kRoom - 98, kRoom - 98),
                                              {10ul, kRoom - 97, 0ul},
                                              {kRoom / 2 - 44, kRoom / 2 - 42, 0ul}}) {
        clear_device_list();
        add(0, {.mac = "02:aa", .md = std::string(first + 12, 'm').c_str()});
        add(0, {.mac = "02:bb", .md = std::string(second + 12, 'm').c_str()});
        round_allowed.release();
        round_ended.acquire();
        EXPECT_NE(
            read_file("/run/fakes/commands")
                .find("robot/debug, message {\"wifiDevices\":[" + text_of("02:aa", first + 12) +
                      "," + text_of("02:bb", told > 0 ? told + 12 : 0) + "]}"),
            std::string::npos)
            << second;
        forget_commands();
    }
}

TEST_F(DevicePinger, KeepAlivesOfALargeHomeTakeTurns) {
    const auto add_known = [](int host) {
        add(host, {.mac = ("02:00:00:00:00:" + std::to_string(host)).c_str()});
        clear_device_list_updated();
    };
    start();
    EXPECT_EQ(round(), kOn);
    add(0, {.mac = "1:1:1:1:1:1"});  // nobody knows where
    for (int host = 1; host <= 64; host++)
        add_known(host);
    EXPECT_EQ(round(), alive(1, 64));
    add_known(65);
    EXPECT_EQ(round(), alive(1, 32));
    EXPECT_EQ(round(), alive(33, 64));
    EXPECT_EQ(round(), alive(1, 31) + alive(65));
}

TEST_F(DevicePinger, QuestionsDoNotHoldUpTheRound) {
    const std::string mac = R"({"mac_address":"0a:0b:0c:0d:0e:0f"})";
    answer(13, "a:b:c:d:e:f");
    start();
    EXPECT_EQ(round(), kOn);
    for (int host = 1; host <= 13; host++)
        add(host);
    clear_device_list_updated();
    EXPECT_EQ(round(), no_reply(1, 5));
    EXPECT_EQ(round(), no_reply(6, 10));
    EXPECT_EQ(round(), no_reply(11, 12) + question(13) + no_reply(1, 3) + report(mac));
    EXPECT_EQ(round(), no_reply(4, 8) + alive(13));
    // Somebody can answer for thousands.
    for (int host = 21; host <= 30; host++)
        add(host);
    for (int host = 1; host <= 30; host++)
        answer(host, "02:00:00:00:00:" + std::to_string(host + 10));
    for (const char *last : {"192.0.2.1 ", "192.0.2.8 "}) {
        const std::string told = round();
        EXPECT_EQ(told.rfind(last), told.rfind(" | grep") + 1 - strlen(last));
    }
}

TEST_F(DevicePinger, StopAndLostLinkEndTheRound) {
    fake("sudo",
         "[ $1 = arping ] || exit 0; while [ ! -e /tmp/go ]; do /usr/bin/sleep 0.01; done; "
         "echo 'reply [02:00:00:00:00:07]'");
    start();
    const std::string mac = R"({"mac_address":"02:00:00:00:00:07"})";
    const std::pair<void (*)(), std::string> ends[] = {
        {stop_device_discovery, ""},
        {[] { wifi_state_set_wifi(WIFI_NETWORK_DOWN); }, "wifi = 5\n" + report(mac)}};
    for (const auto &[end, news] : ends) {
        unlink("/tmp/go");
        wifi_state_set_wifi(WIFI_CONNECTED);
        set_pinger_mode(PINGER_MODE_PINGER, 1);
        add(1);
        add(2);
        const std::string told = round([end = end] {
            EXPECT_TRUE(eventually(
                [] {
                    return read_file("/run/fakes/commands").find("grep reply") != std::string::npos;
                },
                kPatience));
            end();
            write_file("/tmp/go", "");
        });
        EXPECT_EQ(told, kOn + question(1) + news);
        stop_device_discovery();
        EXPECT_EQ(round(), kOff);
    }
}

}  // namespace
