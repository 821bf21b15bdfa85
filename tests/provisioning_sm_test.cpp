// The provisioning machine, tick by tick, on a robot whose tools succeed: what it runs, says and
// stores, in one order.
#include "provisioning_sm.h"

#include <cstring>
#include <regex>

#include "bus.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "provisioning_state.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::Not, testing::StartsWith;

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    Robot::add_to_commands(topic.substr(5, topic.find('/', 5) - 5) + " " + text);
    return "{}";
}

// Parts of stories and the words for them here, each found in what the ones above left.
const std::pair<std::regex, const char *> kWords[]{
    {std::regex(R"-("uap":\w+)-"), R"("uap")"},
    {std::regex(R"-(network.interface wlan.\n|sudo |network_device_interfaces_control.sh )-"), ""},
    {std::regex(R"-(network/events (\{"wifistat":.*)\nbrisk/robot/events \1)-"), "$1"},
    {std::regex(R"-(robot/debug \{"command":"(\w+)"\})-"), "say $1"},
    {std::regex("\n"), "; "},
    {std::regex(
         "--interface=monitor --action=del; sleep 1; --interface=softap --action=add; sleep "
         "1; provision --apssid Plover-0123 --apchan 6 --aphwmode g; ifdown wlan1; ifup wlan1"),
     "AP up"},
    {std::regex("ifdown wlan1; --interface=softap --action=del; sleep 1"), "AP down"},
    {std::regex("ifdown wlan0; wifi = 11"), "down"},
    {std::regex("; /opt/halvik/bin/wifilogs.sh [^;]*/syslog-prov-fail-wifilog.gz.base64\""),
     ", log"},
    {std::regex("ifdown wlan0; sleep 1; ifup wlan0; wpa_cli -iwlan0 reconfigure"), "connect"},
};

// What a posted event does, by the state that it meets. In a state without a row it does nothing
// but warn.
struct row {
    int event;
    std::string states;
    int next;  // state; kStay: the same
    std::string story;
};
constexpr int kStay = -1;
#define SAVED "AP down; down, log; provision saved; connect; wifi = 8; "
#define START "say provstart; 5 {\"event\":\"disconnect_local\"}; down; "
#define NETINFO                                                                                   \
    "{\"netinfo\":{\"dhcp\":true,\"addr\":\"0.0.0.0\",\"mask\":\"255.255.255.255\",\"gw\":\"0.0." \
    "0.0\","                                                                                      \
    "\"dns1\":\"0.0.0.0\",\"dns2\":\"0.0.0.0\",\"bssid\":\"00:00:00:00:00:00\",\"sec\":7}}; "
