#include "device_pinger.h"

#include "home_device_list.h"
#include "mdns_device_discover.h"
#include "pthread_utils.h"
#include "robot.h"
#include "wifi_state.h"

extern "C" unsigned sleep(unsigned seconds) {
    return static_cast<unsigned>(usleep(seconds * 10'000));
}

namespace {

class DevicePinger : public Robot {
  protected:
    DevicePinger() {
        init_device_list();
        give_address();
        for (const char *tool : {"ifup", "ifdown", "network_device_interfaces_control.sh",
                                 "network_dhcp_arp_control.sh"})
            fake(tool, "exit 0");
        // A device answers while its file is there, with what the file holds as its address.
        fake("arping",
             "for ip; do :; done; [ -e /tmp/home/$ip ] && "
             "echo \"Unicast reply from $ip [$(cat /tmp/home/$ip)]  1.5ms\"");
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
    start_device_discovery();
    add_entry_to_device_list("Lamp", 2, "192.0.2.7", nullptr, "light", nullptr, "\xff.local", "L1");
    EXPECT_TRUE(logged(
        R"(sending object {"wifiDevices":[{"mac_address":"0a:0b:0c:0d:0e:0f","type":"light",)"
        R"("name":"Lamp","md":"L1"},{"mac_address":"02:00:00:00:00:fe"}]})"))
        << log_text();
    EXPECT_TRUE(logged("discover threads done after "));
    EXPECT_EQ(times_logged("pinging 254 addresses"), 1);
    EXPECT_EQ(times_logged(" starting thread "), 32);
    EXPECT_EQ(times_logged("range 192.0.2.249 , count 6"), 1);
    forget_log();
    EXPECT_TRUE(eventually([&] { return times_logged("pinged 2 active devices") == 2; }));
    EXPECT_EQ(times_logged("wifiDevices"), 0) << "nothing changed";
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
    for (useconds_t i = 0; i < 100; i++) {
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

}  // namespace
