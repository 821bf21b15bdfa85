// The provisioning machine, tick by tick, on a robot whose tools succeed: what it runs, says and
// stores, in one order.
#include "provisioning_sm.h"

#include <algorithm>
#include <iterator>
#include <regex>
#include <sstream>

#include "bus.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "provisioning_state.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

// The daemon's short pause takes no time either.
extern "C" int usleep(useconds_t microseconds) {
    if (microseconds > 1000)
        Robot::add_to_commands("wait " + std::to_string(microseconds));
    return 0;
}

namespace {

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    Robot::add_to_commands(topic.substr(5, topic.find('/', 5) - 5) + " " + text);
    return "{}";
}

// Parts of stories and the words for them here, each found in what the ones above left.
constexpr char kWords[] = R"-(
network.interface wlan.\n|sudo\s|network_device_interfaces_control.sh\s ->
\{"wifistat":\{"wifi":(\w+),"uap":\w+\}\} -> wifistat $1
network/events (wifistat .*)\nbrisk/robot/events \1 -> $1
\{"netinfo":\{.*\}\} -> netinfo
network/events \{"wlcfg":\{"sec":[07],"ssid":"41"\}\} -> wlcfg
robot/debug \{"command":"(\w+)"\} -> say $1
network.last_prov_status (\d+)\nwifi = \1 -> save $1
hostapd_cli -ip2p0 all_sta -> look
\n -> ;
5 \{"event":"disconnect_local"\}; wait 100000 -> app off
Error publishing \{"event":"disconnect_local"\} tarn request.; wait 100000 -> no app
--interface=(\w+) --action=(\w+); sleep 1 -> $2 $1
local/cmd \{"command":"ipdone"\}; network.ssid 41; network.ip_config provision given -> saved
provision --apssid Plover-0123 --apchan 6 --aphwmode g -> named
del monitor; add softap; named; ifdown wlan1; ifup wlan1 -> AP up
ifdown wlan1; del softap -> AP down
ifdown wlan0; wifi = 11 -> down
provisioning_stop: failed to stop softAP -> no AP stop
provisioning_stop: failed to stop stop station -> no stop
; /opt/halvik/bin/wifilogs.sh [^;]*/syslog-prov-fail-wifilog.gz.base64" -> , log
ifdown wlan0; sleep 1; ifup wlan0; wpa_cli -iwlan0 reconfigure -> connect
provision saved; connect; wifi = 8 -> home
say provstart; app off; down -> start
save 10; wifistat 10; btmanager wifistat 10 -> error 10
AP down; save 8; wifistat 8 -> away
provision given; wlcfg -> given
hostapd_cli -iwlan1 disassociate 02:0a:0b:0c:0d:0e -> sent away
)-";

std::vector<std::string> words(const char *text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}
const auto kStates = words(
    "PS_NONE WAITING_FOR_NETWORK_CONFIG_RX WAITING_FOR_WACTIVATE WAITING_FOR_DHCP_COMPLETE "
    "WAITING_FOR_IP_DONE TRAINING_MODE");
const auto kEvents = words(
    "PE_NONE MFG_WIFI_TEST TRAIN_START TRAIN_DISCONNECT TRAIN_CONNECT TRAIN_ABORT TRAIN_END "
    "PROVISIONING_ACTIVATED PROVISIONING_TIMEOUT PROVISIONING_ABORT PROVISIONING_NETWORK_CONFIG_RX "
    "PROVISIONING_NETWORK_STATIC_CONFIG_RX PROVISIONING_WACTIVATED PROVISIONING_DHCP_COMPLETE "
    "PROVISIONING_RETRY_PASSWORD PROVISIONING_ERROR PROVISIONING_COMPLETE 17");

