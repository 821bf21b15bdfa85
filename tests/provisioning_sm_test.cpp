// The provisioning machine: what each event does in each state, in order, and what time does.
#include "provisioning_sm.h"

#include <sstream>

#include "bus.h"
#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "provisioning_state.h"
#include "wifi_connect.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

// What a line of the log that has this text stands for in a story; "$" is the line's last word.
// A line that has none of these is left out.
constexpr std::pair<const char *, const char *> kWords[] = {
    {"$ ifdown wlan0", "sta-"},
    {"$ ifup wlan0", "sta+"},
    {"SoftAP is down", "ap-"},
    {"SoftAP is up", "ap+"},
    {"provisioning_stop: failed to stop softAP", "ap!"},
    {"provisioning_train_stop: failed to stop softAP", "ap!"},
    {"provisioning_train_start: failed to turn on softAP for training", "ap!"},
    {"provisioning_stop: failed to stop stop station", "sta!"},
    {"$ provision --clmode", "ip"},
    {"$ hostapd_cli -iwlan1 disassociate 02:03:04:05:06:07", "phone-"},
    {"$ wpa_cli -iwlan0 select_network 0", "select"},
    {"setting network.last_prov_status to ", "status$"},
    {"setting network.ssid to ", "ssid$"},
    {"topic network/events, message {\"wifistat\":", "wifistat"},
    {"topic network/events, message {\"netinfo\":", "netinfo"},
    {"topic network/events, message {\"wlcfg\":", "wlcfg"},
    {"topic local/cmd, message {\"command\":\"ipdone\"}", "ipdone"},
    {"topic robot/debug, message {\"command\":\"", "$"},
    {"tarn/5/req {\"event\":\"disconnect_local\"}", "local-"},
    {"tarn/1/req {\"wifistat\": {\"wifi\": 8}}", "test8"},
    {"tarn/2/event {\"event\":\"resetCloudConnection\"}", "cloud"},
    {"Provisioning re-started while in state ", "again"},
    {"provisioning started", "$"},
    {"provisioning stopped in state ", "stopped$"},
    {"prov-fail-wifilog.gz.base64\") now", "captured"},
    {"Error unexpected event PROVISIONING_WACTIVATED , ignoring", "refused"},
    {"Not able to retry password due to current state", "refused"},
    {"Not able to transition to PROVISIONING_ERROR due to current state", "refused"},
    {"ignoring abort due to button debounce timer", "bounce"},
    {"ignoring prov abort due to button debounce timer", "prov"},
    {"ignoring train abort due to button debounce timer", "train"},
    {"Unhandled prov event ", "unhandled-prov"},
    {"Unhandled training event ", "unhandled-training"},
    {"provisioning state ", "->$"},
};

std::string word_for(const std::string &line) {
    for (const auto &[text, pattern] : kWords)
        if (line.find(text) != line.npos) {
            std::string word = pattern;
            if (word.back() != '$')
                return word;
            const size_t end = line.find_last_not_of("\"}") + 1;
            const size_t start = line.find_last_of(" \"", end - 1) + 1;
            return word.replace(word.size() - 1, 1, line, start, end - start);
        }
    return "";
}

class ProvisioningMachine : public WifiRobot {
  protected:
    void SetUp() override {
        WifiRobot::SetUp();
        fake("sudo",
             "logger -- \"$ $*\"\n"
             "case $* in \"$(cat /tmp/fails)\"*) exit 1; esac\n"
             "exec \"$@\"");
        write_file("/tmp/fails", "nothing");
        write_file("/opt/halvik/bin/wifilogs.sh", "#!/run/fakes/dash\n", 0755);
        app_ = mqtt_app_create("test");
        const char *const topics[] = {"#", nullptr};
        mqtt_app_init(app_, topics, [](mqtt_app *, const mqtt_app_message *) {});
        exchange_mqtt_app(app_);
        wifi_init_wifistat();
        wifictl_set_ssid("41");
        wifictl_set_ip_config("sudo provision --clmode dhcp \n");
        wifictl_save_nw_info_to_kvs();
    }
    void TearDown() override {
        mqtt_app_exit(exchange_mqtt_app(nullptr));
        WifiRobot::TearDown();
    }

    // The story of an event that is executed at the second `now`, and of what it leads to.
    std::string run(int event, long now) {
        forget_log();
        provisioning_state_machine(event);
        provisioning_timer_tick(now);
        std::istringstream log(log_text());
        std::string story;
        for (std::string line; std::getline(log, line);)
            if (const std::string word = word_for(line); !word.empty())
                story += (story.empty() ? "" : " ") + word;
        return story;
    }

  private:
    mqtt_app *app_ = nullptr;
    Bus bus_{[](const std::string &topic, const std::string &text) {
        log_format(nullptr, LOG_LEVEL_DBG, "test", __LINE__, "%s %s",
                   topic.substr(0, topic.find("/network/")).c_str(), text.c_str());
        return std::optional<std::string>("ok");
    }};
};

