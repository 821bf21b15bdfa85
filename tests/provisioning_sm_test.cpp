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
const std::pair<std::regex, const char *> kWords[]{
    {std::regex(R"-(network.interface wlan.\n|sudo |network_device_interfaces_control.sh )-"), ""},
    {std::regex(R"-(\{"wifistat":\{"wifi":(\w+),"uap":\w+\}\})-"), "wifistat $1"},
    {std::regex(R"-(network/events (wifistat .*)\nbrisk/robot/events \1)-"), "$1"},
    {std::regex(R"-(\{"netinfo":\{.*\}\})-"), "netinfo"},
    {std::regex(R"-(network/events \{"wlcfg":\{"sec":[07],"ssid":"41"\}\})-"), "wlcfg"},
    {std::regex(R"-(5 \{"event":"disconnect_local"\}\nwait 100000)-"), "app off"},
    {std::regex(R"-(robot/debug \{"command":"(\w+)"\})-"), "say $1"},
    {std::regex(R"-(network.last_prov_status (\d+)\nwifi = \1)-"), "save $1"},
    {std::regex("hostapd_cli -ip2p0 all_sta"), "look"},
    {std::regex("\n"), "; "},
    {std::regex(R"-(--interface=(\w+) --action=(\w+); sleep 1)-"), "$2 $1"},
    {std::regex("del monitor; add softap; provision --apssid Plover-0123 --apchan 6 --aphwmode g; "
                "ifdown wlan1; ifup wlan1"),
     "AP up"},
    {std::regex("ifdown wlan1; del softap"), "AP down"},
    {std::regex("ifdown wlan0; wifi = 11"), "down"},
    {std::regex("; /opt/halvik/bin/wifilogs.sh [^;]*/syslog-prov-fail-wifilog.gz.*64\""), ", log"},
    {std::regex("ifdown wlan0; sleep 1; ifup wlan0; wpa_cli -iwlan0 reconfigure"), "connect"},
};

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

// What a posted event does, by the state that it meets. In a state without a row it does nothing
// but warn.
struct row {
    int event;
    std::string states;
    int next;  // state; kStay: the same
    std::string story;
};
constexpr int kStay = -1;
constexpr int kTick = -1;  // no event
const std::string kSaved = "AP down; down, log; provision saved; connect; wifi = 8; ";
const std::string kStart = "say provstart; app off; down; ", kUp = kStart + "AP up; look; ";
const std::string kHome = "AP down; provision saved; connect; wifi = 8; ";
const std::string kAway = "AP down; save 8; wifistat 8; ";
const std::string kGiven = "provision given; wlcfg; ";
const row kRows[]{
    {MFG_WIFI_TEST, "012345", 1, "down; Unhandled prov event MFG_WIFI_TEST; "},
    {TRAIN_START, "0", 5, "down; AP up; say trainstart; "},
    {TRAIN_START, "1234", 5, "say provabort; AP down; down, log; down; AP up; say trainstart; "},
    {TRAIN_START, "5", kStay, ""},
    {TRAIN_DISCONNECT, "5", kStay, "say traindisconnect; "},
    {TRAIN_CONNECT, "5", kStay, "say trainconnect; "},
    {TRAIN_ABORT, "5", 0, kHome + "say trainabort; "},
    {TRAIN_END, "5", 0, kHome + "say traindone; "},
    {PROVISIONING_ACTIVATED, "12", 1, kStart + "look; "},
    {PROVISIONING_ACTIVATED, "034", 1, kUp},
    {PROVISIONING_ACTIVATED, "5", 1, "AP down; say trainabort; " + kUp},
    {PROVISIONING_TIMEOUT, "0", kStay, ""},
    {PROVISIONING_TIMEOUT, "1234", 0, "say provfail; " + kSaved},
    {PROVISIONING_ABORT, "05", kStay, ""},
    {PROVISIONING_ABORT, "1234", 0, "say provabort; " + kSaved},
    {PROVISIONING_NETWORK_CONFIG_RX, "012", 2, kGiven},
    {PROVISIONING_NETWORK_CONFIG_RX, "34", 2, "down; " + kGiven},
    {PROVISIONING_NETWORK_STATIC_CONFIG_RX, "012", 2, kGiven},
    {PROVISIONING_NETWORK_STATIC_CONFIG_RX, "34", 2, "down; " + kGiven},
    {PROVISIONING_WACTIVATED, "0134", kStay,
     "Error unexpected event PROVISIONING_WACTIVATED , ignoring; "},
    {PROVISIONING_WACTIVATED, "2", 3, "app off; " + kAway + "connect; save 8; "},
    {PROVISIONING_DHCP_COMPLETE, "0124", kStay, ""},
    {PROVISIONING_DHCP_COMPLETE, "3", 4,
     "wifistat 8; network/events netinfo; btmanager netinfo; wlcfg; "
     "local/cmd {\"command\":\"ipdone\"}; network.ssid 41; network.ip_config provision given; "
     "network.addr_type 1; "},
    {PROVISIONING_RETRY_PASSWORD, "0124", kStay,
     "Not able to retry password due to current state; "},
    {PROVISIONING_RETRY_PASSWORD, "3", kStay, "wpa_cli -iwlan0 select_network 0; "},
    {PROVISIONING_ERROR, "0", kStay,
     "Not able to transition to PROVISIONING_ERROR due to current state; "},
    {PROVISIONING_ERROR, "1234", 1, "wifistat 8; btmanager wifistat 8; down; "},
    {PROVISIONING_COMPLETE, "0123", kStay, "AP down; "},
    {PROVISIONING_COMPLETE, "4", 0, R"(2 {"event":"resetCloudConnection"}; AP down; )"},
};