// An event, the states that it meets, the next state ("=" for the same), and what it does.
constexpr char kTransitions[] = R"(
MFG_WIFI_TEST 012345 1 down; Unhandled prov event MFG_WIFI_TEST;
TRAIN_START 0 5 down; AP up; say trainstart;
TRAIN_START 1234 5 say provabort; AP down; down, log; down; AP up; say trainstart;
TRAIN_START 5 =
TRAIN_DISCONNECT 5 = say traindisconnect;
TRAIN_CONNECT 5 = say trainconnect;
TRAIN_ABORT 5 0 AP down; home; say trainabort;
TRAIN_END 5 0 AP down; home; say traindone;
PROVISIONING_ACTIVATED 12 1 start; look;
PROVISIONING_ACTIVATED 034 1 start; AP up; look;
PROVISIONING_ACTIVATED 5 1 AP down; say trainabort; start; AP up; look;
PROVISIONING_TIMEOUT 0 =
PROVISIONING_TIMEOUT 1234 0 say provfail; AP down; down, log; home;
PROVISIONING_ABORT 05 =
PROVISIONING_ABORT 1234 0 say provabort; AP down; down, log; home;
PROVISIONING_NETWORK_CONFIG_RX 012 2 given;
PROVISIONING_NETWORK_CONFIG_RX 34 2 down; given;
PROVISIONING_NETWORK_STATIC_CONFIG_RX 012 2 given;
PROVISIONING_NETWORK_STATIC_CONFIG_RX 34 2 down; given;
PROVISIONING_WACTIVATED 0134 = Error unexpected event PROVISIONING_WACTIVATED , ignoring;
PROVISIONING_WACTIVATED 2 3 app off; away; connect; save 8;
PROVISIONING_DHCP_COMPLETE 0124 =
PROVISIONING_DHCP_COMPLETE 3 4 wifistat 8; network/events netinfo; btmanager netinfo; wlcfg; saved; network.addr_type 1;
PROVISIONING_RETRY_PASSWORD 0124 = Not able to retry password due to current state;
PROVISIONING_RETRY_PASSWORD 3 = wpa_cli -iwlan0 select_network 0;
PROVISIONING_ERROR 0 = Not able to transition to PROVISIONING_ERROR due to current state;
PROVISIONING_ERROR 1234 1 wifistat 8; btmanager wifistat 8; down;
PROVISIONING_COMPLETE 0123 = AP down;
PROVISIONING_COMPLETE 4 0 2 {"event":"resetCloudConnection"}; AP down;
)";

class ProvisioningMachine : public WifiRobot {
  protected:
    ProvisioningMachine() { tell_stories(); }
    void SetUp() override {
        exchange_mqtt_app(mqtt_client_init([](auto...) {}));  // what is sent waits for ever
        WifiRobot::SetUp();
        write_file("/opt/halvik/bin/wifilogs.sh", "#!/run/fakes/dash", 0755);
        kvs_set("product.robotid", "0123456789");
        kvs_set("network.ssid", "41");
        kvs_set("network.ip_config", "provision saved");
        kvs_set("network.addr_type", "1");
        wifi_init_wifistat();
        wifictl_set_ssid("41");
        enter(0);
    }
    static void enter(int state) {
        wifi_link_set_stopped();
        wifi_state_set_uap(state == 1 || state == 2 || state == 5);
        wifi_state_set_wifi(WIFI_CONNECTING);
        wifictl_set_ip_config("provision given");
        provisioning_enter_state(static_cast<provisioning_state>(state));
        forget_commands();
    }
    // Lines of: state ("=" for the one before), event ("-" for none), second, what it does; the
    // state after it; perhaps the tool that fails for once.
    static void play(const std::string &steps) {
        std::istringstream lines(steps);
        std::string state, event, expected;
        for (long now;
             lines >> state >> event >> now && std::getline(lines >> std::ws, expected);) {
            if (state != "=")
                enter(std::stoi(state));
            const size_t bar = std::min(expected.find(" | "), expected.size());
            const std::string failing = "no tool" + expected.substr(bar),
                              tool = failing.substr(failing.find_last_of(' ') + 1);
            fake(tool, "exit 1");
            if (event != "-")
                provisioning_state_machine(
                    static_cast<int>(std::ranges::find(kEvents, event) - kEvents.begin()));
            provisioning_timer_tick(now);
            fake(tool, "exit 0");
            EXPECT_EQ(in_words() + std::to_string(provisioning_get_state()),
                      expected.substr(0, bar))
                << event << " at " << now << ", state " << state;
        }
        EXPECT_TRUE(lines.eof()) << "not understood: " << steps;
    }
    static std::string in_words() {
        static const auto phrases = [] {
            std::vector<std::pair<std::regex, std::string>> pairs;
            std::istringstream lines(kWords + 1);
            for (std::string line; std::getline(lines, line);) {
                const size_t arrow = line.find(" ->");
                const std::string word = line.substr(std::min(arrow + 4, line.size()));
                pairs.emplace_back(line.substr(0, arrow), word == ";" ? "; " : word);
            }
            return pairs;
        }();
        std::string text = story("src/provisioning_sm");
        for (const auto &[phrase, word] : phrases)
            text = std::regex_replace(text, phrase, word);
        return text;
    }
    const Bus bus_{answer};
};

