// Interfaces, soft AP and DHCP: what the robot's scripts are told, and what happens when they fail.
#include "wifi_control.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include "wifi_command.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

class WifiControl : public WifiRobot {
  protected:
    WifiControl() { tell_stories(); }
    // What was run, stored and complained of, the words that all of the interface script's lines
    // have left out.
    static std::string told() {
        std::string text = story("src/wifi_control");
        for (const std::string word : {"sudo network_device_interfaces_control.sh ", "\n"})
            for (size_t at = 0; (at = text.find(word)) != text.npos;)
                text.replace(at, word.size(), word == "\n" ? "; " : "");
        return text;
    }
    const std::string failed_ = " returned status 1; wifi_system_command failed; ";
    const std::string added_ = "--interface=softap --action=add; sleep 1; ";
    const std::string removed_ = "--interface=softap --action=del; sleep 1; ";
    const std::string no_monitor_ = "--interface=monitor --action=del; sleep 1; ";
    const std::string monitor_ = "--interface=monitor --action=add; sleep 1; ";
    const std::string down_ = "sudo ifdown wlan1; ", up_ = "sudo ifup wlan1; ";
};

TEST_F(WifiControl, OnlyANonZeroExitOfACommandIsAFailure) {
    EXPECT_EQ(wifi_system_command("exit 3") + wifi_system_command(nullptr), -2);
    EXPECT_EQ(told(), "exit 3; exit 3 returned status 3; invalid input; ");
    EXPECT_EQ(wifi_system_command("kill -9 $$"), SIGKILL);
    signal(SIGCHLD, SIG_IGN);  // the child is reaped by the kernel
    EXPECT_EQ(wifi_system_command("exit 1"), 0);
}

TEST_F(WifiControl, MonitorModeStartsAndStopsInOrder) {
    const std::string start = removed_ + monitor_ + "sudo ifdown mon0; sleep 1; sudo ifup mon0; ";
    EXPECT_EQ(wifi_enable_noarp_mode(1) + wifi_start_monitor_mode(), 0);
    wifi_stop_monitor_mode();
    EXPECT_EQ(wifi_enable_noarp_mode(0), 0);
    EXPECT_EQ(told(), "sudo network_dhcp_arp_control.sh enable; " + start + "sudo ifdown mon0; " +
                          no_monitor_ + "sudo network_dhcp_arp_control.sh disable; ");
    fake("ifup", "exit 1");
    fake("network_dhcp_arp_control.sh", "exit 1");
    EXPECT_EQ(wifi_start_monitor_mode() + wifi_enable_noarp_mode(0), -2);
    EXPECT_EQ(told(),
              start + "sudo ifup mon0" + failed_ + "sudo network_dhcp_arp_control.sh disable; ");
    EXPECT_TRUE(
        logged("\nMODULE : netwarden CMD (sudo network_dhcp_arp_control.sh disable) failed"));
}

TEST_F(WifiControl, InterfacesAreLookedForAtTheStart) {
    const std::string ask = "ifconfig wlan0 | grep HWaddr; ";
    for (const auto &[script, complaint] :
         {std::pair("echo $1; echo $1 Link HWaddr 02:00", std::string()),
          {"echo $1 Link ether 02:00", "ifconfig cmd returned no output; "},
          {"exit 1", "ifconfig cmd returned no output; "}}) {
        fake("ifconfig", script);
        EXPECT_EQ(wifi_check_sta_iface_available(), complaint.empty() ? 0 : -1) << script;
        EXPECT_EQ(told(), ask + complaint);
    }
    EXPECT_TRUE(logged_as("INFO", "found wlan0 iface: HWaddr 02:00"));
    EXPECT_EQ(wifi_check_run_network_dir(), -1);
    write_file("/run/ifstate/x", "");
    EXPECT_EQ(wifi_check_run_network_dir(), 0);
    const std::string longest(256 - sizeof "ifconfig  | grep HWaddr", 'x');
    for (const std::string &name : {longest, longest + "x"}) {
        wifi_set_station_interface_name(name.c_str());
        EXPECT_EQ(wifi_check_sta_iface_available(), -1);
    }
    EXPECT_EQ(told(), "failed to access /run/ifstate; ifconfig " + longest +
                          " | grep HWaddr; ifconfig cmd returned no output; snprintf error; ");
}