// An event, posted in a state (kStay: the one before) and executed at a second while one tool
// fails: what it does, and the state after it.
struct step {
    int state, event;
    long now;
    std::string story;
    const char *failing = "no tool";
};

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
    static void play(std::initializer_list<step> steps) {
        for (const auto &[state, event, now, expected, failing] : steps) {
            if (state != kStay)
                enter(state);
            fake(failing, "exit 1");
            if (event != kTick)
                provisioning_state_machine(event);
            provisioning_timer_tick(now);
            fake(failing, "exit 0");
            std::string text = story("src/provisioning_sm");
            for (const auto &[what, word] : kWords)
                text = std::regex_replace(text, what, word);
            EXPECT_EQ(text + std::to_string(provisioning_get_state()), expected)
                << "event " << event << " at " << now << ", state " << state;
        }
    }
    const Bus bus_{answer};
};

TEST_F(ProvisioningMachine, EveryEventInEveryState) {
    for (int event = 0; event <= 17; event++)
        for (int state = 0; state <= TRAINING_MODE; state++) {
            const std::string name = kEvents[static_cast<size_t>(event)],
                              digit = std::to_string(state);
            const std::string kind = state == TRAINING_MODE ? "training" : "prov";
            row wanted{event, "", kStay, "Unhandled " + kind + " event " + name + "; "};
            for (const row &each : kRows)
                if (each.event == event && each.states.find(digit) != std::string::npos)
                    wanted = each;
            const long now = 1000 * (event * 10 + state);  // none debounces the next
            const std::string next = wanted.next == kStay ? digit : std::to_string(wanted.next);
            play({{state, event, now, wanted.story + next}});
            const std::string taken =
                "rx event " + name + " in state " + kStates[static_cast<size_t>(state)];
            const bool is_silent = event == PROVISIONING_ABORT && (state == 0 || state == 5);
            EXPECT_EQ(times_logged(taken), is_silent ? 0 : 1) << taken;
        }
}

TEST_F(ProvisioningMachine, PhoneIsSeenOnceAndSentAway) {
    const std::string sent_away = "hostapd_cli -iwlan1 disassociate 02:0a:0b:0c:0d:0e; ";
    const auto phone_comes = [] { fake("hostapd_cli", "echo 2:a:b:c:d:e"); };
    play({{0, PROVISIONING_ACTIVATED, 100, kUp + "1"}, {kStay, kTick, 101, "look; 1"}});
    phone_comes();
    play({{kStay, kTick, 102, "look; say softapconnect; 1"},
          {kStay, kTick, 103, "1"},
          {kStay, PROVISIONING_ACTIVATED, 104, sent_away + kStart + "look; say softapconnect; 1"},
          {kStay, PROVISIONING_ACTIVATED, 105,
           sent_away + "Could not disassociate uap client; " + kStart + "look; 1", "hostapd_cli"},
          {kStay, PROVISIONING_NETWORK_CONFIG_RX, 106, kGiven + "2"},
          {kStay, kTick, 107, "2"}});  // looked for until there are settings
    phone_comes();
    play({{1, kTick, 108, "look; say softapconnect; 1"},
          {2, PROVISIONING_WACTIVATED, 109,
           "app off; " + sent_away + kAway + "connect; save 8; 3"}});
}

TEST_F(ProvisioningMachine, ManufacturingTestEndsWithTheConnect) {
    const std::string connect = "connect; save 8; ", told = R"(1 {"wifistat": {"wifi": 8}}; )";
    const std::string refused =
        "Error publishing {\"event\":\"disconnect_local\"} tarn request.; wait 100000; ";
    play({{0, MFG_WIFI_TEST, 1, "down; Unhandled prov event MFG_WIFI_TEST; 1"},
          {2, PROVISIONING_WACTIVATED, 2, "app off; " + kAway + told + connect + "0"}});
    exchange_network_tarn_handle(nullptr);
    const std::string untold = "network_send_tarn_req failed; ";
    play({{2, PROVISIONING_WACTIVATED, 3, refused + kAway + untold + connect + "0"},
          {0, PROVISIONING_ACTIVATED, 4, "say provstart; " + refused + "down; AP up; look; 1"},
          {2, PROVISIONING_WACTIVATED, 5, refused + kAway + connect + "3"}});  // the owner's own
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 0);
}