// What happens, and the state after it.
std::string outcome(const std::string &name, const std::string &state) {
    std::istringstream rows(kTransitions);
    std::string event, states, next, told;
    while (rows >> event >> states >> next && std::getline(rows, told))
        if (event == name && states.find(state) != states.npos)
            return (told.empty() ? "" : told.substr(1) + " ") + (next == "=" ? state : next);
    return (state == "5" ? "Unhandled training event " : "Unhandled prov event ") + name + "; " +
           state;
}

TEST_F(ProvisioningMachine, EveryEventInEveryState) {
    long now = 0;
    for (const std::string &event : kEvents)
        for (size_t i = 0; i < kStates.size(); i++) {
            const std::string state = std::to_string(i),
                              taken = "rx event " + event + " in state " + kStates[i];
            now += 1000;  // none debounces the next
            play(state + " " + event + " " + std::to_string(now) + " " + outcome(event, state));
            const bool is_silent = event == "PROVISIONING_ABORT" && (state == "0" || state == "5");
            EXPECT_EQ(times_logged(taken), is_silent ? 0 : 1) << taken;
        }
}

TEST_F(ProvisioningMachine, PhoneIsSeenOnceAndSentAway) {
    play("0 PROVISIONING_ACTIVATED 100 start; AP up; look; 1\n= - 101 look; 1");
    fake("hostapd_cli", "echo 2:a:b:c:d:e");
    play(R"(
= - 102 look; say softapconnect; 1
= - 103 1
= PROVISIONING_ACTIVATED 104 sent away; start; look; say softapconnect; 1
= PROVISIONING_ACTIVATED 105 sent away; Could not disassociate uap client; start; look; 1 | hostapd_cli
= PROVISIONING_NETWORK_CONFIG_RX 106 given; 2
= - 107 2)");
    fake("hostapd_cli", "echo 2:a:b:c:d:e");
    play(R"(
1 - 108 look; say softapconnect; 1
2 PROVISIONING_WACTIVATED 109 app off; sent away; away; connect; save 8; 3)");
}

TEST_F(ProvisioningMachine, ManufacturingTestEndsWithTheConnect) {
    play(R"(
0 MFG_WIFI_TEST 1 down; Unhandled prov event MFG_WIFI_TEST; 1
2 PROVISIONING_WACTIVATED 2 app off; away; 1 {"wifistat": {"wifi": 8}}; connect; save 8; 0)");
    exchange_network_tarn_handle(nullptr);
    play(R"(
2 PROVISIONING_WACTIVATED 3 no app; away; network_send_tarn_req failed; connect; save 8; 0
0 PROVISIONING_ACTIVATED 4 say provstart; no app; down; AP up; look; 1
2 PROVISIONING_WACTIVATED 5 no app; away; connect; save 8; 3)");  // the owner's own
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 0);
}

