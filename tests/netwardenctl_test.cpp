// The command-line client against the real broker and the real daemon.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/stat.h>

#include <sstream>

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
    expect("--timeout 0.5 status", 3,
           {"netwardenctl: no broker at 127.0.0.1:1883: Connection refused\n"});
    expect("discover --address 127.0.0.1 --timeout 0.1", 3, {"no robot answers"});
    expect("--broker nonsense status", 2, {"\"nonsense\""});
    expect("log-level loud", 2, {"{verbose,dbg,info,warn,err}"});
    expect("provision --ssid x --pass hush", 2, {"--pass-file"});
    EXPECT_THAT(out, Not(HasSubstr("hush")));
    Broker broker;
    expect("status --timeout 0.5 --broker unix:/tmp/broker.sock", 3,
           {"the broker at unix:/tmp/broker.sock is there but netwarden does not answer within"});
    broker.freeze();
    expect("get channel --timeout 0.1", 3, {"no broker at 127.0.0.1:1883: no answer in 0.1 s"});
}

TEST_F(Ctl, NamesWhatIsWrongWithACommandLine) {
    const struct {
        const char *arguments;
        int code;
        std::vector<const char *> texts;
    } kCases[]{
        {"", 2, {"no command. netwardenctl help"}},
        {"stauts", 2, {"no such command: stauts. Did you mean status?\n"}},
        {"track-devices", 2, {"no such command: track-devices. netwardenctl help lists them"}},
        {"help wiat", 2, {"Did you mean wait?"}},
        {"help wait", 0, {"Usage: netwardenctl wait ", "Wait until the robot is", "--state"}},
        {"help", 0, {"Usage: netwardenctl [", "--broker", "  discover  ", "Exit codes: 0 done"}},
        {"version --json", 0, {R"({"version":")"}},
        {"--json stauts",
         2,
         {R"({"error":"no such command: stauts. Did you mean status?","code":2})"}},
        {"watch --count -1", 2, {"--count: not a number from 1 to 1000000000\n"}},
        {"--timeout nan status", 2, {"--timeout: not a number from 0.1 to 1000000\n"}},
        {"--timeout 1x status", 2, {"--timeout: not a number"}},
        {"wait --state happy", 2, {"connected", "network-down"}},
        {"status --broker 127.0.0.1:99999", 2, {"host:port"}},
        {"status --cert x", 2, {"--cafile"}},
        {"status --cafile /none", 2, {"/none: No such file"}},
        {"status --broker-pass-file /etc/hostname", 2, {"needs a --user"}},
        {"link --broker 192.0.2.1:1883", 2, {"on the robot itself"}},
        {"forget --broker 192.0.2.1:1883", 2, {"on the robot itself"}},
        {"link", 1, {"no interface wlan0"}},
    };
    for (const auto &[arguments, code, texts] : kCases)
        expect(arguments, code, texts);
    write_file("/tmp/seven", "7 bytes\n");
    expect("provision --ssid Home --pass-file /tmp/seven", 2, {"7 bytes: WPA takes", "Nothing"});
    write_file("/tmp/key", std::string(64, 'g'));
    expect("provision --ssid Home --pass-file /tmp/key", 2, {"64 bytes"});
}

// Who reads along, and who cannot write.
TEST_F(Ctl, EndsWithItsOutput) {
    const Broker broker;
    const auto ended = [&](const std::string &arguments, const std::string &to) {
        return end_of(start("/run/fakes/dash -c '{ /mnt/netwardenctl " + arguments +
                            " 2>/tmp/out; echo $? >/tmp/code; } " + to + "'"));
    };
    for (const char *arguments : {"version", "--help", "watch --count 3", "help wait"}) {
        ended(arguments, ">/dev/full");
        EXPECT_EQ(read_file("/tmp/code"), "4\n") << arguments;
        EXPECT_THAT(read_file("/tmp/out"), HasSubstr("cannot write the output: No space left"));
    }
    // Nothing more is said on the broker: only the closed pipe can end it.
    ended("watch", "| head -n 1 >/dev/null");
    EXPECT_EQ(read_file("/tmp/code"), "141\n");
    EXPECT_EQ(read_file("/tmp/out"), "");
}

TEST_F(Ctl, SaysWhenTheBrokerIsLostAndBack) {
    Broker broker;
    for (const std::string option : {"", " --json"}) {
        const pid_t client = start_client("watch" + option);
        EXPECT_TRUE(prints("listening"));
        EXPECT_TRUE(prints("netwarden does not answer"));
        broker.stop();
        EXPECT_TRUE(prints(option.empty() ? "netwardenctl: the connection to the broker at 127.0.0"
                                          : R"({"notice":"the connection to the broker at 127.)"));
        broker.start();
        EXPECT_TRUE(prints("the broker is back"));
        EXPECT_EQ(finish(client, SIGINT), 0);
    }
}

TEST_F(Ctl, TellsAndAwaitsTheState) {
    kvs_set("product.robotid", "0123");
    kvs_set("network.last_prov_status", "3");
    give_address();
    fake("iw", R"(printf 'Connected to 02:00:00:00:02:00 (on %s)\n' "$2"
printf '\tSSID: Ho\\xc3me\n\tfreq: 2437.0\n\tsignal: -52 dBm\n')");
    const pid_t early = start_client("wait --state network-down --timeout 100");
    const Broker broker;
    start_daemon();
    // At its start the daemon tells a state of its own.
    EXPECT_TRUE(eventually(
        [&] {
            return system("/mnt/netwardenctl status >/tmp/status 2>&1") == 0 &&
                   read_file("/tmp/status").find("(measured)") != std::string::npos;
        },
        std::chrono::seconds(20)));
    for (const char *line : {"state         has an address, but the gateway does not answer (mea",
                             "\naddress       192.0.2.2/24\n", "192.0.2.1, silent\n",
                             "-52 dBm, channel 6, access point 02:00:00:00:02:00\n",
                             "\nlast verdict  wrong password\n", "\nrobot id      0123\n"})
        EXPECT_THAT(read_file("/tmp/status"), HasSubstr(line));
    fake("systemctl", R"(echo "$@" >>/tmp/asked
[ "$1" != show ] || printf 'ActiveState=active\nStatusText=Wi-Fi NETWORK_DOWN, a script hangs\n')");
    EXPECT_EQ(finish(early), 0) << out;
    EXPECT_THAT(out, HasSubstr("network lost, a script hangs (told to the service manager)"));
    expect("wait --timeout 1", 1, {"not connected in time; the state is: network lost"});
    fake("systemctl", "exit 1");
    ASSERT_EQ(system("ip neigh replace 192.0.2.1 lladdr 02:00:00:00:00:01 dev wlan0"), 0);
    expect("wait", 0, {"connected (measured)"});
    expect("watch --count 1 --timeout 1", 3, {"listening", "state      connected (measured)"});
    expect("status --json", 0,
           {R"("state":{"wifi":1,)", R"("gateway_answers":true)", R"("signal":-52)", R"("lps":3)"});
    expect("link", 0, {"Ho\\xc3me", "\nsignal        -52 dBm\nchannel       6\n"});
    const pid_t late = start_client("wait --state wrong-password");
    EXPECT_TRUE(eventually(
        [&] {
            publish("network/events", R"({"wifistat":{"wifi":3,"uap":false}})");
            return prints("wrong password", 0);
        },
        std::chrono::seconds(20)));
    EXPECT_EQ(finish(late), 0);
    for (const std::string option : {"", " --json"}) {
        const pid_t listing = start_client("devices" + option);
        const auto both = R"({"mac_address":"1","name":"居間","hostname":"tv"},)"
                          R"({"mac_address":"2","name":"Tür","hostname":"bell"})";
        EXPECT_TRUE(eventually(
            [&] {
                publish("robot/debug", std::string(R"({"wifiDevices":[)") + both + "]}");
                return prints("bell", 0);
            },
            std::chrono::seconds(20)));
        EXPECT_EQ(finish(listing), 0);
        EXPECT_THAT(out, option.empty() ? HasSubstr("1    居間  tv         -     -\n"
                                                    "2    Tür   bell")
                                        : HasSubstr("\"tv\"}\n{"));
    }
    fake("iw", "printf 'Not connected.\n'");
    expect("link", 1, {"wlan0 has joined no network"});
}

TEST_F(Ctl, RestartsAndForgetsTheNetwork) {
    const Broker broker;
    give_address();
    kvs_set("network.ssid", "486f6d65");
    kvs_set("network.password", "hush");
    kvs_set("robot.name", "Rosie");
    fake("iw", "exit 1");
    fake("systemctl", R"(echo "$@" >>/tmp/asked)");
    expect("restart --timeout 1", 3, {"does not acknowledge"});
    start_daemon();
    EXPECT_TRUE(eventually([&] { return run("restart") == 0; }, std::chrono::seconds(20)));
    EXPECT_TRUE(logged("Network manager received restart network request"));
    const pid_t client = start_client("restart --wait");
    EXPECT_TRUE(prints("the robot has taken it"));
    for (const char *state : {"1", "11", "8", "1"})  // the first is of before
        publish("network/events", std::string(R"({"wifistat":{"wifi":)") + state + "}}");
    EXPECT_EQ(finish(client), 0);
    EXPECT_THAT(out, AnyOf(HasSubstr("wifi 11"), HasSubstr("wifi 8")));  // mine, or the robot's

    expect("forget", 2, {"no terminal to ask whether to forget network \"Home\": --yes"});
    EXPECT_EQ(kvs_get("network.password"), "hush");
    expect("forget --yes", 0, {"\"Home\" is no longer saved", "netwarden starts anew"});
    EXPECT_THAT(read_file("/tmp/asked"), HasSubstr("restart netwarden.service"));
    for (const char *key : {"network.ssid", "network.password"})
        EXPECT_EQ(kvs_get(key), "<none>") << key;
    EXPECT_EQ(kvs_get("network.interface"), "wlan0");
    EXPECT_EQ(kvs_get("robot.name"), "Rosie");
}

// A machine on which all is well but for one thing at a time.
TEST_F(Ctl, DoctorFindsWhatAPortForgot) {
    const Broker broker;
    give_address();
    ASSERT_EQ(system("ip neigh replace 192.0.2.1 lladdr 02:00:00:00:00:01 dev wlan0"), 0);
    kvs_set("product.robotid", "0123");
    kvs_set("network.ssid", "486f6d65");
    kvs_set("network.addr_type", "1");
    kvs_set("network.ip_config", "sudo provision --clmode dhcp \n");
    write_file("/etc/wpa_supplicant.conf",
               "ctrl_interface=/var/run/wpa_supplicant\nctrl_interface_group=apps\n", 0600);
    write_file("/var/run/wpa_supplicant/wlan0", "");
    const auto tools = [] {
        fake("sudo", R"([ "$1" != -n ] || shift; exec "$@")");
        fake("iw", R"(echo 'Connected to 02:00:00:00:02:00 (on wlan0)'; echo '	 * AP')");
        fake("wpa_cli", "echo wpa_state=COMPLETED");
        fake("provision", "echo 'CL REG DOMAIN   : US'");
        fake("version", "echo 'Product Version: 1'");
        fake("network_dhcp_arp_control.sh", "exit 0");
        fake("ifconfig", "echo wlan0 Link encap:Ethernet HWaddr 02:00:00:00:00:00");
        fake("arping", "echo 'Unicast reply from 192.0.2.1 [02:00:00:00:00:01]'");
    };
    tools();
    const std::string pid_file = "/var/run/udhcpc.wlan0.pid";
    const auto run_client = [&](const std::string &line) {
        write_file(pid_file, std::to_string(start(line)));
    };
    run_client("/run/fakes/dash -c \"trap : 16; echo >/tmp/trapped; while :; do sleep 1; done\"");
    EXPECT_TRUE(eventually([] { return read_file("/tmp/trapped") != "<none>"; }));
    const std::string client = read_file(pid_file);
    start_daemon();
    EXPECT_TRUE(eventually([&] { return run("get channel") == 0; }, std::chrono::seconds(20)));

    // The image has no place for this one; everything else is well.
    expect("doctor", 1,
           {"FAULT  tool /usr/bin/webserver_control.sh  not there: the board's",
            "\nnetwardenctl: 1 thing is not as netwarden needs it"});
    EXPECT_THAT(out, Not(HasSubstr("\n?")));

    struct Fault {
        const char *check;
        const char *advice;
        std::function<void()> plant;
    };
    const auto remove = [](const std::string &path) { unlink(path.c_str()); };
    const auto overwrite = [](const std::string &path, const char *text) {
        write_file(path, text, 0600);
    };
    const std::vector<Fault> faults{
        {"tool version", "board/install.sh", [&] { remove("/run/fakes/bin/version"); }},
        {"ifconfig", "busybox", [] { fake("ifconfig", "echo 'ether 02:00:00:00:00:00'"); }},
        {"ifstate", "ifup -a", [&] { remove("/run/ifstate"); }},
        {"iw", "no end within its time", [] { fake("iw", "[ $1 = phy ] || sleep 100"); }},
        {"soft AP", "no radio here", [] { fake("iw", "echo 'Not connected.'"); }},
        {"provision", "CL REG DOMAIN", [] { fake("provision", "exit 3"); }},
        {"version", "Product Version", [] { fake("version", "echo 1.2"); }},
        {"sudo", "root may not", [] { fake("sudo", "exit 1"); }},
        {"group", "groupadd", [&] { overwrite("/etc/group", "root:x:0:\n"); }},
        {"store", "product.robotid", [&] { remove(kvs_path("product.robotid")); }},
        {"saved network", "network.addr_type", [&] { remove(kvs_path("network.addr_type")); }},
        {"supplicant's file", "ctrl_interface_group=apps",
         [&] {
             overwrite("/etc/wpa_supplicant.conf", "ctrl_interface=/var/run/wpa_supplicant\n");
         }},
        {"supplicant", "ifup wlan0", [&] { remove("/var/run/wpa_supplicant/wlan0"); }},
        {"DHCP client", "does not take signal 16", [&] { run_client("sleep 100"); }},
        {"arping", "iputils-arping",
         [] { fake("arping", "echo '60 bytes from 02:00:00:00:00:01 (192.0.2.1)'"); }},
    };
    for (const auto &[check, advice, plant] : faults) {
        const std::vector<std::string> kept{"/etc/group", "/etc/wpa_supplicant.conf",
                                            kvs_path("product.robotid"),
                                            kvs_path("network.addr_type")};
        std::vector<std::string> texts;
        for (const auto &path : kept)
            texts.push_back(read_file(path));
        plant();
        EXPECT_EQ(run("doctor --json"), 1);
        const auto at = out.find(std::string(R"({"check":")") + check + R"(","ok":false)");
        EXPECT_NE(at, out.npos) << check << "\n" << out;
        EXPECT_THAT(out.substr(std::min(at, out.size()), out.find('\n', at) - at),
                    HasSubstr(advice))
            << check;
        tools();
        for (size_t i = 0; i < kept.size(); i++)
            write_file(kept[i], texts[i], 0600);
        write_file("/run/ifstate", "");
        write_file("/var/run/wpa_supplicant/wlan0", "");
        write_file(pid_file, client);
    }
}

TEST_F(Ctl, DoctorLooksWhereTheDaemonDoes) {
    const std::string own = getenv("PATH");
    const auto place = [](const std::string &folder) {
        write_file(folder + "/version", "#!/bin/sh\n", 0700);
        return "tool version            " + folder + "/version\n";
    };
    const std::string of_service = place("/tmp/service");
    fake("systemctl", "echo LANG=C PATH=/tmp/service:" + own + " TERM=dumb");
    expect("doctor --timeout 0.5", 1, {of_service.c_str()});
    fake("systemctl", "echo LANG=C");
    run("doctor --timeout 0.5");
    EXPECT_THAT(out, Not(HasSubstr(of_service)));

    const std::string of_process = place("/tmp/process");
    fake("systemctl", "echo PATH=/tmp/service:" + own);
    EXPECT_EQ(symlink("/run/fakes/dash", "/tmp/netwarden"), 0);
    start("env PATH=/tmp/process:" + own +
          " /tmp/netwarden -c \"echo >/tmp/runs; while :; do sleep 1; done\"");
    EXPECT_TRUE(eventually([] { return read_file("/tmp/runs") != "<none>"; }));
    expect("doctor --timeout 0.5", 1, {of_process.c_str()});
}

TEST_F(Ctl, DoctorLooksAtTheBroker) {
    expect("doctor --timeout 0.5", 1, {"FAULT  broker  ", "Connection refused"});
    for (const auto &[settings, text] :
         {std::pair{"listener 1883\n", "FAULT  broker                  listens to the whole home"},
          std::pair{"listener 1883 127.0.0.1\nmessage_size_limit 100000\n",
                    "FAULT  broker's limit          drops messages of 1 MiB"}}) {
        write_file("/tmp/loose.conf", std::string("allow_anonymous true\nuser root\n") + settings);
        const pid_t other = start("mosquitto -c /tmp/loose.conf 2>/dev/null");
        EXPECT_TRUE(eventually([&] {
            run("get channel --timeout 0.5");
            return out.find("no broker") == out.npos;
        }));
        expect("doctor", 1, {text, "FAULT  netwarden               does not answer: systemctl"});
        end_of(other, SIGKILL);
    }
}

// What a report shows of a line, and what it must not.
TEST_F(Ctl, ReportMasksWhatIsTheHomes) {
    const std::pair<const char *, const char *> kLines[]{
        {R"(psk="horse battery")", R"(psk="********")"},
        {"\tPSK = 0123456789abcdef", "    PSK = ********"},
        {"wep_key0=0102030405", "wep_key0=********"},
        {R"(rx {"wlcfg":{"ssid":"4e696e65","pass":"6e\"ine","sec":4}})",
         R"(rx {"wlcfg":{"ssid":"********","pass":"********","sec":4}})"},
        {R"({\"pass\" : \"in \\\"two\\\"\", \"sec\":4})",
         R"({\"pass\" : \"********\", \"sec\":4})"},
        {R"({"pass":12345678,"n":1})", R"({"pass":********,"n":1})"},
        {R"({?  "robotpass"?: "cut off by the l)", R"({?  "robotpass"?: "********)"},
        {R"(SSID-TEMP-DISABLED id=0 ssid="a"b" reason=WRONG_KEY)",
         R"(SSID-TEMP-DISABLED id=0 ssid="********" reason=WRONG_KEY)"},
        {"Trying 02:11:22:33:44:55 (SSID='It's' freq=2437 MHz)",
         "Trying MAC-1 (SSID='********' freq=2437 MHz)"},
        {"ssid Strange Place", "ssid ********"},
        {"bssid=02:11:22:33:44:55 scan_ssids: 2", "bssid=MAC-1 scan_ssids: 2"},
        {"06-AA-BB-CC-DD-EE ff:ff:ff:ff:ff:ff", "MAC-2 ff:ff:ff:ff:ff:ff"},
        {"at 12:34:56:78 passed, tokens", "at 12:34:56:78 passed, tokens"},
        {"fe80::11:22ff:fe33:4455/64 2001:db8::1", "********/64 2001:db8::1"},
        {"not Home but Homes, 486F6D65", "not ******** but Homes, ********"},
        {"Caf\\xc3\\xa9 1 or Caf\303\251 1 or Caf\\u00e9 1", "******** or ******** or ********"},
        {"\033[2Jred\a", "\\x1b[2Jred\\x07"},
    };
    kvs_set("network.ssid", "486f6d65");
    write_file("/etc/wpa_supplicant.conf", "network={\n\tssid=436166c3a92031\n}\n");
    std::string lines;
    for (const auto &[line, shown] : kLines)
        lines += std::string(line) + "\n";
    write_file("/tmp/lines", lines);
    write_file("/opt/halvik/bin/wifilogs.sh", "#!/run/fakes/dash\ncat /tmp/lines\n", 0755);
    fake("ip", "exit 1");  // its addresses would be counted, too
    EXPECT_EQ(run("report - --timeout 0.5"), 0);
    std::istringstream shown(
        out.substr(std::min(out.find("==== The Wi-Fi capture\n"), out.size())));
    std::string line;
    std::getline(shown, line);
    for (const auto &[in, expected] : kLines) {
        std::getline(shown, line);
        EXPECT_EQ(line, expected) << in;
    }
}

