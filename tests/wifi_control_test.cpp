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

using WifiInterfaces = WifiRobot;
using SoftAp = WifiRobot;
using IpConfig = WifiRobot;

constexpr char kLockFile[] = "/tmp/provision.lock";

std::string iface_control(const std::string &kind, const std::string &action) {
    return "sudo network_device_interfaces_control.sh --interface=" + kind + " --action=" + action;
}

TEST_F(WifiInterfaces, OnlyANonZeroExitOfACommandIsAFailure) {
    EXPECT_EQ(wifi_system_command("exit 3") + wifi_system_command(nullptr), -2);
    EXPECT_EQ(wifi_system_command("kill -9 $$"), SIGKILL);
    signal(SIGCHLD, SIG_IGN);  // the child is reaped by the kernel
    EXPECT_EQ(wifi_system_command("exit 1"), 0);
}

TEST_F(WifiInterfaces, MonitorModeStartsAndStopsInOrder) {
    EXPECT_EQ(wifi_enable_noarp_mode(1), 0);
    EXPECT_EQ(wifi_start_monitor_mode(), 0);
    wifi_stop_monitor_mode();
    EXPECT_EQ(wifi_enable_noarp_mode(0), 0);
    EXPECT_EQ(commands(),
              (Lines{"sudo network_dhcp_arp_control.sh enable", iface_control("softap", "del"),
                     "sleep 1", iface_control("monitor", "add"), "sleep 1", "sudo ifdown mon0",
                     "sleep 1", "sudo ifup mon0",  // started
                     "sudo ifdown mon0", iface_control("monitor", "del"), "sleep 1",
                     "sudo network_dhcp_arp_control.sh disable"}));
    fake("ifup", "exit 1");
    fake("network_dhcp_arp_control.sh", "exit 1");
    EXPECT_EQ(wifi_start_monitor_mode() + wifi_enable_noarp_mode(0), -2);
    EXPECT_TRUE(
        logged("\nMODULE : netwarden CMD (sudo network_dhcp_arp_control.sh disable) failed"));
}

TEST_F(WifiInterfaces, AreLookedForAtTheStart) {
    for (const auto &[script, result] : {std::pair("echo $1; echo $1 Link HWaddr 02:00", 0),
                                         {"echo $1 Link ether 02:00", -1},
                                         {"exit 1", -1}}) {
        fake("ifconfig", script);
        EXPECT_EQ(wifi_check_sta_iface_available(), result) << script;
    }
    EXPECT_TRUE(logged_as("INFO", "found wlan0 iface: HWaddr 02:00"));
    EXPECT_EQ(wifi_check_run_network_dir(), -1);
    write_file("/run/ifstate/x", "");
    EXPECT_EQ(wifi_check_run_network_dir(), 0);
    wifi_set_station_interface_name(std::string(300, 'x').c_str());
    EXPECT_EQ(wifi_check_sta_iface_available(), -1);
    EXPECT_EQ(commands(), Lines(3, "ifconfig wlan0 | grep HWaddr"));
}

TEST_F(SoftAp, StartTellsTheScriptsInOrder) {
    for (const std::string mode : {"g", "n-ht40 --apchan 1"}) {  // as it is
        kvs_set("product.robotid", mode == "g" ? "12345678" : "a.~b5678");
        wifi_state_set_uap(0);
        forget_commands();
        EXPECT_EQ(wifi_configure_and_start_uap(6, mode.c_str()), 0);
        EXPECT_EQ(commands(), (Lines{iface_control("monitor", "del"), "sleep 1",
                                     iface_control("softap", "add"), "sleep 1",
                                     std::string("sudo provision --apssid Plover-") +
                                         (mode == "g" ? "1234" : "a.~b") +
                                         " --apchan 6 --aphwmode " + mode + " \n",
                                     "sudo ifdown wlan1", "sudo ifup wlan1"}));
        EXPECT_EQ(wifi_state_get_uap(), 1);
        EXPECT_EQ(kvs_get("network.interface"), "wlan1");
    }
}