#define WLCFG R"(network/events {"wlcfg":{"sec":7,"ssid":"41"}}; )"
#define STAT(wifi) "{\"wifistat\":{\"wifi\":" wifi ",\"uap\"}}; "
const row kRows[]{
    {MFG_WIFI_TEST, "012345", 1, "down; Unhandled prov event MFG_WIFI_TEST; "},
    {TRAIN_START, "0", 5, "down; AP up; say trainstart; "},
    {TRAIN_START, "1234", 5, "say provabort; AP down; down, log; down; AP up; say trainstart; "},
    {TRAIN_START, "5", kStay, ""},
    {TRAIN_DISCONNECT, "5", kStay, "say traindisconnect; "},
    {TRAIN_CONNECT, "5", kStay, "say trainconnect; "},
    {TRAIN_ABORT, "5", 0, "AP down; provision saved; connect; wifi = 8; say trainabort; "},
    {TRAIN_END, "5", 0, "AP down; provision saved; connect; wifi = 8; say traindone; "},
    {PROVISIONING_ACTIVATED, "12", 1, START},
    {PROVISIONING_ACTIVATED, "034", 1, START "AP up; "},
    {PROVISIONING_ACTIVATED, "5", 1, "AP down; say trainabort; " START "AP up; "},
    {PROVISIONING_TIMEOUT, "0", kStay, ""},
    {PROVISIONING_TIMEOUT, "1234", 0, "say provfail; " SAVED},
    {PROVISIONING_ABORT, "05", kStay, ""},
    {PROVISIONING_ABORT, "1234", 0, "say provabort; " SAVED},
    {PROVISIONING_NETWORK_CONFIG_RX, "012", 2, "provision given; " WLCFG},
    {PROVISIONING_NETWORK_CONFIG_RX, "34", 2, "down; provision given; " WLCFG},
    {PROVISIONING_NETWORK_STATIC_CONFIG_RX, "012", 2, "provision given; " WLCFG},
    {PROVISIONING_NETWORK_STATIC_CONFIG_RX, "34", 2, "down; provision given; " WLCFG},
    {PROVISIONING_WACTIVATED, "0134", kStay,
     "Error unexpected event PROVISIONING_WACTIVATED , ignoring; "},
    {PROVISIONING_WACTIVATED, "2", 3,
     R"(5 {"event":"disconnect_local"}; AP down; network.last_prov_status 8; wifi = 8; )" STAT(
         "8") "connect; network.last_prov_status 8; wifi = 8; "},
    {PROVISIONING_DHCP_COMPLETE, "0124", kStay, ""},
    {PROVISIONING_DHCP_COMPLETE, "3", 4,
     STAT(
         "8") "network/events " NETINFO "btmanager " NETINFO WLCFG
              R"(local/cmd {"command":"ipdone"}; network.ssid 41; network.ip_config provision given; )"
              "network.addr_type 1; "},
    {PROVISIONING_RETRY_PASSWORD, "0124", kStay,
     "Not able to retry password due to current state; "},
    {PROVISIONING_RETRY_PASSWORD, "3", kStay, "wpa_cli -iwlan0 select_network 0; "},
    {PROVISIONING_ERROR, "0", kStay,
     "Not able to transition to PROVISIONING_ERROR due to current state; "},
    {PROVISIONING_ERROR, "1234", 1, STAT("8") "btmanager " STAT("8") "down; "},
    {PROVISIONING_COMPLETE, "0123", kStay, "AP down; "},
    {PROVISIONING_COMPLETE, "4", 0, R"(2 {"event":"resetCloudConnection"}; AP down; )"},
};
const char *const kNames[]{"PE_NONE",
                           "MFG_WIFI_TEST",
                           "TRAIN_START",
                           "TRAIN_DISCONNECT",
                           "TRAIN_CONNECT",
                           "TRAIN_ABORT",
                           "TRAIN_END",
                           "PROVISIONING_ACTIVATED",
                           "PROVISIONING_TIMEOUT",
                           "PROVISIONING_ABORT",
                           "PROVISIONING_NETWORK_CONFIG_RX",
                           "PROVISIONING_NETWORK_STATIC_CONFIG_RX",
                           "PROVISIONING_WACTIVATED",
                           "PROVISIONING_DHCP_COMPLETE",
                           "PROVISIONING_RETRY_PASSWORD",
                           "PROVISIONING_ERROR",
                           "PROVISIONING_COMPLETE",
                           "17"};

row expected(int event, int state) {
    const std::string name = kNames[event];
    for (const row &each : kRows)
        if (each.event == event && each.states.find(std::to_string(state)) != std::string::npos)
            return each;
    return {event, "", kStay,
            std::string(state == TRAINING_MODE ? "Unhandled training event "
                                               : "Unhandled prov event ") +
                kNames[event] + "; "};
}

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
    // Posts and executes at the second `now`; what happened, and the state after it.
    static std::string run(int event, long now) {
        forget_commands();
        provisioning_state_machine(event);
        return tick(now);
    }
    static std::string tick(long now) {
        provisioning_timer_tick(now);
        std::string text = story("src/provisioning_sm");
        for (const auto &[what, word] : kWords)
            text = std::regex_replace(text, what, word);
        return text + std::to_string(provisioning_get_state());
    }
    const Bus bus_{answer};
};

