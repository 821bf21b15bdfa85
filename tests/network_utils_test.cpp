// The status messages as a listener on the robot's broker sees them.
#include "network_utils.h"

#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "robot.h"
#include "tarn/tarn.h"
#include "wifi_netinfo.h"
#include "wifi_state.h"

namespace {

using testing::ElementsAre;

std::mutex lock;
std::vector<std::string> seen;  // "topic payload"

// One connection listens to everything, delivers responses, and plays the Bluetooth manager.
void on_message(mqtt_app *app, const mqtt_app_message *message) {
    constexpr std::string_view kRequest = "tarn/btmanager/req/network/";
    std::string topic = message->topic;
    if (topic.starts_with("tarn/network/")) {
        if (tarn_req *request =
                tarn_get_req_handle_using_topic(get_network_tarn_handle(), message->topic))
            tarn_complete_transfer(request, message->payload);
        return;
    }
    const bool is_request = topic.starts_with(kRequest);
    if (is_request) {
        topic.replace(0, kRequest.size(), "tarn/network/resp/btmanager/");
        mqtt_app_publish(app, topic.c_str(), 2, "ok");
    }
    const std::lock_guard guard(lock);
    seen.push_back((is_request ? "btmanager " : topic + " ") + message->payload);
}

class StatusMessages : public Robot {
  protected:
    StatusMessages() {
        wifi_init_netinfo();
        wifi_init_wifistat();
    }
    ~StatusMessages() override {
        mqtt_app_exit(exchange_mqtt_app(nullptr));
        tarn_lib_exit(exchange_network_tarn_handle(nullptr));
        if (loop_.joinable())
            loop_.join();
    }
    void listen() {
        const char *const topics[] = {"#", nullptr};
        exchange_mqtt_app(mqtt_app_create("listener"));
        ASSERT_EQ(mqtt_app_init(get_mqtt_app(), topics, on_message), 0);
        exchange_network_tarn_handle(network_tarn_init());
        loop_ = std::thread(mqtt_app_run, get_mqtt_app());
    }
    // What was published since the last call, once `count` messages came.
    static std::vector<std::string> published(size_t count) {
        eventually([&] {
            const std::lock_guard guard(lock);
            return seen.size() >= count;
        });
        const std::lock_guard guard(lock);
        return std::exchange(seen, {});
    }

  private:
    std::thread loop_;
};

TEST_F(StatusMessages, ReachTheirTopicsToTheLetter) {
    const Broker broker;
    listen();
    wifi_state_set_uap(1);
    EXPECT_EQ(wifi_send_netinfo(0), 1);
    EXPECT_EQ(wifi_send_wifistat(1), 1);
    send_command_to_robot("provstart");
    EXPECT_EQ(wifi_send_signal_levels(0), 43);
    EXPECT_THAT(
        published(6),
        ElementsAre(R"(network/events {"netinfo":{"dhcp":true,"addr":"0.0.0.0",)"
                    R"("mask":"255.255.255.255","gw":"0.0.0.0","dns1":"0.0.0.0","dns2":"0.0.0.0",)"
                    R"("bssid":"00:00:00:00:00:00","sec":7}})",
                    R"(network/events {"wifistat":{"wifi":-1,"uap":true}})",
                    R"(brisk/robot/events {"wifistat":{"wifi":-1,"uap":true}})",
                    R"(btmanager {"wifistat":{"wifi":-1,"uap":true}})",
                    R"(robot/debug {"command":"provstart"})",
                    R"(network/events {"signal":{"rssi":-90,"snr":0,"noise":-90}})"));
}

TEST_F(StatusMessages, WlcfgIsSentWholeOrNotAtAll) {
    const Broker broker;
    listen();
    const std::string head = R"(network/events {"wlcfg":{"sec":7,"ssid":")";
    const std::string longest(255 - strlen(R"({"wlcfg":{"sec":7,"ssid":""}})"), 'a');
    const std::pair<std::string, std::string> rows[] = {
        {longest, longest + "\"}}"},
        {"a\"b\\c\x01\u00e9", "a\\\"b\\\\c\\u0001\u00e9\"}}"},  // by another process
    };
    for (const auto &[ssid, text] : rows) {
        kvs_set("network.ssid", ssid + "\n");
        EXPECT_EQ(wifi_send_wlcfg_json(), static_cast<int8_t>(head.size() - 15 + text.size()));
        EXPECT_THAT(published(1), ElementsAre(head + text));
    }
    for (const auto &ssid : {longest + "a", std::string(100'000, 'a'), std::string("\xff\xfe")}) {
        kvs_set("network.ssid", ssid);
        EXPECT_EQ(wifi_send_wlcfg_json(), 0);
    }
    send_command_to_robot("done");
    EXPECT_THAT(published(1), ElementsAre(R"(robot/debug {"command":"done"})"));
}

}  // namespace
