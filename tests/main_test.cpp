// The program as a whole: its command line, and a boot on a robot whose tools are fakes. The daemon
// of the boot is this program run anew with --daemon, its pauses cut to a fiftieth.
#include "main.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>

#include "clock.h"
#include "robot.h"
#include "wifi_settings.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

int run(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), "netwarden");
    const int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    return netwarden_main(count, const_cast<char **>(arguments.data()));
}

class CommandLine : public Robot {};

TEST_F(CommandLine, UsageErrorsEndWith143) {
    const std::pair<std::vector<const char *>, int> cases[]{
        {{"foo"}, 143},           {{"--if_sta"}, 143},
        {{"--if_uap"}, 143},      {{"--wipe", ""}, 143},
        {{"--bogus", "-x"}, 143}, {{"--if_sta", "wlan7", "--if_uap", "ap0", "x"}, 143},
        {{"-h", "foo"}, 0}};
    kvs_set("network.ssid", "41");
    for (const auto &[arguments, code] : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(run(arguments), code);
        EXPECT_EQ(
            testing::internal::GetCapturedStderr(),
            "usage: netwarden args\n"
            " -h               - prints the usage/help\n"
            " --if_sta <name>  - selects the interface which is to be used as a station by name\n"
            " --if_uap <name>  - selects the interface which is to be used as a  access point "
            "by name\n"
            " -v               - prints the application version and exits\n"
            " --wipe - resets the wireless network configuration to factory default\n");
    }
    EXPECT_STREQ(wifi_get_sta_interface(), "wlan7");  // taken before the error is seen
    EXPECT_STREQ(wifi_get_uap_interface(), "ap0");
    EXPECT_EQ(kvs_get("network.ssid"), "41");
}

TEST_F(CommandLine, VersionEndsTheRunWithoutWiping) {
    kvs_set("network.ssid", "41");
    testing::internal::CaptureStdout();
    EXPECT_EQ(run({"--wipe", "-v", "foo"}), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("Connectivity Module version: [^\n]*/\n Jenkins Job Number: "
                                      "[0-9]+\n Branch: .*\n Build Machine: .*\n\n"));
    EXPECT_EQ(kvs_get("network.ssid"), "41");
}

class Boot : public Robot {
  protected:
    void SetUp() override {
        fake("ifconfig", "echo wlan0 Link encap:Ethernet HWaddr 02:00:00:00:00:00");
        for (const char *tool :
             {"ifup", "ifdown", "wpa_cli", "network_device_interfaces_control.sh"})
            fake(tool, "exit 0");
        fake("provision", "echo CL REG DOMAIN '#'");
        write_file("/run/ifstate", "");
        subscriber_ = spawn({"/usr/bin/dash", "-c", "exec mosquitto_sub -v -t '#' >/tmp/broker"});
        ASSERT_TRUE(eventually(
            [&] { return system("mosquitto_pub -t ready -m 1; grep -q ready /tmp/broker") == 0; }));
        forget_commands();
    }

    void TearDown() override {
        for (const pid_t child : {daemon_, subscriber_})
            if (child > 0) {
                kill(child, SIGKILL);
                waitpid(child, nullptr, 0);
            }
    }

    void boot(const std::vector<const char *> &arguments = {}) {
        std::vector<const char *> all{"/proc/self/exe", "--daemon"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        daemon_ = spawn(all);
    }

    static bool published(const std::string &line) {
        return eventually(
            [&] { return ("\n" + read_file("/tmp/broker")).find("\n" + line) != line.npos; },
            std::chrono::seconds(20));
    }

  private:
    static pid_t spawn(std::vector<const char *> arguments) {
        arguments.push_back(nullptr);
        pid_t child = -1;
        EXPECT_EQ(posix_spawn(&child, arguments[0], nullptr, nullptr,
                              const_cast<char *const *>(arguments.data()), environ),
                  0);
        return child;
    }

    Broker broker_;
    pid_t subscriber_ = -1;
    pid_t daemon_ = -1;
};

TEST_F(Boot, WipedRobotComesUpWithoutANetwork) {
    for (const char *key : {"network.ssid", "network.interface2"})
        kvs_set(key, "41");
    write_file("/tmp/tidelink_connected", "");
    boot({"--wipe"});
    EXPECT_TRUE(published("brisk/network/events {\"event\":\"tidelinkConnected\"}\n"));
    EXPECT_TRUE(published("tarn/10/req/network/"));
    EXPECT_TRUE(logged("Wiped network keys"));
    EXPECT_EQ(kvs_get("network.ssid"), "<none>");
    EXPECT_EQ(kvs_get("network.interface2"), "41");
    EXPECT_EQ(kvs_get("network.interface"), "wlan0");
    // The discovery thread asks for the version whenever it comes to run, as does the pinger of
    // home devices for its ARP mode.
    constexpr char kArpMode[] = "sudo network_dhcp_arp_control.sh disable";
    EXPECT_TRUE(eventually([&] { return std::ranges::count(commands(), kArpMode) == 1; }));
    auto run = commands();
    std::erase_if(run, [&](const auto &line) {
        return line.starts_with("sudo version") || line == kArpMode;
    });
    EXPECT_THAT(run, ElementsAre("sudo provision --clregdomain \"#\" \n",
                                 "sudo provision | grep CL\\ REG\\ DOMAIN",
                                 "ifconfig wlan0 | grep HWaddr", "sudo ifdown wlan1",
                                 "sudo network_device_interfaces_control.sh --interface=softap "
                                 "--action=del",
                                 "sudo ifdown wlan0", "sudo wpa_cli -iwlan0 reconfigure\n",
                                 "sudo /usr/bin/webserver_control.sh stop",
                                 "sudo /usr/bin/webserver_control.sh start"));
}

TEST_F(Boot, WaitsForItsInterfaceHoweverLong) {
    fake("ifconfig", "[ -e /tmp/plugged ] && echo HWaddr");
    boot({"--if_sta", "sta0"});
    EXPECT_TRUE(eventually([&] { return times_logged("ifconfig cmd returned no output") >= 3; }));
    EXPECT_EQ(times_logged("SoftAP is down"), 0);
    write_file("/tmp/plugged", "");
    EXPECT_TRUE(logged("SoftAP is down"));
    EXPECT_EQ(kvs_get("network.interface"), "sta0");
}

}  // namespace

int main(int argc, char **argv) {
    make_pauses_last(20'000);
    if (argc > 1 && std::string(argv[1]) == "--daemon")
        return netwarden_main(argc - 1, argv + 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