TEST_F(ProvisioningMachine, EveryEventInEveryState) {
    const std::regex look_for_a_phone("hostapd_cli -ip2p0 all_sta; ");
    for (int event = 0; event <= 17; event++)
        for (int state = 0; state < 6; state++) {
            enter(state);
            const row wanted = expected(event, state);
            const long now = 1000 * (event * 10 + state);  // none debounces the next
            EXPECT_EQ(std::regex_replace(run(event, now), look_for_a_phone, ""),
                      wanted.story + std::to_string(wanted.next == kStay ? state : wanted.next))
                << kNames[event] << " in " << state;
        }
}

TEST_F(ProvisioningMachine, PhoneIsSeenOnceAndSentAway) {
    run(PROVISIONING_ACTIVATED, 100);
    EXPECT_EQ(tick(101), "hostapd_cli -ip2p0 all_sta; 1");
    fake("hostapd_cli", "echo 2:a:b:c:d:e");
    EXPECT_EQ(tick(102), "hostapd_cli -ip2p0 all_sta; say softapconnect; 1");
    EXPECT_EQ(tick(103), "1");
    EXPECT_THAT(run(PROVISIONING_ACTIVATED, 104),
                HasSubstr("hostapd_cli -iwlan1 disassociate 02:0a:0b:0c:0d:0e; say provstart"));
    run(PROVISIONING_NETWORK_CONFIG_RX, 105);
    EXPECT_EQ(tick(106), "2") << "looked for until there are settings";
    enter(1);
    tick(107);
    fake("hostapd_cli", "exit 1");
    EXPECT_THAT(run(PROVISIONING_ACTIVATED, 108),
                HasSubstr("; Could not disassociate uap client; say provstart"));
    fake("hostapd_cli", "echo 2:a:b:c:d:e");
    tick(109);
    enter(2);
    EXPECT_THAT(run(PROVISIONING_WACTIVATED, 110),
                HasSubstr("local\"}; hostapd_cli -iwlan1 disassociate 02:0a:0b:0c:0d:0e; AP down"));
}

TEST_F(ProvisioningMachine, ManufacturingTestEndsWithTheConnect) {
    run(MFG_WIFI_TEST, 100);
    run(PROVISIONING_NETWORK_CONFIG_RX, 101);
    const std::string request = R"(; 1 {"wifistat": {"wifi": 8}}; connect; )";
    EXPECT_THAT(run(PROVISIONING_WACTIVATED, 102), AllOf(HasSubstr(request), EndsWith("; 0")));
    enter(2);
    EXPECT_THAT(run(PROVISIONING_WACTIVATED, 103), HasSubstr(request));
    run(PROVISIONING_ACTIVATED, 104);  // the owner's own
    enter(2);
    EXPECT_THAT(run(PROVISIONING_WACTIVATED, 105), AllOf(Not(HasSubstr(request)), EndsWith("; 3")));
}

TEST_F(ProvisioningMachine, ToolsThatFail) {
    const struct {
        const char *tool, *script;
        int event, state;
        const char *ending;
    } cases[]{
        {"ifup", "exit 1", TRAIN_START, 0,
         "AP up; provisioning_train_start: failed to turn on softAP for training; 0"},
        {"ifup", "exit 1", PROVISIONING_ACTIVATED, 0, "AP up; 1"},
        {"ifup", "exit 1", PROVISIONING_WACTIVATED, 2,
         "ifup wlan0; network.last_prov_status 10; wifi = 10; " STAT("10") "btmanager " STAT(
             "10") "down; 1"},
        {"ifdown", "exit 1", PROVISIONING_WACTIVATED, 2,
         "AP down; network.last_prov_status 10; wifi = 10; " STAT("10") "btmanager " STAT(
             "10") "ifdown wlan0; hostapd_cli -ip2p0 all_sta; 1"},
        {"ifdown", "exit 1", TRAIN_ABORT, 5,
         "AP down; provisioning_train_stop: failed to stop softAP; say trainabort; 5"},
        {"ifdown", "exit 1", PROVISIONING_TIMEOUT, 1,
         "provisioning_stop: failed to stop softAP; ifdown wlan0; "
         "provisioning_stop: failed to stop stop station, log; provision saved; connect; wifi = 8; "
         "0"},
        {"provision", "exit 1", PROVISIONING_NETWORK_CONFIG_RX, 3,
         "provision given; network.last_prov_status 10; wifi = 10; " STAT("10") "btmanager " STAT(
             "10") "down; 1"},
    };
    long now = 0;
    for (const auto &row : cases) {
        enter(row.state);
        fake(row.tool, row.script);
        EXPECT_THAT(run(row.event, ++now), EndsWith(row.ending));
        fake(row.tool, "exit 0");
    }
    exchange_network_tarn_handle(nullptr);
    EXPECT_THAT(run(PROVISIONING_ACTIVATED, now),
                StartsWith("say provstart; "
                           R"(Error publishing {"event":"disconnect_local"} tarn request.; down)"));
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 0);
}