TEST_F(WifiControl, SoftApStartsAndStopsInOrder) {
    const std::string begin = no_monitor_ + added_, configure = "sudo provision --apssid Plover-";
    const std::string nameless = begin + "Error reading robot_id; " + down_;
    const std::string is_up = up_ + "network.interface wlan1; ",
                      is_down = "network.interface wlan0; ";
    const struct {
        const char *action, *failing;
        int result, uap;
        std::string told;
    } rows[] = {
        {"start", "ifdown", -1, 0, nameless + "sudo ifdown wlan1" + failed_},
        {"start", "ifup", -1, 0, nameless + up_ + "sudo ifup wlan1" + failed_},
        {"start", "nothing", 0, 1, nameless + is_up},
        {"stop", "ifdown", -1, 1, down_ + "sudo ifdown wlan1" + failed_ + removed_},
        {"stop", "nothing", 0, 0, down_ + is_down + removed_},
        {"12345678", "nothing", 0, 1,
         begin + configure + "1234 --apchan 6 --aphwmode g --x; " + down_ + is_up},
        {"a.~b5678", "provision", 0, 1,
         begin + configure + "a.~b --apchan 6 --aphwmode g --x; " + down_ + up_},
    };
    for (const auto &[action, failing, result, uap, expected] : rows) {
        if (strlen(action) == 8)
            kvs_set("product.robotid", action);
        fake(failing, "exit 1");
        EXPECT_EQ(action == std::string("stop") ? wifi_stop_uap()
                                                : wifi_configure_and_start_uap(6, "g --x"),
                  result);
        EXPECT_EQ(wifi_state_get_uap(), uap);
        EXPECT_EQ(told(), expected);
        fake(failing, "exit 0");
    }
}

TEST_F(WifiControl, FindsTheStationAmongOtherLines) {
    uint32_t address[7] = {0, 0, 0, 0, 0, 0, 7};
    const auto find = [&](const std::string &listing, size_t size) {
        write_file("/tmp/listing", listing);
        return wifi_get_associated_station_status(address, size);
    };
    fake("hostapd_cli", "cat /tmp/listing");
    EXPECT_EQ(find("aa:bb:cc:dd:ee:xx\n", sizeof address), 0);
    // Every hexadecimal number is taken for an octet, and what stands behind does not matter.
    EXPECT_EQ(find("  0xAA:+b: c:-1:fffffffff:0f[signal=-40]\n", 20), 1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xb, 0xc, 0xffffffff, 0xffffffff, 0, 7));
    EXPECT_EQ(find("Selected interface 'p2p0'\n\n" + std::string(300, 'x') +
                       "\naa:bb:cc:dd:ee\naa :bb:cc:"
                       "dd:ee:1\naa:bb:cc:dd:ee:0f\n1:2:3:4:5:6",
                   sizeof address),
              1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0x0f, 7));
    fake("hostapd_cli", "exit 1");
    told();
    EXPECT_EQ(find("", 24) + wifi_disassociate_uap_station(address), -1);
    const std::string command = "sudo hostapd_cli -iwlan1 disassociate aa:bb:cc:dd:ee:0f; ";
    EXPECT_EQ(told(), "sudo hostapd_cli -ip2p0 all_sta; " + command + command +
                          "wifi_system_command failed; ");
}

TEST_F(WifiControl, IpConfigurationIsRunAsItStandsUnderALock) {
    const std::string dhcp = "sudo provision --clmode dhcp", failure = dhcp + " " + failed_;
    const std::string fixed = "sudo provision --clmode static --clipaddr 192.168.1.7 ";
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    kvs_set("network.ip_config", dhcp + " \n");
    fake("provision", "cat /proc/locks >/tmp/locks; exit 1");
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_EQ(told(), "no IP config saved; " + dhcp + "; " + failure);
    EXPECT_NE(read_file("/tmp/locks").find("WRITE"), std::string::npos);
    fake("provision", "exit 0");
    for (const std::string &line :
         {dhcp + " \n", fixed + "--cldnsns1 192.168.1.1  --cldnsns2 \"#\" \n",
          fixed + std::string(400, '1')}) {
        wifictl_set_ip_config(line.c_str());
        forget_commands();
        EXPECT_EQ(wifi_set_provision_ip_config(), 0) << line;
        EXPECT_THAT(commands(), testing::Contains(line));
    }
    const std::string lock = "/tmp/provision.lock";
    for (const std::string kind : {"ln -sf /tmp/elsewhere ", "rm /tmp/provision.lock; mkfifo "}) {
        ASSERT_EQ(system((kind + lock).c_str()), 0);
        const Fd other_end(open(lock.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        told();
        EXPECT_EQ(wifi_set_provision_ip_config(), -1);
        EXPECT_EQ(told(), "error opening " + lock + "; ");
    }
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
}

// What else the file may hold is the fuzz target's.
TEST_F(WifiControl, RenewalSignalsTheClientAndNobodyElse) {
    EXPECT_EQ(wifi_renew_dhcp_lease(), -1);
    for (const char *content : {"", "none\n", "1\n", "99999999999999999999"}) {
        write_file("/var/run/udhcpc.wlan0.pid", content);
        EXPECT_EQ(wifi_renew_dhcp_lease(), -1) << content;
    }
    EXPECT_EQ(told(),
              "fopen failed; failed to read PID from filename; strtol() error; strtol() error; "
              "strtol() error; ");
    const pid_t client = fork();
    if (client == 0)
        _exit(pause());
    write_file("/var/run/udhcpc.wlan0.pid", std::to_string(client) + "\n");
    EXPECT_EQ(wifi_renew_dhcp_lease(), 0);
    int status = 0;
    EXPECT_EQ(waitpid(client, &status, 0), client);
    EXPECT_EQ(WTERMSIG(status), 16);
}

}  // namespace
