// The program as a whole: its command line, and a boot on a robot whose tools are fakes.
#include "main.h"

#include <signal.h>

#include <algorithm>
#include <sstream>

#include "daemon.h"
#include "wifi_settings.h"

namespace {

using testing::ElementsAre;

int run(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), "netwarden");
    const int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    return netwarden_main(count, const_cast<char **>(arguments.data()));
}

using CommandLine = Robot;

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
    testing::internal::CaptureStdout();
    EXPECT_EQ(run({"--wipe", "-v", "foo"}), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("Connectivity Module version: [^\n]*/\n Jenkins Job Number: "
                                      "[0-9]+\n Branch: .*\n Build Machine: .*\n\n"));
    EXPECT_EQ(kvs_get("network.ssid"), "41");
}

class Boot : public DaemonRobot {
  protected:
    void SetUp() override {
        DaemonRobot::SetUp();
        fake("provision", "echo CL REG DOMAIN '#'");
        start("mosquitto_sub -v -t '#' >/tmp/broker");
        ASSERT_TRUE(eventually(
            [&] { return system("mosquitto_pub -t ready -m 1; grep -q ready /tmp/broker") == 0; }));
        forget_commands();
    }
    // The beginnings of what the daemon has published to its start's end, but for what its
    // discovery asks.
    static std::vector<std::string> published(const std::string &last) {
        EXPECT_TRUE(eventually([&] { return read_file("/tmp/broker").find(last) != last.npos; },
                               std::chrono::seconds(20)));
        std::istringstream all(read_file("/tmp/broker"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(all, line);)
            if (line != "ready 1" && line.find("corehub") == line.npos)
                lines.push_back(
                    line.substr(0, std::min(line.find_first_of("0123456789"), line.find(":{"))));
        return lines;
    }
    // Without those of the threads of discovery and of the home's devices, which run when they may.
    static std::vector<std::string> commands_of_the_boot() {
        constexpr char kArpMode[] = "sudo network_dhcp_arp_control.sh disable";
        EXPECT_TRUE(eventually([&] { return std::ranges::count(commands(), kArpMode) == 1; }));
        auto run = commands();
        std::erase_if(run, [&](const auto &line) {
            return line.starts_with("sudo version") || line == kArpMode;
        });
        return run;
    }
    Broker broker_;
};

TEST_F(Boot, WipedRobotComesUpWithoutANetwork) {
    for (const char *key : {"network.ssid", "network.interface2", "networking"})
        kvs_set(key, "41");
    write_file("/tmp/tidelink_connected", "");
    start_daemon("--wipe");
    EXPECT_THAT(published("brisk/robot/events"),
                ElementsAre(R"(brisk/network/events {"event":"tidelinkConnected"})",
                            R"(brisk/updater/events {"event":"tidelinkConnected"})", "tarn/",
                            R"(network/events {"netinfo")", R"(network/events {"wifistat")",
                            R"(brisk/robot/events {"wifistat")"));
    EXPECT_TRUE(logged("Wiped network keys"));
    EXPECT_EQ(kvs_get("network.ssid"), "<none>");
    for (const char *key : {"network.interface2", "networking"})
        EXPECT_EQ(kvs_get(key), "41");
    EXPECT_EQ(kvs_get("network.interface"), "wlan0");
    EXPECT_THAT(commands_of_the_boot(),
                ElementsAre("sudo provision --clregdomain \"#\" \n",
                            "sudo provision | grep CL\\ REG\\ DOMAIN",
                            "ifconfig wlan0 | grep HWaddr", "sudo ifdown wlan1",
                            "sudo network_device_interfaces_control.sh --interface=softap "
                            "--action=del",
                            "sudo ifdown wlan0", "sudo wpa_cli -iwlan0 reconfigure\n",
                            "sudo /usr/bin/webserver_control.sh stop",
                            "sudo /usr/bin/webserver_control.sh start"));
    give_address();
    EXPECT_GE(published(R"("addr":"192.0.2.2")").size(), 7U) << "told when it changes";
}

TEST_F(Boot, WaitsForItsInterfaceHoweverLong) {
    fake("ifconfig", "[ -e /tmp/plugged ] && echo HWaddr");
    for (const auto &[key, value] : {std::pair("ssid", "41"), {"addr_type", "1"}, {"password", ""}})
        kvs_set(std::string("network.") + key, value);
    start_daemon("--if_sta sta0");
    EXPECT_TRUE(eventually([&] { return times_logged("ifconfig cmd returned no output") >= 3; }));
    EXPECT_EQ(times_logged("SoftAP is down"), 0);
    write_file("/tmp/plugged", "");
    EXPECT_THAT(published("wlcfg"), testing::Contains(R"(network/events {"wlcfg")"));
    EXPECT_THAT(commands(), testing::Contains("sudo ifup sta0"));
    EXPECT_EQ(kvs_get("network.interface"), "sta0");
}

TEST_F(Boot, FatalErrorLeavesTheProcessAsleep) {
    setenv("MQTT_APP_BROKER", "nonsense", 1);
    const pid_t daemon = start_daemon();
    EXPECT_TRUE(logged("mqtt_client_init_failed"));
    EXPECT_THAT(commands(), ElementsAre());
    EXPECT_EQ(end_of(daemon, SIGTERM), -1) << "it has ended by itself";
}

}  // namespace

int main(int argc, char **argv) {
    return run_tests_or_daemon(argc, argv);
}
