#include "wifi_robot.h"

#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "log.h"

// The clock of the programs that use this fixture.
extern "C" unsigned sleep(unsigned seconds) {
    std::ofstream("/run/fakes/commands", std::ios::app) << "sleep " << seconds << '\036';
    return 0;
}

static size_t open_descriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(open), end(open)));
}

void WifiRobot::SetUp() {
    for (const char *tool : {"ifup", "ifdown", "wpa_cli", "hostapd_cli", "provision", "arping",
                             "network_device_interfaces_control.sh", "network_dhcp_arp_control.sh"})
        fake(tool, "exit 0");
    log_format(nullptr, LOG_LEVEL_DBG, "test", __LINE__, "opens the connection to the log");
    descriptors_ = open_descriptors();
}

void WifiRobot::TearDown() {
    EXPECT_LE(open_descriptors(), descriptors_) << "a descriptor leaked";
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

void WifiRobot::give_address() {
    kvs_set("network.interface", "wlan0");
    fake("arping",
         "[ -e /tmp/answers ] && echo 'Unicast reply from 192.0.2.1 [02:00:00:00:00:01]'");
    ASSERT_EQ(system("ip link add wlan0 type veth peer name gw0 && ip link set gw0 up && "
                     "ip link set wlan0 up && ip addr add 192.0.2.2/24 dev wlan0 && "
                     "ip route add default via 192.0.2.1"),
              0);
    forget_commands();
}
