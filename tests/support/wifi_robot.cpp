#include "wifi_robot.h"

#include <sys/wait.h>

#include <filesystem>

#include "clock.h"
#include "log.h"

static long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

void WifiRobot::SetUp() {
    make_pauses_call([](unsigned seconds) { add_to_commands("sleep " + std::to_string(seconds)); });
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