TEST_F(ProvisioningMachine, DoesWhatAnEventMeansInAState) {
    const std::string home = "->PS_NONE ip sta- sta+";
    const std::string train = "sta- ap+ trainstart ->TRAINING_MODE";
    const std::string config_rx = "->WAITING_FOR_NETWORK_CONFIG_RX";
    const std::string error = " wifistat sta- " + config_rx;
    constexpr char kAp[] = "ifdown wlan1";
    constexpr char kSta[] = "ifdown wlan0";
    const struct {
        provisioning_state from;
        int event;
        std::string story;
        const char *fails = "nothing";
    } rows[] = {
        {PS_NONE, MFG_WIFI_TEST, "sta- " + config_rx + " unhandled-prov"},
        {TRAINING_MODE, MFG_WIFI_TEST, "sta- " + config_rx + " unhandled-prov"},
        {PS_NONE, TRAIN_START, train},
        {PS_NONE, TRAIN_START, "sta- ap!", kAp},
        {WAITING_FOR_IP_DONE, TRAIN_START,
         "provabort ap- sta- stopped4 captured ->PS_NONE " + train},
        {TRAINING_MODE, TRAIN_START, ""},
        {PS_NONE, PROVISIONING_ACTIVATED, "provstart local- sta- ap+ started " + config_rx},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_ACTIVATED,
         "again provstart local- sta- started " + config_rx},
        {TRAINING_MODE, PROVISIONING_ACTIVATED,
         "ap- ->PS_NONE trainabort provstart local- sta- ap+ started " + config_rx},
        {TRAINING_MODE, PROVISIONING_ACTIVATED,
         "ap! trainabort again provstart local- sta- started " + config_rx, kAp},
        {PS_NONE, PROVISIONING_TIMEOUT, ""},
        {WAITING_FOR_WACTIVATE, PROVISIONING_TIMEOUT,
         "provfail ap- sta- stopped2 captured " + home},
        {WAITING_FOR_WACTIVATE, PROVISIONING_TIMEOUT, "provfail ap! sta- stopped2 captured " + home,
         kAp},
        {TRAINING_MODE, PROVISIONING_TIMEOUT, "unhandled-training"},
        {PS_NONE, PROVISIONING_ABORT, ""},
        {TRAINING_MODE, PROVISIONING_ABORT, ""},
        {WAITING_FOR_NETWORK_CONFIG_RX, PROVISIONING_ABORT,
         "provabort ap- sta- stopped1 captured " + home},
        {WAITING_FOR_NETWORK_CONFIG_RX, PROVISIONING_ABORT,
         "provabort ap- sta- sta! stopped1 captured " + home, kSta},
        {PS_NONE, PROVISIONING_NETWORK_CONFIG_RX, "ip wlcfg ->WAITING_FOR_WACTIVATE"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_NETWORK_CONFIG_RX, "ip wlcfg"},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_NETWORK_STATIC_CONFIG_RX,
         "sta- ip wlcfg ->WAITING_FOR_WACTIVATE"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_NETWORK_CONFIG_RX, "ip status10" + error, "provision"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_WACTIVATED,
         "local- ap- status8 wifistat sta- sta+ status8 ->WAITING_FOR_DHCP_COMPLETE"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_WACTIVATED,
         "local- ap- status8 wifistat sta- sta+ status10 ->WAITING_FOR_DHCP_COMPLETE" + error,
         "ifup"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_WACTIVATED,
         "local- status10 ->WAITING_FOR_DHCP_COMPLETE" + error, kAp},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_WACTIVATED, "refused"},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_DHCP_COMPLETE,
         "wifistat netinfo wlcfg ipdone ssid41 ->WAITING_FOR_IP_DONE"},
        {WAITING_FOR_WACTIVATE, PROVISIONING_DHCP_COMPLETE, ""},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_RETRY_PASSWORD, "select"},
        {WAITING_FOR_IP_DONE, PROVISIONING_RETRY_PASSWORD, "refused"},
        {WAITING_FOR_IP_DONE, PROVISIONING_ERROR, error.substr(1)},
        {PS_NONE, PROVISIONING_ERROR, "refused"},
        {WAITING_FOR_IP_DONE, PROVISIONING_COMPLETE, "cloud ->PS_NONE ap-"},
        {WAITING_FOR_DHCP_COMPLETE, PROVISIONING_COMPLETE, "ap-"},
        {WAITING_FOR_DHCP_COMPLETE, TRAIN_CONNECT, "unhandled-prov"},
        {TRAINING_MODE, TRAIN_CONNECT, "trainconnect"},
        {TRAINING_MODE, TRAIN_DISCONNECT, "traindisconnect"},
        {TRAINING_MODE, TRAIN_ABORT, "ap- ip sta- sta+ ->PS_NONE trainabort"},
        {TRAINING_MODE, TRAIN_END, "ap- ip sta- sta+ ->PS_NONE traindone"},
        {TRAINING_MODE, TRAIN_END, "ap! traindone", kAp},
    };
    long now = 1000;
    for (const auto &row : rows) {
        wifi_network_disconnect();
        provisioning_enter_state(row.from);
        wifi_state_set_uap(row.from != PS_NONE);
        write_file("/tmp/fails", row.fails);
        EXPECT_EQ(run(row.event, now += 2), row.story)
            << provisioning_state_name(row.from) << ", event " << row.event;
        write_file("/tmp/fails", "nothing");
        EXPECT_EQ(times_logged("rx event PROVISIONING_ABORT"),
                  row.event == PROVISIONING_ABORT && !row.story.empty());
    }
}