// Both sides are whole seconds, of which the milliseconds wrap within 32 bits.
TEST_F(ProvisioningMachine, AbortIsIgnoredInTheSecondOfTheStart) {
    for (const auto &[start, abort, state, texts] :
         {std::tuple(PROVISIONING_ACTIVATED, PROVISIONING_ABORT, "1", "prov abort"),
          std::tuple(TRAIN_START, TRAIN_ABORT, "5", "train abort")})
        for (const long now : {100L, 2147483L, 4294967L}) {
            enter(0);
            run(start, now);
            EXPECT_THAT(run(abort, now), EndsWith(state));
            EXPECT_TRUE(logged("ignoring abort due to button debounce timer"));
            EXPECT_TRUE(logged(std::string("ignoring ") + texts + " due to button debounce timer"));
            EXPECT_THAT(run(abort, now + 1), EndsWith("; 0"));
            run(start, now);
            EXPECT_THAT(run(abort, now + 30L * 24 * 3600), EndsWith("; 0"));
        }
}

TEST_F(ProvisioningMachine, TimesOutAfterTwentyMinutes) {
    run(PROVISIONING_ACTIVATED, 100);
    EXPECT_THAT(tick(1300), EndsWith("1"));
    EXPECT_THAT(tick(1301), StartsWith("PROVISIONING TIMEOUT; hostapd_cli"));
    EXPECT_THAT(tick(1301), AllOf(StartsWith("say provfail"), EndsWith("0")));
    enter(4);
    set_wifi_state_update_after_prov_done(0);
    run(PROVISIONING_ACTIVATED, 100);
    enter(4);
    run(PROVISIONING_COMPLETE, 101);
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 1);
    enter(1);
    EXPECT_EQ(tick(9999), "1") << "no deadline any more";
}

TEST_F(ProvisioningMachine, TrainingEndsByItsCounterUnlessTheAppIsThere) {
    for (const int start : {int{TRAIN_START}, int{TRAIN_DISCONNECT}}) {
        run(start, 100);  // its own tick counts
        for (int i = 1; i < 7200; i++) {
            ASSERT_NE(is_robot_training(), 0) << i;
            provisioning_timer_tick(200);
        }
        EXPECT_EQ(tick(200).substr(0, 7), "AP down");
        EXPECT_EQ(is_robot_training() + is_robot_provisioning(), 0);
        run(TRAIN_START, 300);
        run(TRAIN_CONNECT, 301);
        for (int i = 0; i < 7300; i++)
            provisioning_timer_tick(302);
        EXPECT_EQ(tick(303), "5");
    }
}

TEST_F(ProvisioningMachine, SevenPostsAreExecutedTheEighthLosesAll) {
    for (const int posts : {7, 8, 7}) {
        for (int i = 0; i < posts; i++)
            provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
        std::string refusals;
        for (int i = 0; i < 7 && posts == 7; i++)
            refusals += "Not able to retry password due to current state; ";
        EXPECT_EQ(tick(1), refusals + "0");
    }
    enter(1);
    provisioning_state_machine(PROVISIONING_ACTIVATED);
    provisioning_state_machine(PROVISIONING_ABORT);
    EXPECT_THAT(tick(100), EndsWith("1")) << "what was posted before a new start is forgotten";
}

}  // namespace
