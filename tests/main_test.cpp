// The program as a whole: its command line, and a boot on a robot whose tools are fakes. The daemon
// of the boot is this program run anew with --daemon, its pauses cut to a fiftieth.
#include "main.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

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
    const std::vector<std::vector<const char *>> cases = {
        {"foo"},
        {"--if_sta"},
        {"--wipe", ""},
        {"--bogus", "-x"},
        {"--if_sta", "wlan7", "--if_uap", "ap0", "x"}};
    for (const auto &arguments : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(run(arguments), 143);
        const std::string usage = testing::internal::GetCapturedStderr();
        EXPECT_THAT(usage, HasSubstr("usage: netwarden args\n -h               - prints"));
    }
    EXPECT_STREQ(wifi_get_sta_interface(), "wlan7");  // taken before the error is seen
    EXPECT_STREQ(wifi_get_uap_interface(), "ap0");
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

    // Sends the message until it is taken, which the log tells: the state it needs may be to come.
    bool taken(const std::string &topic, const std::string &payload, const std::string &effect) {
        const int before = times_logged(effect);
        return eventually(
            [&] {
                write_file("/tmp/payload", payload);
                EXPECT_EQ(system(("mosquitto_pub -q 1 -s -t " + topic + " </tmp/payload").c_str()),
                          0);
                return effect.empty() || eventually([&] { return times_logged(effect) > before; },
                                                    std::chrono::milliseconds(500));
            },
            std::chrono::seconds(10));
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

struct Example {
    std::string topic, payload, effect;
    bool goes_in;
};

// "```json in TOPIC -> EFFECT" or "```json out TOPIC", and the message in the next line.
std::vector<Example> examples_of(const std::string &document) {
    constexpr std::string_view kArrow = " -> ";
    std::vector<Example> examples;
    std::istringstream lines(document);
    for (std::string line; std::getline(lines, line);) {
        const bool goes_in = line.starts_with("```json in ");
        if (!goes_in && !line.starts_with("```json out "))
            continue;
        line.erase(0, line.find(' ', strlen("```json ")) + 1);
        const size_t arrow = line.find(kArrow);
        Example each{line.substr(0, arrow), "", "", goes_in};
        if (arrow != line.npos)
            each.effect = line.substr(arrow + kArrow.size());
        std::getline(lines, each.payload);
        examples.push_back(each);
    }
    return examples;
}

// In their order: what goes in has the effect that is told there, and what is asked gets the answer
// that is told there.
TEST_F(Boot, TakesTheDocumentedMessages) {
    boot();
    ASSERT_TRUE(published("network/events {\"wifistat\""));
    ASSERT_TRUE(taken("tarn/network/req/30/0", R"({"set_log_level": "dbg"})", ""));
    int sent = 0;
    for (const Example &each : examples_of(read_file("/mnt/messages.md"))) {
        SCOPED_TRACE(each.topic + " " + each.payload);
        if (each.goes_in) {
            EXPECT_TRUE(taken(each.topic, each.payload, each.effect));
            sent++;
        } else if (each.topic.starts_with("tarn/30/")) {
            EXPECT_TRUE(published(each.topic + " " + each.payload));
        }
    }
    EXPECT_GE(sent, 25);
    EXPECT_TRUE(published("tarn/30/resp/network/3 "));
    const std::string traffic = read_file("/tmp/broker");
    const std::string description = traffic.substr(traffic.find("tarn/30/resp/network/3 "));
    EXPECT_THAT(
        description.substr(0, description.find('\n')),
        testing::AllOf(HasSubstr("\"nc\":5,"), HasSubstr(R"("cap":{"ota":2,"maps":3,"pose":1})")));
}

}  // namespace

int main(int argc, char **argv) {
    make_pauses_last(20'000);
    if (argc > 1 && std::string(argv[1]) == "--daemon")
        return netwarden_main(argc - 1, argv + 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
