// The command-line client against the real broker and the real daemon.
#include <signal.h>

#include "daemon.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class Ctl : public DaemonRobot {
  protected:
    pid_t start_client(const std::string &arguments) {
        write_file("/tmp/out", "");
        return start("/mnt/netwardenctl " + arguments + " >/tmp/out 2>&1");
    }
    // The client's exit code; its output is in `out`.
    int finish(pid_t client, int signal = 0) {
        const int code = end_of(client, signal);
        out = read_file("/tmp/out");
        return code;
    }
    int run(const std::string &arguments) { return finish(start_client(arguments)); }
    void expect(const std::string &arguments, int code, const std::vector<const char *> &texts) {
        EXPECT_EQ(run(arguments), code) << arguments << "\n" << out;
        for (const char *text : texts)
            EXPECT_THAT(out, HasSubstr(text)) << arguments << "\n" << log_text();
    }
    static bool prints(const std::string &text, int seconds = 20) {
        return eventually([&] { return read_file("/tmp/out").find(text) != std::string::npos; },
                          std::chrono::seconds(seconds));
    }
    static void publish(const std::string &topic, const std::string &text) {
        write_file("/tmp/message", text);
        EXPECT_EQ(system(("mosquitto_pub -q 1 -t " + topic + " -f /tmp/message").c_str()), 0);
    }

    std::string out;
};

TEST_F(Ctl, SaysWhoDoesNotAnswer) {
    expect("--timeout 0.1 status", 3,
           {"netwardenctl: no broker at 127.0.0.1:1883, or it refuses us\n"});
    expect("discover --address 127.0.0.1 --timeout 0.1", 3, {"no robot answers"});
    expect("--broker nonsense status", 2, {"\"nonsense\""});
    expect("log-level loud", 2, {"{verbose,dbg,info,warn,err}"});
    expect("provision --ssid x --pass hush", 2, {"--pass-file"});
    EXPECT_THAT(out, Not(HasSubstr("hush")));
    Broker broker;
    expect("status --timeout 0.5 --broker unix:/tmp/broker.sock", 3,
           {"the broker at unix:/tmp/broker.sock is there but netwarden does not answer within"});
    broker.freeze();
    expect("get channel --timeout 0.1", 3, {"no broker at"});
}

