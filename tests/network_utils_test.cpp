// The status messages as a listener on the robot's broker sees them.
#include "network_utils.h"

#include "log.h"
#include "main.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "robot.h"
#include "tarn/tarn.h"
#include "wifi_state.h"

namespace {

using testing::ElementsAre;

mqtt_app *app = nullptr;
tarn_lib *transport = nullptr;
std::mutex lock;
std::vector<std::string> seen;  // "topic payload"

// One connection listens to everything, delivers responses, and plays the Bluetooth manager.
void on_message(mqtt_app *, const mqtt_app_message *message) {
    constexpr std::string_view kRequest = "tarn/btmanager/req/network/";
    std::string topic = message->topic;
    if (topic.starts_with("tarn/network/")) {
        if (tarn_req *request = tarn_get_req_handle_using_topic(transport, message->topic))
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
        mqtt_app_exit(app);
        tarn_lib_exit(transport);
        if (loop_.joinable())
            loop_.join();
    }
    void listen() {
        const char *const topics[] = {"#", nullptr};
        app = mqtt_app_create("listener");
        ASSERT_EQ(mqtt_app_init(app, topics, on_message), 0);
        transport = network_tarn_init();
        loop_ = std::thread([] { mqtt_app_run(app); });
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
    static std::string netinfo_text(int fresh) {
        char text[kStatusTextSize] = "old";
        const int16_t length = make_wifi_netinfo_json(text, fresh);
        EXPECT_TRUE(length == static_cast<int>(strlen(text)) || length == 0);
        return text;
    }

  private:
    std::thread loop_;
};

TEST_F(StatusMessages, NetinfoIsRefreshedFromTheActiveInterface) {
    for (const char *command :
         {"ip link add wlan0 type veth peer name wlan1", "ip addr add 192.0.2.2/25 dev wlan0",
          "ip addr add 198.51.100.1/24 dev wlan1", "ip link set wlan0 up", "ip link set wlan1 up",
          "ip route add default via 192.0.2.1"})
        ASSERT_EQ(system(command), 0) << command;
    const std::string servers = "nameserver 192.0.2.53\nnameserver 9.9.9.9\nnameserver 1.1.1.1\n";
    const std::string station = R"("192.0.2.2","mask":"255.255.255.128","gw":"192.0.2.1",)";
    const std::string soft_ap = R"("198.51.100.1","mask":"255.255.255.0","gw":"192.0.2.1",)";
    const std::string no_servers = R"("dns1":"0.0.0.0","dns2":"0.0.0.0")";
    const std::string rows[][3] = {
        {"wlan0", servers, station + R"("dns1":"192.0.2.53","dns2":"9.9.9.9")"},
        {"wlan1", servers, soft_ap + no_servers},
        {"wlan0", "nameserver 9.9.9.9\nnameserver fe80::1\n", station + no_servers}};
    char bssid[] = "0A:b:C:d:E:ff";
    wifi_netinfo_set_bssid(bssid);
    wifictl_set_sec_type("WPA2-PSK");
    for (const auto &[interface, resolv_conf, addresses] : rows) {
        kvs_set("network.interface", interface);
        write_file("/etc/resolv.conf", resolv_conf);
        EXPECT_EQ(netinfo_text(1), R"({"netinfo":{"dhcp":true,"addr":)" + addresses +
                                       R"(,"bssid":"0a:0b:0c:0d:0e:ff","sec":4}})");
    }
    EXPECT_TRUE(logged("pex_net_get_nameservers failed"));
    kvs_set("network.interface", "absent0");
    EXPECT_THAT(netinfo_text(1), testing::HasSubstr(R"("gw":"0.0.0.0")"));
    EXPECT_THAT(netinfo_text(0),
                testing::HasSubstr(R"("addr":"0.0.0.0","mask":"255.255.255.128")"));
    unlink(kvs_path("network.interface").c_str());
    EXPECT_EQ(netinfo_text(1), "old");
    EXPECT_TRUE(logged("wifi_read_netinfo: failed to get interface"));
    EXPECT_TRUE(logged("failed to get netinfo"));
}

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
    EXPECT_TRUE(logged("Sending wifistat to bluetooth manager"));
    EXPECT_EQ(times_logged("network_send_tarn_req() failed"), 0);
}

TEST_F(StatusMessages, WlcfgIsSentWholeOrNotAtAll) {
    const Broker broker;
    listen();
    EXPECT_EQ(wifi_send_wlcfg_json(), 0);  // nothing is saved
    const std::string head = R"(network/events {"wlcfg":{"sec":7,"ssid":")";
    const std::string zeros = R"(,"addr":"0.0.0.0","mask":"255.255.255.255","gw":"0.0.0.0",)"
                              R"("dns1":"0.0.0.0","dns2":"0.0.0.0"}})";
    const std::string longest(255 - strlen(R"({"wlcfg":{"sec":7,"ssid":""}})"), 'a');
    const struct {
        int dhcp;
        std::string ssid, text;  // as stored, as published
    } rows[] = {
        {1, "4142", "4142\"}}"},
        {0, std::string(64, '4'), std::string(64, '4') + '"' + zeros},
        {1, longest, longest + "\"}}"},
        {1, "a\"b\\c\x01\u00e9", "a\\\"b\\\\c\\u0001\u00e9\"}}"},  // by another process
    };
    for (const auto &row : rows) {
        wifi_set_addr_type(static_cast<uint8_t>(row.dhcp));
        kvs_set("network.ssid", row.ssid + "\n");
        const auto length = static_cast<int8_t>(head.size() - 15 + row.text.size());
        EXPECT_EQ(wifi_send_wlcfg_json(), length) << row.ssid;
        EXPECT_THAT(published(1), ElementsAre(head + row.text));
    }
    for (const auto &ssid : {longest + "a", std::string(100'000, 'a'), std::string("\xff\xfe")}) {
        kvs_set("network.ssid", ssid);
        EXPECT_EQ(wifi_send_wlcfg_json(), 0);
    }
    EXPECT_TRUE(eventually([&] {
        return times_logged("message truncated, wlcfg not sent") == 2 &&
               times_logged("cannot load ssid") == 2;
    }));
    send_command_to_robot("done");
    EXPECT_THAT(published(1), ElementsAre(R"(robot/debug {"command":"done"})"));
}

}  // namespace

// The program core's handles; this program has no other part of it.
log_handle *get_log_handle() {
    return nullptr;
}
mqtt_app *get_mqtt_app() {
    return app;
}
tarn_lib *get_network_tarn_handle() {
    return transport;
}