TEST_F(SoftAp, AFailedIfdownEndsTheStartButNotTheStop) {
    fake("ifdown", "exit 1");
    EXPECT_EQ(wifi_configure_and_start_uap(6, "g"), -1);
    EXPECT_TRUE(logged("Error reading robot_id"));
    EXPECT_EQ(commands().back(), "sudo ifdown wlan1");
    wifi_state_set_uap(1);
    forget_commands();
    EXPECT_EQ(wifi_stop_uap(), -1);
    EXPECT_EQ(wifi_state_get_uap(), 1);
    fake("ifdown", "exit 0");
    EXPECT_EQ(wifi_stop_uap(), 0);
    EXPECT_EQ(wifi_state_get_uap(), 0);
    EXPECT_EQ(kvs_get("network.interface"), "wlan0");
    const std::string removal = iface_control("softap", "del");
    EXPECT_EQ(commands(), (Lines{"sudo ifdown wlan1", removal, "sleep 1",  //
                                 "sudo ifdown wlan1", removal, "sleep 1"}));
    fake("ifup", "exit 1");
    EXPECT_EQ(wifi_configure_and_start_uap(6, "g"), -1);
    EXPECT_EQ(wifi_state_get_uap(), 0);
}

TEST_F(SoftAp, FindsTheStationAmongOtherLines) {
    uint32_t address[7] = {0, 0, 0, 0, 0, 0, 7};
    fake("hostapd_cli", "echo aa:bb:cc:dd:ee:xx");
    EXPECT_EQ(wifi_get_associated_station_status(address, sizeof address), 0);
    // Every hexadecimal number is taken for an octet, and what stands behind does not matter.
    fake("hostapd_cli", "echo '  0xAA:+b: c:-1:fffffffff:0f[signal=-40]'");
    EXPECT_EQ(wifi_get_associated_station_status(address, 20), 1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xb, 0xc, 0xffffffff, 0xffffffff, 0, 7));
    fake("hostapd_cli",
         "echo \"Selected interface 'p2p0'\"; echo; head -c 300 /dev/zero | tr '\\0' x; echo;"
         "echo aa:bb:cc:dd:ee; echo aa:bb:cc:dd:ee:; echo aa :bb:cc:dd:ee:1;"
         "echo aa:bb:cc:dd:ee:0f; echo 1:2:3:4:5:6");
    EXPECT_EQ(wifi_get_associated_station_status(address, sizeof address), 1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0x0f, 7));
    fake("hostapd_cli", "exit 1");
    EXPECT_EQ(wifi_disassociate_uap_station(address), -1);
    const std::string listing = "sudo hostapd_cli -ip2p0 all_sta\n";
    EXPECT_EQ(commands(), (Lines{listing, listing, listing,
                                 "sudo hostapd_cli -iwlan1 disassociate aa:bb:cc:dd:ee:0f\n"}));
}

TEST_F(IpConfig, TheLineIsRunAsItStands) {
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_TRUE(logged_as("WARN", "no IP config saved"));
    const std::string dhcp = "sudo provision --clmode dhcp \n";
    const std::string fixed = "sudo provision --clmode static --clipaddr 192.168.1.7 ";
    const Lines lines{dhcp, fixed + "--cldnsns1 192.168.1.1  --cldnsns2 \"#\" \n",
                      "provision --clmode dhcp --clmtu 1400; true", fixed + std::string(400, '1')};
    kvs_set("network.ip_config", dhcp);
    fake("provision", "cat /proc/locks >/tmp/locks; exit 1");
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_EQ(commands(), Lines{"sudo provision --clmode dhcp "});  // the store cuts line ends
    EXPECT_NE(read_file("/tmp/locks").find("WRITE"), std::string::npos);
    fake("provision", "exit 0");
    forget_commands();
    for (const auto &line : lines) {
        wifictl_set_ip_config(line.c_str());
        EXPECT_EQ(wifi_set_provision_ip_config(), 0) << line;
    }
    EXPECT_EQ(commands(), lines);
}

TEST_F(IpConfig, RunsUnderALockThatIsAFile) {
    wifictl_set_ip_config("provision");
    ASSERT_EQ(symlink("/tmp/elsewhere", kLockFile), 0);
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
    unlink(kLockFile);
    ASSERT_EQ(mkfifo(kLockFile, 0666), 0);
    forget_log();
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_TRUE(logged_as("ERROR", "error opening /tmp/provision.lock"));
    const Fd other_end(open(kLockFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_TRUE(commands().empty());
}

TEST_F(IpConfig, RenewalSignalsTheClientAndNobodyElse) {
    EXPECT_EQ(wifi_renew_dhcp_lease(), -1);
    for (const char *content :
         {"", "none\n", "0\n", "1\n", "-1\n", "4294967298\n", "99999999999999999999"}) {
        write_file("/var/run/udhcpc.wlan0.pid", content);
        EXPECT_EQ(wifi_renew_dhcp_lease(), -1) << content;
    }
    EXPECT_EQ(times_logged("strtol() error"), 6) << log_text();
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