TEST_F(ProvisioningMachine, APhoneIsMetAndSentAway) {
    fake("hostapd_cli", "echo 02:03:04:05:06:07");
    const std::string start = "provstart local- sta- ";
    const std::string started = "started ->WAITING_FOR_NETWORK_CONFIG_RX softapconnect";
    EXPECT_EQ(run(PROVISIONING_ACTIVATED, 100), start + "ap+ " + started);
    EXPECT_EQ(run(PROVISIONING_NETWORK_CONFIG_RX, 101), "ip wlcfg ->WAITING_FOR_WACTIVATE");
    set_wifi_state_update_after_prov_done(1);
    EXPECT_EQ(run(PROVISIONING_ACTIVATED, 102), "again phone- " + start + started);
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 0);
    run(PROVISIONING_NETWORK_CONFIG_RX, 103);
    EXPECT_EQ(run(PROVISIONING_WACTIVATED, 104),
              "local- phone- ap- status8 wifistat sta- sta+ status8 ->WAITING_FOR_DHCP_COMPLETE");
    run(PROVISIONING_DHCP_COMPLETE, 105);
    run(PROVISIONING_COMPLETE, 106);
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 1);
    run(PROVISIONING_ACTIVATED, 107);
    run(PROVISIONING_ABORT, 108);
    EXPECT_EQ(run(PROVISIONING_ACTIVATED, 109), start + "ap+ " + started);
    provisioning_state_machine(PROVISIONING_ACTIVATED);  // a restart discards what is posted after
    EXPECT_EQ(run(PROVISIONING_NETWORK_CONFIG_RX, 110),
              "again phone- " + start + "started softapconnect");
}

TEST_F(ProvisioningMachine, AManufacturingTestEndsWithTheConnect) {
    const std::string connect = "local- ap- status8 wifistat ";
    for (const auto &[event, end] :
         {std::pair(MFG_WIFI_TEST, "test8 sta- sta+ status8 ->PS_NONE"),
          std::pair(PROVISIONING_ACTIVATED, "sta- sta+ status8 ->WAITING_FOR_DHCP_COMPLETE")}) {
        run(event, 100);
        run(PROVISIONING_NETWORK_CONFIG_RX, 101);
        EXPECT_EQ(run(PROVISIONING_WACTIVATED, 102), connect + end);
    }
}

TEST_F(ProvisioningMachine, AButtonIsIgnoredInTheSecondOfTheStart) {
    run(PROVISIONING_ACTIVATED, 100);
    EXPECT_EQ(run(PROVISIONING_ABORT, 100), "bounce prov");
    EXPECT_NE(is_robot_provisioning(), 0);
    run(TRAIN_START, 101);
    EXPECT_EQ(run(TRAIN_ABORT, 101), "bounce train");
    EXPECT_NE(is_robot_training(), 0);
    run(TRAIN_ABORT, 102);
    run(MFG_WIFI_TEST, 102);
    run(PROVISIONING_ABORT, 30L * 24 * 3600);  // the milliseconds have wrapped since the start
    EXPECT_EQ(is_robot_provisioning(), 0);
}

TEST_F(ProvisioningMachine, TimesOutAfterTwentyMinutes) {
    run(PROVISIONING_ACTIVATED, 100);
    provisioning_timer_tick(1300);
    EXPECT_EQ(times_logged("PROVISIONING TIMEOUT"), 0);
    provisioning_timer_tick(1301);
    provisioning_timer_tick(1302);
    EXPECT_TRUE(logged("rx event PROVISIONING_TIMEOUT in state WAITING_FOR_NETWORK_CONFIG_RX"));
    EXPECT_EQ(is_robot_provisioning(), 0);
    for (const int end : {TRAIN_START, PROVISIONING_COMPLETE}) {  // no time-out of one that ended
        run(PROVISIONING_ACTIVATED, 2000);
        provisioning_enter_state(WAITING_FOR_IP_DONE);
        run(end, 2001);
        run(TRAIN_START, 2002);
        provisioning_timer_tick(9000);
        EXPECT_EQ(times_logged("PROVISIONING TIMEOUT"), 0);
    }
}

TEST_F(ProvisioningMachine, TrainingEndsByItsCounterUnlessTheAppIsThere) {
    const auto ticks = [](int count) {
        for (int i = 0; i < count; i++)
            provisioning_timer_tick(200);
    };
    run(TRAIN_START, 100);
    run(TRAIN_CONNECT, 101);
    ticks(7300);
    EXPECT_NE(is_robot_training(), 0);
    run(TRAIN_DISCONNECT, 102);
    ticks(7198);
    EXPECT_NE(is_robot_training(), 0);
    ticks(2);
    EXPECT_EQ(is_robot_training(), 0);
}

}  // namespace
