// Interfaces, soft AP and DHCP: what the robot's scripts are told, and what happens when they fail.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include "wifi_command.h"
#include "wifi_control.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

using WifiInterfaces = WifiRobot;
using SoftAp = WifiRobot;
using IpConfig = WifiRobot;

constexpr char kDhcp[] = "sudo provision --clmode dhcp \n";
constexpr char kLockFile[] = "/tmp/provision.lock";

std::string iface_control(const std::string &kind, const std::string &action) {
    return "sudo network_device_interfaces_control.sh --interface=" + kind + " --action=" + action;
}

TEST_F(WifiInterfaces, OnlyANonZeroExitOfACommandIsAFailure) {
    EXPECT_EQ(wifi_system_command("exit 3"), -1);
    EXPECT_EQ(wifi_system_command("kill -9 $$"), SIGKILL);
    signal(SIGCHLD, SIG_IGN);  // the child is reaped by the kernel
    EXPECT_EQ(wifi_system_command("exit 1"), 0);
}

TEST_F(SoftAp, StartTellsTheScriptsInOrder) {
    kvs_set("product.robotid", "12345678");
    EXPECT_EQ(wifi_configure_and_start_uap(6, "g"), 0);
    EXPECT_EQ(commands(),
              (Lines{iface_control("monitor", "del"), "sleep 1", iface_control("softap", "add"),
                     "sleep 1", "sudo provision --apssid Plover-1234 --apchan 6 --aphwmode g \n",
                     "sudo ifdown wlan1", "sudo ifup wlan1"}));
    EXPECT_EQ(wifi_state_get_uap(), 1);
}

TEST_F(SoftAp, TellsTheScriptTheIdAndTheModeAsTheyAre) {
    kvs_set("product.robotid", "a.~b5678");
    for (const std::string mode : {"", "n-ht40", "g --apchan 1"}) {
        forget_commands();
        EXPECT_EQ(wifi_configure_and_start_uap(6, mode.c_str()), 0);
        EXPECT_THAT(commands(),
                    testing::Contains("sudo provision --apssid Plover-a.~b --apchan 6 --aphwmode " +
                                      mode + " \n"));
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
    const std::string removal = iface_control("softap", "del");
    EXPECT_EQ(commands(), (Lines{"sudo ifdown wlan1", removal, "sleep 1",  //
                                 "sudo ifdown wlan1", removal, "sleep 1"}));
}

TEST_F(SoftAp, FindsTheStationAmongOtherLines) {
    fake("hostapd_cli",
         "echo \"Selected interface 'p2p0'\"; echo; head -c 300 /dev/zero | tr '\\0' x; echo;"
         "echo aa:bb:cc:dd:ee; echo aa:bb:cc:dd:ee:; echo aa :bb:cc:dd:ee:1;"
         "echo aa:bb:cc:dd:ee:0f; echo 1:2:3:4:5:6");
    uint32_t address[7] = {0, 0, 0, 0, 0, 0, 7};
    EXPECT_EQ(wifi_get_associated_station_status(address, sizeof address), 1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0x0f, 7));
    fake("hostapd_cli", "exit 1");
    EXPECT_EQ(wifi_disassociate_uap_station(address), -1);
    EXPECT_EQ(commands(), (Lines{"sudo hostapd_cli -ip2p0 all_sta\n",
                                 "sudo hostapd_cli -iwlan1 disassociate aa:bb:cc:dd:ee:0f\n"}));
}

TEST_F(SoftAp, TakesEveryHexadecimalNumberForAnOctet) {
    fake("hostapd_cli", "echo '  0xAA:+b: c:-1:fffffffff:0f[signal=-40]'");
    uint32_t address[6];
    EXPECT_EQ(wifi_get_associated_station_status(address, sizeof address), 1);
    EXPECT_THAT(address, testing::ElementsAre(0xaa, 0xb, 0xc, 0xffffffff, 0xffffffff, 0xf));
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
}

TEST_F(IpConfig, TheLineIsRunAsItStands) {
    const std::string fixed = "sudo provision --clmode static --clipaddr 192.168.1.7 ";
    const Lines lines{kDhcp, fixed + "--cldnsns1 192.168.1.1  --cldnsns2 \"#\" \n",
                      "provision --clmode dhcp --clmtu 1400; true", fixed + std::string(400, '1')};
    for (const auto &line : lines) {
        wifictl_set_ip_config(line.c_str());
        EXPECT_EQ(wifi_set_provision_ip_config(), 0) << line;
    }
    EXPECT_EQ(commands(), lines);
}

TEST_F(IpConfig, SavedLineIsRunUnderALockThatIsAFile) {
    kvs_set("network.ip_config", kDhcp);
    fake("provision", "cat /proc/locks >/tmp/locks; exit 1");
    EXPECT_EQ(wifi_set_provision_ip_config(), -1);
    EXPECT_EQ(commands(), Lines{"sudo provision --clmode dhcp "});  // the store cuts line ends
    EXPECT_NE(read_file("/tmp/locks").find("WRITE"), std::string::npos);
    unlink(kLockFile);
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
    EXPECT_EQ(commands().size(), 1U);
}

TEST_F(IpConfig, RenewalSignalsTheClientAndNobodyElse) {
    for (const char *content :
         {"", "none\n", "0\n", "1\n", "-1\n", "4294967298\n", "99999999999999999999"}) {
        write_file("/var/run/udhcpc.wlan0.pid", content);
        EXPECT_EQ(wifi_renew_dhcp_lease(), -1) << content;
    }
    EXPECT_TRUE(eventually([&] { return times_logged("strtol() error") == 6; })) << log_text();
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
