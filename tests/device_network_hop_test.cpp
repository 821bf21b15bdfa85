#include "device_network_hop.h"

#include "clock.h"
#include "home_device_list.h"
#include "monitor_main.h"
#include "mqtt_client.h"
#include "process_handles.h"
#include "pthread_utils.h"
#include "supplicant.h"

namespace {

Supplicant *supplicant = nullptr;
int scan_ends_in = 0;  // pauses

// The scan has ended before the pause that it ends in is over.
void pause_in_scan(unsigned seconds) {
    Robot::add_to_commands("sleep " + std::to_string(seconds));
    if (--scan_ends_in != 0)
        return;
    supplicant->send_event("<3>CTRL-EVENT-SCAN-RESULTS ");
    Robot::eventually([] { return wlan_monitor_ctrl_pending_scan() == 0; });
}

// A home whose access points are "bb:FREQUENCY"; the supplicant roams as it is told.
class NetworkHop : public Robot {
  public:
    static std::string table_of(const std::vector<std::pair<int, int>> &access_points) {
        std::string text = "bssid / frequency / signal level / flags / ssid\n";
        for (const auto &[frequency, signal] : access_points) {
            const std::string number = std::to_string(frequency);
            text +=
                "bb:" + number + "\t" + number + "\t" + std::to_string(signal) + "\t[E]\thome\n";
        }
        return text;
    }

  protected:
    NetworkHop() {
        init_device_list();
        supplicant_.answer_with([this](const auto &command) { return Texts{answer(command)}; });
        wlan_monitor_init("wlan0", nullptr);
        pthread_create_detached_thread(nullptr, wlan_monitor_main, nullptr, "wlan_monitor");
        // Blocks once it is connected; a signal before the monitor waits is lost.
        std::thread([] {
            for (;; usleep(1000))
                wlan_monitor_signal_attach();
        }).detach();
        EXPECT_TRUE(eventually([this] { return supplicant_.is_attached(); }));
    }
    std::string answer(const std::string &command) {
        const std::lock_guard guard(lock_);
        add_to_commands(command);
        if (command.starts_with("ROAM bb:") && !refuses_)
            status_ = status_of(command.substr(8));
        return command == "STATUS" ? status_ : command == "SCAN_RESULTS" ? scan_ : "OK\n";
    }
    // From now on in a supplicant's answer.
    void set(std::string &what, const std::string &text) {
        const std::lock_guard guard(lock_);
        what = text;
    }
    static std::string status_of(const std::string &frequency) {
        return "bssid=bb:" + frequency + "\nfreq=" + frequency + "\nwpa_state=COMPLETED\n";
    }
    // The roams that one hop asks for, whose log has this end.
    std::string hop(const std::string &end) {
        const size_t before = supplicant_.commands().size();
        forget_log();
        device_network_hop_request();
        EXPECT_TRUE(logged(end)) << log_text();
        std::string roams;
        const Texts all = supplicant_.commands();
        for (size_t i = before; i < all.size(); i++)
            if (all[i].starts_with("ROAM ") && all[i - 1] == "PREAUTHENTICATE " + all[i].substr(5))
                roams += all[i].substr(8);
        return roams;
    }