TEST_F(ProvisioningMachine, ToolsThatFail) {
    play(R"(
0 TRAIN_START 1 down; AP up; provisioning_train_start: failed to turn on softAP for training; 0 | ifup
0 PROVISIONING_ACTIVATED 2 start; AP up; 1 | ifup
2 PROVISIONING_WACTIVATED 3 app off; away; ifdown wlan0; sleep 1; ifup wlan0; error 10; down; 1 | ifup
2 PROVISIONING_WACTIVATED 4 app off; AP down; error 10; ifdown wlan0; look; 1 | ifdown
5 TRAIN_ABORT 5 AP down; provisioning_train_stop: failed to stop softAP; say trainabort; 5 | ifdown
1 PROVISIONING_ABORT 6 say provabort; AP down; no AP stop; ifdown wlan0; no stop, log; home; 0 | ifdown
3 PROVISIONING_NETWORK_CONFIG_RX 7 down; provision given; error 10; down; 1 | provision)");
}

// Both sides are whole seconds, of which the milliseconds wrap within 32 bits.
TEST_F(ProvisioningMachine, AbortIsIgnoredInTheSecondOfTheStart) {
    for (const long now : {100L, 2147483L, 4294967L}) {
        const std::string at = " " + std::to_string(now) + " ",
                          next = " " + std::to_string(now + 1) + " ";
        const std::string month_later = " " + std::to_string(now + 30L * 24 * 3600) + " ";
        const std::string training = "= TRAIN_START" + at + "down; AP up; say trainstart; 5\n";
        play("0 PROVISIONING_ACTIVATED" + at + "start; AP up; look; 1\n" + "= PROVISIONING_ABORT" +
             at + "look; 1\n" + "= PROVISIONING_ABORT" + next +
             "say provabort; AP down; down, log; home; 0\n" + training + "= TRAIN_ABORT" + at +
             "5\n" + "= TRAIN_ABORT" + next + "AP down; home; say trainabort; 0\n" + training +
             "= TRAIN_ABORT" + month_later + "AP down; home; say trainabort; 0\n");
    }
    const std::string reason = "abort due to button debounce timer";
    EXPECT_EQ(times_logged("ignoring " + reason), 6);
    EXPECT_EQ(times_logged("ignoring prov " + reason) * times_logged("ignoring train " + reason),
              9);
}

TEST_F(ProvisioningMachine, TimesOutAfterTwentyMinutes) {
    play(R"(
0 PROVISIONING_ACTIVATED 100 start; AP up; look; 1
= - 1300 look; 1
= - 1301 PROVISIONING TIMEOUT; look; 1
= - 1301 say provfail; AP down; down, log; home; 0
= PROVISIONING_ACTIVATED 100 start; AP up; look; 1
4 PROVISIONING_COMPLETE 101 2 {"event":"resetCloudConnection"}; AP down; 0)");
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 1);
    play("1 - 9999 1");  // no deadline any more
}

TEST_F(ProvisioningMachine, TrainingEndsByItsCounterUnlessTheAppIsThere) {
    const auto ticks = [](int number) {
        for (int i = 0; i < number; i++)
            provisioning_timer_tick(200);
        forget_commands();
    };
    for (const int start : {int{TRAIN_START}, int{TRAIN_DISCONNECT}}) {
        provisioning_state_machine(start);
        ticks(7200);
        play(R"(
= - 201 AP down; home; say trainabort; 0
= TRAIN_START 300 down; AP up; say trainstart; 5
= TRAIN_CONNECT 301 say trainconnect; 5)");
        ticks(7300);
        play("= - 302 5");
    }
}

TEST_F(ProvisioningMachine, SevenPostsAreExecutedTheEighthLosesAll) {
    for (const int posts : {7, 8, 7}) {
        std::string refusals;
        for (int i = 0; i < posts; i++) {
            provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
            refusals += "Not able to retry password due to current state; ";
        }
        play("= - 1 " + (posts == 8 ? "" : refusals) + "0");
    }
    enter(1);
    provisioning_state_machine(PROVISIONING_ACTIVATED);
    provisioning_state_machine(PROVISIONING_ABORT);  // forgotten by the new start
    play("= - 100 start; look; 1");
}

}  // namespace