TEST_F(ProvisioningMachine, ToolsThatFail) {
    const std::string error = "save 10; wifistat 10; btmanager wifistat 10; ", off = "app off; ";
    const std::string no_training =
        "provisioning_train_start: failed to turn on softAP for training; ";
    const std::string is_up = "provisioning_train_stop: failed to stop softAP; ";
    const std::string failed = "; provisioning_stop: failed to stop ";
    play({{0, TRAIN_START, 1, "down; AP up; " + no_training + "0", "ifup"},
          {0, PROVISIONING_ACTIVATED, 2, kStart + "AP up; 1", "ifup"},
          {2, PROVISIONING_WACTIVATED, 3,
           off + kAway + "ifdown wlan0; sleep 1; ifup wlan0; " + error + "down; 1", "ifup"},
          {2, PROVISIONING_WACTIVATED, 4, off + "AP down; " + error + "ifdown wlan0; look; 1",
           "ifdown"},
          {5, TRAIN_ABORT, 5, "AP down; " + is_up + "say trainabort; 5", "ifdown"},
          {1, PROVISIONING_TIMEOUT, 6,
           "say provfail; AP down" + failed + "softAP; ifdown wlan0" + failed +
               "stop station, log; provision saved; connect; wifi = 8; 0",
           "ifdown"},
          {3, PROVISIONING_NETWORK_CONFIG_RX, 7, "down; provision given; " + error + "down; 1",
           "provision"}});
}

// Both sides are whole seconds, of which the milliseconds wrap within 32 bits.
TEST_F(ProvisioningMachine, AbortIsIgnoredInTheSecondOfTheStart) {
    const std::string training = "down; AP up; say trainstart; 5";
    const std::string home = kHome + "say trainabort; 0";
    const long month = 30L * 24 * 3600;
    for (const long now : {100L, 2147483L, 4294967L})
        play({{0, PROVISIONING_ACTIVATED, now, kUp + "1"},
              {kStay, PROVISIONING_ABORT, now, "look; 1"},
              {kStay, PROVISIONING_ABORT, now + 1, "say provabort; " + kSaved + "0"},
              {kStay, TRAIN_START, now, training},
              {kStay, TRAIN_ABORT, now, "5"},
              {kStay, TRAIN_ABORT, now + 1, home},
              {kStay, TRAIN_START, now, training},
              {kStay, TRAIN_ABORT, now + month, home}});
    const std::string reason = "abort due to button debounce timer";
    EXPECT_EQ(times_logged("ignoring " + reason), 6);
    EXPECT_EQ(times_logged("ignoring prov " + reason) * times_logged("ignoring train " + reason),
              9);
}

TEST_F(ProvisioningMachine, TimesOutAfterTwentyMinutes) {
    play({{0, PROVISIONING_ACTIVATED, 100, kUp + "1"},
          {kStay, kTick, 1300, "look; 1"},
          {kStay, kTick, 1301, "PROVISIONING TIMEOUT; look; 1"},
          {kStay, kTick, 1301, "say provfail; " + kSaved + "0"},
          {kStay, PROVISIONING_ACTIVATED, 100, kUp + "1"},
          {4, PROVISIONING_COMPLETE, 101, R"(2 {"event":"resetCloudConnection"}; AP down; 0)"}});
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 1);
    play({{1, kTick, 9999, "1"}});  // no deadline any more
}

TEST_F(ProvisioningMachine, TrainingEndsByItsCounterUnlessTheAppIsThere) {
    const auto ticks = [](int number) {
        for (int i = 0; i < number; i++)
            provisioning_timer_tick(200);
    };
    for (const int start : {int{TRAIN_START}, int{TRAIN_DISCONNECT}}) {
        provisioning_state_machine(start);
        ticks(7200);
        forget_commands();
        play({{kStay, kTick, 201, kHome + "say trainabort; 0"},
              {kStay, TRAIN_START, 300, "down; AP up; say trainstart; 5"},
              {kStay, TRAIN_CONNECT, 301, "say trainconnect; 5"}});
        ticks(7300);
        play({{kStay, kTick, 302, "5"}});
    }
}

TEST_F(ProvisioningMachine, SevenPostsAreExecutedTheEighthLosesAll) {
    for (const int posts : {7, 8, 7}) {
        std::string refusals;
        for (int i = 0; i < posts; i++) {
            provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
            refusals += "Not able to retry password due to current state; ";
        }
        play({{kStay, kTick, 1, (posts == 8 ? "" : refusals) + "0"}});
    }
    enter(1);
    provisioning_state_machine(PROVISIONING_ACTIVATED);
    provisioning_state_machine(PROVISIONING_ABORT);  // forgotten by the new start
    play({{kStay, kTick, 100, kStart + "look; 1"}});
}

}  // namespace