    std::mutex lock_;
    std::string scan_, status_ = status_of("2412");
    std::atomic<bool> refuses_{false};
    Supplicant supplicant_;
};

TEST_F(NetworkHop, TakesTheBestOtherChannelsInTurn) {
    using Seen = std::vector<std::pair<int, int>>;
    const auto hops = [&](const Seen &seen, const Texts &roams, const std::string &end) {
        set(scan_, table_of(seen));
        for (const std::string &expected : roams)
            EXPECT_EQ(hop(end), expected);
    };
    const char *const kDone = "switch successful", *const kNone =
                                                       "failed to get bssid to switch to";
    const char *const kSkipped = "could not get current bssid, skipping bssid switch";
    const Seen four{{5180, -70}, {5200, -50}, {5220, -50}, {5240, -60}};
    pthread_create_detached_thread(nullptr, device_network_hop_main, nullptr, "dev_network_hop");
    hops({{2412, -40}, {2437, -60}, {5180, -50}, {2412, -70}, {5500, -90}},
         {"5180", "2437", "2412", "5180"}, kDone);
    // 5180 is gone and its slot filled anew; the others keep theirs.
    hops({{5500, -90}, {2437, -40}, {2412, -60}}, {"2437", "2412", "5500", "2437"}, kDone);
    hops(four, {"5200"}, kDone);
    refuses_ = true;
    hops(four, {"5220"}, "Did not switch bssid");
    hops({{5200, -60}, {5200, -50}}, {""}, kNone);
    hops({}, {""}, kNone);  // what is not seen any more is no target
    set(status_, "wpa_state=SCANNING\n");
    forget_log();
    for (int i = 0; i < 3; i++)
        device_network_hop_request();
    EXPECT_TRUE(eventually([&] { return times_logged(kSkipped) == 3; }));  // no request is lost
}

TEST_F(NetworkHop, TellsWhatItSawAndDidInOrder) {
    exchange_mqtt_app(mqtt_client_init([](auto...) {}));
    supplicant = &supplicant_;
    make_pauses_call(pause_in_scan);
    tell_stories();
    set(scan_, table_of({{2412, -40}}));
    for (const auto &[seconds, waits] :
         {std::pair(1, "sleep 1\n"),
          {2, "sleep 1\nsleep 1\n"},
          {10,
           "sleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\n"}}) {
        scan_ends_in = seconds;
        forget_commands();
        update_known_channel_info();
        EXPECT_EQ(story("src/device_pinger"),
                  "SCAN\n" + std::string(waits) +
                      "SCAN_RESULTS\nrobot/debug {\"wifiScanResults\":[{\"bssid\":\"bb:2412\","
                      "\"rssi\":-40,\"freq\":2412}]}\n");
    }
    char *bssid = nullptr;
    int32_t frequency = 7;
    EXPECT_EQ(get_current_bssid(&bssid, &frequency), 1);
    EXPECT_EQ(story("src/device_pinger"), "STATUS\nsleep 1\nSTATUS\n");
    EXPECT_EQ(MallocText(bssid).get() + std::to_string(frequency), "bb:24122412");
    set(status_, "wpa_state=SCANNING\n");
    EXPECT_EQ(get_current_bssid(&bssid, &frequency), 0);
    EXPECT_EQ(story("src/device_pinger"),
              "STATUS\nsleep 1\nSTATUS\nsleep 1\nSTATUS\nsleep 1\nSTATUS\nsleep 1\nSTATUS\n"
              "sleep 1\nnot connected, cannot get bssid\n");
}

TEST(ScanResults, AreReadWhereTheyAreWhole) {
    const std::string good = "bb:1\t2412\t-40\t[E]\thome\n", header = "header\n";
    const auto filled = [&](size_t size) {
        const std::string start = header + "bb:2\t5180\t-60\t[E]\t";
        return start + std::string(size - start.size(), 'x') + "\nbb:4\t5500\t-40";
    };
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"\n\n" + header + good, "2412 -40 bb:1, "},
        {header + "bb:3\nbb:3\t2412\nbb:3\t\t-40\nbb:3\t2412\tx\nbb:3\tx\t-1\n" + good,
         "2412 -40 bb:1, "},
        {header + good + "\t\t\n" + good, "2412 -40 bb:1, "},
        {header + "bb:3\t0\t-1\nbb:4\t99999999999\t-99999999999\n",  // odd, and taken
         "0 -1 bb:3, 2147483647 -2147483648 bb:4, "},
        {header + "bb:3\t2412x\t-40dBm", "2412 -40 bb:3, "},
        {filled(1023 - 14), "5180 -60 bb:2, "},  // the buffer may have ended within the signal
        {filled(1022 - 14) + "\t[E]", "5180 -60 bb:2, 5500 -40 bb:4, "},
        {header + std::string(5000, 'b'), ""},
        // Without room only a stronger one gets in, and only on a frequency that is there.
        {NetworkHop::table_of({{2412, -50}, {5180, -60}, {2412, -50}, {5200, -1}, {5180, -59}}),
         "2412 -50 bb:2412, 5180 -59 bb:5180, "},
    };
    for (const auto &[results, expected] : cases) {
        channel_info entries[2];
        std::string text;
        for (int i = 0, count = parse_scan_results(results.c_str(), entries, 2); i < count; i++)
            text += std::to_string(entries[i].freq) + " " + std::to_string(entries[i].rssi) + " " +
                    entries[i].bssid.get() + ", ";
        EXPECT_EQ(text, expected) << results.substr(0, 200);
    }
    const device_texts seen = copy_device_list().at(0);
    EXPECT_EQ(seen.mac.value_or("") + seen.type.value_or(""), "bb:01access-point");
}

TEST(LinkStatus, UnreadableGivesNoBssid) {
    const std::tuple<const char *, const char *, int> cases[]{
        {"", nullptr, 7},           {"freq=2412\nbssid=bb", nullptr, 7},
        {"bssid=bb\n", nullptr, 7}, {"bssid=bb\nfreq=x", nullptr, 7},
        {"bssid=\nfreq=0", "", 0},  {"freq=-5x\nbssid=b b\nbssid=cc\n", "b b", -5},
    };
    for (const auto &[status, bssid, frequency] : cases) {
        channel_info link;
        link.freq = 7;
        EXPECT_EQ(parse_link_status(status, &link), bssid != nullptr) << status;
        EXPECT_STREQ(link.bssid.get(), bssid) << status;
        EXPECT_EQ(link.freq, frequency) << status;
    }
}

}  // namespace
