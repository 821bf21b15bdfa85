// The command-line client against the real broker and the real daemon: this program run anew with
// --daemon, on a robot whose tools are fakes and whose pauses are cut to a fiftieth.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <optional>
#include <set>

#include "main.h"
#include "robot.h"
#include "wifi_state.h"

extern "C" unsigned sleep(unsigned seconds) {
    usleep(seconds * 20'000);
    return 0;
}

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

pid_t spawn(std::vector<const char *> arguments) {
    arguments.push_back(nullptr);
    pid_t child = -1;
    EXPECT_EQ(posix_spawn(&child, arguments[0], nullptr, nullptr,
                          const_cast<char *const *>(arguments.data()), environ),
              0);
    return child;
}

class Ctl : public Robot {
  protected:
    void TearDown() override {
        if (daemon_ > 0) {
            kill(daemon_, SIGKILL);
            waitpid(daemon_, nullptr, 0);
        }
    }

    void start_daemon() {
        broker_.emplace();
        fake("ifconfig", "echo wlan0 Link encap:Ethernet HWaddr 02:00:00:00:00:00");
        for (const char *tool :
             {"ifup", "ifdown", "wpa_cli", "network_device_interfaces_control.sh"})
            fake(tool, "exit 0");
        kvs_set("product.robotid", "0123");
        kvs_set("robot.name", "Rosie\033[2J");
        write_file("/run/ifstate", "");
        daemon_ = spawn({"/proc/self/exe", "--daemon"});
        ASSERT_TRUE(eventually([&] { return ctl("discover --address 127.0.0.1") == 0; },
                               std::chrono::seconds(20)))
            << log_text();
    }

    // Starts the client, with its output in /tmp/out and /tmp/err.
    static pid_t start(const std::string &arguments) {
        write_file("/tmp/out", "");
        const std::string line = "exec /mnt/netwardenctl " + arguments + " >/tmp/out 2>/tmp/err";
        return spawn({"/run/fakes/dash", "-c", line.c_str()});
    }
    // Its exit code, its output in `out` and `err`.
    int end_of(pid_t client) {
        int status = -1;
        waitpid(client, &status, 0);
        out = read_file("/tmp/out");
        err = read_file("/tmp/err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int ctl(const std::string &arguments) { return end_of(start(arguments)); }

    static bool prints(const std::string &text) {
        return eventually([&] { return read_file("/tmp/out").find(text) != std::string::npos; },
                          std::chrono::seconds(20));
    }

    static void publish(const std::string &topic, const std::string &text) {
        write_file("/tmp/message", text);
        EXPECT_EQ(system(("mosquitto_pub -q 1 -t " + topic + " -f /tmp/message").c_str()), 0);
    }

    std::string out;
    std::string err;
    std::optional<Broker> broker_;

  private:
    pid_t daemon_ = -1;
};

TEST_F(Ctl, SaysWhoDoesNotAnswer) {
    EXPECT_EQ(ctl("status"), 3);
    EXPECT_EQ(err, "netwardenctl: no broker at 127.0.0.1:1883\n");
    EXPECT_EQ(ctl("discover --address 127.0.0.1 --timeout 0.2"), 3);
    EXPECT_EQ(ctl("--broker nonsense status"), 2);
    broker_.emplace();
    for (const char *command : {"status --timeout 1", "provision --ssid x --open"}) {
        EXPECT_EQ(ctl(std::string(command) + " --broker unix:/tmp/broker.sock"), 3);
        EXPECT_THAT(err, HasSubstr("the broker at unix:/tmp/broker.sock is there but netwarden "
                                   "does not answer within "));
    }
    broker_->freeze();
    EXPECT_EQ(ctl("get channel --timeout 1"), 3);
    EXPECT_THAT(err, HasSubstr("no broker at"));
}

TEST_F(Ctl, AsksTheRobot) {
    start_daemon();
    EXPECT_EQ(ctl("status"), 0) << err;
    EXPECT_THAT(out,
                AllOf(HasSubstr("Rosie\\x1b[2J"), HasSubstr("Plover-0123"),
                      HasSubstr("channel       not known yet"), HasSubstr("provisioning  no\n")));
    EXPECT_EQ(ctl("get discovery --json"), 0);
    EXPECT_THAT(out, HasSubstr(R"("robotname":"Rosie\u001B[2J","robotid":"0123")"));
    EXPECT_EQ(ctl("discover --address 127.0.0.1"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("Rosie\\x1b[2J"), HasSubstr("Plover-0123")));
    EXPECT_EQ(ctl("log-level loud"), 2);
    EXPECT_EQ(ctl("log-level dbg"), 0);
    for (const char *what : {"start", "pause", "stop"})
        EXPECT_EQ(ctl(std::string("track ") + what), 0);
    EXPECT_TRUE(logged_as("DBG", "stopping wifi device tracking"));
}

TEST_F(Ctl, WatchPutsMessagesIntoWords) {
    broker_.emplace();
    for (const bool json : {false, true}) {
        const pid_t client = start(json ? "watch --json" : "watch");
        EXPECT_TRUE(eventually([] {  // nobody hears before the client is there
            publish("robot/debug", R"({"command":"provstart"})");
            return read_file("/tmp/out").find("provisioning started") != std::string::npos;
        }));
        for (int state = WIFI_UNKNOWN; state <= WIFI_STATION_STOPPED; state++)
            publish("network/events",
                    R"({"wifistat":{"wifi":)" + std::to_string(state) + R"(,"uap":false}})");
        publish("brisk/network/events",
                R"({"wlcfg":{"ssid":"41","pass":"73"},"robotpass":"hush"})");
        publish("network/events", R"({"wlcfg":{"sec":4,"ssid":"1b5b324ac29b"}})");
        publish("robot/debug", "\033[2J is no JSON");
        EXPECT_TRUE(prints("no JSON"));
        kill(client, SIGINT);
        EXPECT_EQ(end_of(client), 0);
        for (const char *never : {"\033", "\302\233", "\"73\"", "hush"})
            EXPECT_THAT(out, Not(HasSubstr(never)));
        for (const char *always :
             {json ? R"("robotpass":"*")" : R"("\x1b[2J\u{9b}")", "wrong pass"})
            EXPECT_THAT(out, HasSubstr(always));
        std::set<std::string> meanings;
        for (size_t at = 0; !json && (at = out.find("  wifi ", at + 1)) != out.npos;)
            meanings.insert(out.substr(at + 10, out.find('\n', at) - at - 10));
        EXPECT_EQ(meanings.size(), json ? 0 : 13) << out;
    }
    EXPECT_EQ(ctl("watch --count 1 --timeout 0.3"), 3);
}

TEST_F(Ctl, ProvisionsAndKeepsSecrets) {
    start_daemon();
    write_file("/tmp/secret", "a secret key\nmore\n");
    const std::string home =
        "provision --ssid Home --pass-file /tmp/secret --robot-pass-file /tmp/secret --tidelink ";
    EXPECT_EQ(ctl(home + "--static --addr 192.0.2.9 --mask 255.255.255.0 --gw 192.0.2.1"), 1);
    EXPECT_THAT(err, HasSubstr("IP configuration, soft AP or station interface failed"));
    EXPECT_THAT(commands(), testing::Contains(HasSubstr("--clipaddr 192.0.2.9")));
    EXPECT_EQ(kvs_get("robot.password"), "a secret key");

    fake("provision", "exit 0");
    const pid_t client = start(home + "--timeout 30");
    EXPECT_TRUE(prints("join \"Home\""));
    EXPECT_THAT(read_file("/proc/" + std::to_string(client) + "/cmdline"),
                AllOf(HasSubstr("Home"), Not(HasSubstr("secret key"))));
    EXPECT_TRUE(prints("connecting"));
    publish("local/cmd", R"({"command":"ipdone"})");  // no access point is here to join
    EXPECT_TRUE(logged("rx event PROVISIONING_COMPLETE"));
    publish("tarn/2/event/network/1", R"({"event":"resetCloudConnection"})");
    EXPECT_EQ(end_of(client), 0) << out << err;
    EXPECT_THAT(out + err, AllOf(HasSubstr("provisioned"), Not(HasSubstr("secret key")),
                                 Not(HasSubstr("6120736563726574"))));
    EXPECT_EQ(ctl("provision --abort"), 0) << out << err;
    EXPECT_EQ(ctl("provision --ssid x --pass hush"), 2);
    EXPECT_THAT(out + err, Not(HasSubstr("hush")));
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1 && std::string(argv[1]) == "--daemon")
        return netwarden_main(1, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