TEST_F(Ctl, ReportTellsAllButSecrets) {
    setenv("NETWARDENCTL_USER", "maker", 1);
    const std::vector<std::string> secrets{
        "Zahnb\303\274rste", "correct horse", "hush hush",    "tok/4711+9",       "Number Nine",
        "battery staple",    "let me in",     "old password", "02:11:22:33:44:55"};
    setenv("NETWARDENCTL_PASSWORD", secrets[6].c_str(), 1);
    const auto hex = [](const std::string &text) {
        std::string digits;
        for (const unsigned char c : text)
            digits += "0123456789abcdef"[c >> 4], digits += "0123456789abcdef"[c & 15];
        return digits;
    };
    kvs_set("network.ssid", hex(secrets[0]));
    kvs_set("network.password", secrets[1]);
    kvs_set("robot.password", secrets[2]);
    kvs_set("vstream.session_token", secrets[3]);
    kvs_set("maker.own", "not for others");
    kvs_set("maker.token", "half a secret, and half, and half, and half");
    kvs_set("product.robotid", "0123");
    write_file("/etc/wpa_supplicant.conf",
               "ctrl_interface=/var/run/wpa_supplicant\nnetwork={\n\tssid=\"" + secrets[4] +
                   "\"\n\tpsk=\"" + secrets[5] + "\"\n}\n");
    const std::string chatter = secrets[0] + " " + hex(secrets[1]) + " " + secrets[2] + " " +
                                secrets[3] + " " + secrets[4] + " " + secrets[5] + " " + secrets[6];
    // As asked for: the newest first.
    write_file(
        "/tmp/journal",
        "2026-11-24T02:09:00+0000 robot systemd[1]: netwarden.service: Main process exited, "
        "code=killed\n"
        "2026-11-24T02:08:00+0000 robot network[7]: [INFO] (src/gateway_pinger:118) No "
        "connectivity but clean mission running or scheduled. Waiting to reboot...\n"
        "2026-11-24T02:07:40+0000 robot network[7]: [INFO] (src/gateway_pinger:118) No "
        "connectivity but clean mission running or scheduled. Waiting to reboot...\n"
        "2026-11-24T02:07:40+0000 robot network[7]: [WARN] (src/gateway_pinger:94) no address "
        "count, 2882\n"
        "2026-11-24T02:06:40+0000 robot network[7]: [INFO] (src/gateway_pinger:134) restarting "
        "network\n"
        "2026-11-24T02:06:40+0000 robot network[7]: [INFO] (src/gateway_pinger:80) wifi is "
        "disconnected\n"
        "2026-11-24T02:06:20+0000 robot network[7]: [WARN] (src/gateway_pinger:94) no address "
        "count, 7\n"
        "2026-11-24T02:06:00+0000 robot network[7]: [INFO] (src/wifi_control:90) writing with\n"
        "                                           pass=" +
            secrets[7] +
            "\n"
            "2026-11-24T02:05:00+0000 robot network[7]: [ERROR] (src/gateway_pinger:145) maximum "
            "ping loss count, restarting network\n"
            "2026-11-24T02:05:00+0000 robot network[7]: [WARN] (src/gateway_pinger:142) no ping "
            "recv, loss counter = 3\n"
            "2026-11-24T02:04:00+0000 robot network[7]: [INFO] " +
            chatter + "\n");
    fake("journalctl", R"(case " $* " in *' -r '*) cat /tmp/journal ;; esac)");
    fake("wpa_cli", R"(printf 'wpa_state=COMPLETED\nbssid=)" + secrets[8] +
                        R"(\nssid=Zahnb\\xc3\\xbcrste\n')");
    fake("iw",
         "echo \"Connected to " + secrets[8] + " (on wlan0)\"; echo 'SSID: " + secrets[0] + "'");
    fake("dmesg", "echo 'wlan0: authenticate with " + secrets[8] + "'; sleep 100");
    // Says more than fits.
    write_file("/opt/halvik/bin/wifilogs.sh",
               "#!/run/fakes/dash\necho '" + chatter +
                   "'\nwhile :; do echo 'half a secret, and half, and half, and half'; done\n",
               0755);
    ASSERT_EQ(system(("echo 'rejected: " + chatter +
                      "' | gzip -c | base64 >/tmp/syslog-prov-fail-wifilog.gz.base64")
                         .c_str()),
              0);
    for (const std::string option : {"", " --json"}) {
        unlink("/tmp/box");
        expect("report /tmp/box --timeout 0.5" + option, 0, {"/tmp/box"});
        struct stat info = {};
        stat("/tmp/box", &info);
        EXPECT_EQ(info.st_mode & 0777, 0600U);
        EXPECT_LT(info.st_size, 2 << 20);
        const std::string box = read_file("/tmp/box");
        for (const std::string &secret : secrets)
            for (const std::string &form : {secret, hex(secret)})
                EXPECT_THAT(box, Not(HasSubstr(form)));
        EXPECT_THAT(box, Not(HasSubstr("rste")));
        EXPECT_THAT(box, Not(HasSubstr("not for others")));
        EXPECT_THAT(box, Not(HasSubstr("half")));  // of a line that is cut
        for (const char *there : {"netwardenctl", "no broker at 127.0.0.1:1883", "maker.own",
                                  "0123", "wpa_state=COMPLETED", "authenticate with MAC-1",
                                  "bssid=MAC-1", "dmesg: no end within its time", "the rest is cut",
                                  "rejected: ", "code=killed", "FAULT  broker"})
            EXPECT_THAT(box, HasSubstr(there)) << option;
        for (const char *decision :
             option.empty()
                 ? std::vector{"2026-11-24T02:05:00+0000  restart of the network: the gateway left "
                               "3 pings in a row unanswered\n",
                               "2026-11-24T02:06:40+0000  restart of the network: no gateway to "
                               "ping for "
                               "minutes\n",
                               "2026-11-24T02:07:40+0000  no reboot: no address in 2882 rounds of "
                               "20 s, but a cleaning mission runs or is soon to; 2 times, the last "
                               "2026-11-24T02:08:00+0000\n",
                               "2026-11-24T02:09:00+0000  end of the daemon: code=killed\n"}
                 : std::vector{
                       R"({"time":"2026-11-24T02:05:00+0000","what":"restart of the network")"})
            EXPECT_THAT(box, HasSubstr(decision));
        if (!option.empty()) {
            std::istringstream lines(box);
            for (std::string line; std::getline(lines, line);)
                EXPECT_TRUE(Json(json_loads(line.c_str(), 0, nullptr))) << line;
        }
    }
    const std::string before = read_file("/tmp/box");
    expect("report /tmp/box", 4, {"cannot make /tmp/box: File exists"});
    EXPECT_EQ(read_file("/tmp/box"), before);
    expect("report /tmp --broker 192.0.2.1:1883", 2, {"on the robot itself"});
    const pid_t client = start_client("report /tmp/never");
    EXPECT_TRUE(eventually([] { return read_file("/tmp/never") != "<none>"; }));
    EXPECT_EQ(finish(client, SIGINT), 130);
    EXPECT_EQ(read_file("/tmp/never"), "<none>");
}