TEST_F(Ctl, WatchPutsMessagesIntoWords) {
    const Broker broker;
    for (const std::string option : {"", " --json"}) {
        const pid_t client = start_client("watch" + option);
        while (!prints("provisioning started", 0))  // nobody hears before the client is there
            publish("robot/debug", R"({"command":"provstart"})");
        publish("network/events", R"({"wifistat":{"wifi":3}})");
        publish("brisk/network/events",
                R"({"wlcfg":{"ssid":"41","pass":"73"},"robotpass":"hush"})");
        publish("network/events", R"({"wlcfg":{"sec":4,"ssid":"1b5b324ac29b"}})");
        publish("robot/debug", "\033[2J is no JSON");
        EXPECT_TRUE(prints("no JSON"));
        EXPECT_EQ(finish(client, SIGINT), 0);
        for (const char *never : {"\033", "\302\233", "\"73\"", "hush"})
            EXPECT_THAT(out, Not(HasSubstr(never)));
        EXPECT_THAT(out, HasSubstr("wrong pass"));
        EXPECT_THAT(out, HasSubstr(option.empty() ? R"("\x1b[2J\u{9b}")" : R"("robotpass":"*")"));
    }
    expect("watch --count 1 --timeout 0.3", 3, {"only 0 of 1"});
}

TEST_F(Ctl, AsksAndProvisionsTheRobot) {
    const Broker broker;
    kvs_set("product.robotid", "0123");
    kvs_set("robot.name", R"(Rosie\u001B[2J)");
    give_address();
    start_daemon();
    EXPECT_TRUE(eventually([&] { return run("discover --interface wlan0 --timeout 0.3") == 0; },
                           std::chrono::seconds(20)));
    EXPECT_THAT(out, HasSubstr("Rosie\\x1b[2J  192.0.2.2"));
    expect("status", 0,
           {"Rosie\\x1b[2J\n", "Plover-0123", "192.0.2.2", "channel       not known yet",
            "provisioning  no\n"});
    expect("get discovery --json", 0, {R"("robotname":"Rosie\u001B[2J","robotid":"0123")"});
    expect("log-level dbg", 0, {});
    for (const char *what : {"start", "pause", "stop"})
        expect(std::string("track ") + what, 0, {what});
    EXPECT_TRUE(logged_as("DBG", "stopping wifi device tracking"));

    std::string home = R"({"mac_address":"0","name":"Ann\u0007","hostname":"ann"})";
    for (int i = 1; i < 4096; i++)
        home += R"(,{"mac_address":")" + std::to_string(i) + R"(","name":")" +
                std::string(200, 'n') + R"("})";
    pid_t client = start_client("devices");
    while (!prints("\n4095  n", 0))
        publish("robot/debug", R"({"wifiDevices":[)" + home + "]}");
    EXPECT_EQ(finish(client), 0);
    EXPECT_THAT(out, HasSubstr("\n0     Ann\\x07 "));

    write_file("/tmp/secret", "a secret key\nmore\n");
    const std::string provision =
        "provision --ssid Home --pass-file /tmp/secret --robot-pass-file /tmp/secret --tidelink ";
    expect(provision + "--static --addr 192.0.2.9 --mask 255.255.255.0 --gw 192.0.2.1", 1,
           {"provstart", "wifi 10", "The robot still waits for settings"});
    EXPECT_THAT(commands(), testing::Contains(HasSubstr("--clipaddr 192.0.2.9")));
    EXPECT_EQ(kvs_get("robot.password"), "a secret key");

    fake("provision", "exit 0");
    client = start_client(provision + "--phone");
    EXPECT_TRUE(prints("wait "));
    publish("robot/debug", R"({"command":"softapconnect"})");
    EXPECT_TRUE(prints("join \"Home\""));
    const std::string process = read_file("/proc/" + std::to_string(client) + "/cmdline");
    EXPECT_THAT(process, HasSubstr("Home"));
    EXPECT_TRUE(prints("connecting"));
    publish("local/cmd", R"({"command":"ipdone"})");  // no access point is here to join
    EXPECT_TRUE(logged("rx event PROVISIONING_COMPLETE"));
    publish("tarn/2/event/network/1", R"({"event":"resetCloudConnection"})");
    EXPECT_EQ(finish(client), 0) << out;
    for (const char *never : {"a secret key", "612073656372657"})
        EXPECT_THAT(process + out, Not(HasSubstr(never)));
    // The daemon, which does not sleep here, may still be in the second in which a button is
    // ignored.
    EXPECT_TRUE(eventually([&] { return run("provision --abort --timeout 1") == 0; },
                           std::chrono::seconds(20)));
    EXPECT_THAT(out, HasSubstr("provabort"));
    // Step by step, as a program does that asks the owner in between.
    expect("provision --step start", 0, {"provstart"});
    EXPECT_THAT(out, Not(HasSubstr("wlcfg")));
    expect("provision --step settings --ssid 4g --hex --open", 2, {"no hexadecimal"});
    client = start_client("provision --step settings --ssid 486f6d65 --hex --open");
    EXPECT_TRUE(prints("connecting"));
    publish("local/cmd", R"({"command":"ipdone"})");
    EXPECT_EQ(finish(client), 0) << out;
    EXPECT_THAT(out, AllOf(HasSubstr("join \"Home\""), Not(HasSubstr("the app is done"))));
}

}  // namespace

int main(int argc, char **argv) {
    return run_tests_or_daemon(argc, argv);
}