// A certificate of its own making, for a server and a client at 127.0.0.1, with its key.
void make_certificate(const std::string &path) {
    EVP_PKEY *const key = EVP_EC_gen("P-256");
    X509 *const certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("robot"), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
    X509_set_pubkey(certificate, key);
    X509_EXTENSION *const names =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1");
    X509_add_ext(certificate, names, -1);
    X509_sign(certificate, key, EVP_sha256());
    const File made(fopen((path + ".crt").c_str(), "w"));
    PEM_write_X509(made.get(), certificate);
    const File secret(fopen((path + ".key").c_str(), "w"));
    PEM_write_PrivateKey(secret.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    X509_EXTENSION_free(names);
    X509_free(certificate);
    EVP_PKEY_free(key);
}

TEST_F(Ctl, NamesItselfAndSpeaksTls) {
    make_certificate("/tmp/robot");
    make_certificate("/tmp/stranger");
    write_file("/tmp/tls.conf",
               "per_listener_settings true\nuser root\n"
               "listener 1884 127.0.0.1\nallow_anonymous false\npassword_file /tmp/users\n"
               "listener 8883 127.0.0.1\nallow_anonymous true\ncafile /tmp/robot.crt\n"
               "certfile /tmp/robot.crt\nkeyfile /tmp/robot.key\nrequire_certificate true\n");
    ASSERT_EQ(system("mosquitto_passwd -b -c /tmp/users maker 'let me in'"), 0);
    start("mosquitto -c /tmp/tls.conf >/tmp/broker.log 2>&1");
    write_file("/tmp/right", "let me in\n");
    write_file("/tmp/wrong", "hush\n");
    const std::string tls = "get channel --timeout 2 --broker 127.0.0.1:8883 --cafile /tmp/";
    const std::string user = "get channel --timeout 2 --broker 127.0.0.1:1884 ";
    const char *const reached = "is there but netwarden does not answer";
    EXPECT_TRUE(eventually([&] { return run(user) == 3 && out.find("not auth") != out.npos; },
                           std::chrono::seconds(20)))
        << out << read_file("/tmp/broker.log");
    expect(user + "--user maker --broker-pass-file /tmp/wrong", 3, {"it refuses us: not auth"});
    expect(user + "--user maker --broker-pass-file /tmp/right", 3, {reached});
    setenv("NETWARDENCTL_USER", "maker", 1);
    setenv("NETWARDENCTL_PASSWORD", "let me in", 1);
    expect(user, 3, {reached});
    expect(tls + "robot.crt --cert /tmp/robot.crt --key /tmp/robot.key", 3, {reached});
    expect(tls + "stranger.crt", 3, {"certificate verify failed"});
    expect(tls + "robot.crt", 3, {"no broker at 127.0.0.1:8883"});  // asks for ours
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
