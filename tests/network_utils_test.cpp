// The status messages, as the broker and the Bluetooth manager get them.
#include "network_utils.h"

#include "bus.h"
#include "mqtt_client.h"
#include "process_handles.h"
#include "robot.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

enum : uint8_t { kStatic = 0, kDhcp = 1 };

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    Robot::add_to_commands(topic.substr(0, topic.rfind('/')) + " " + text);
    return "ok";
}

class StatusMessages : public Robot {
  protected:
    StatusMessages() {
        wifi_init_netinfo();
        wifi_init_wifistat();
        exchange_mqtt_app(mqtt_client_init([](auto...) {}));
        tell_stories();
    }
};

TEST_F(StatusMessages, ReachTheirTopicsToTheLetter) {
    const Bus bus(answer);
    const std::string kEvents = "network/events ", kManager = "tarn/btmanager/req/network ";
    const std::string none = R"({"netinfo":{"dhcp":true,"addr":"0.0.0.0","mask":"255.255.255.255",)"
                             R"("gw":"0.0.0.0","dns1":"0.0.0.0","dns2":"0.0.0.0",)"
                             R"("bssid":"00:00:00:00:00:00","sec":7}})";
    const std::string home =
        R"({"netinfo":{"dhcp":false,"addr":"192.0.2.2","mask":"255.255.255.0",)"
        R"("gw":"192.0.2.1","dns1":"1.1.1.1","dns2":"8.8.8.8",)"
        R"("bssid":"02:ab:00:00:03:f0","sec":4}})";
    const std::string off = R"({"wifistat":{"wifi":-1,"uap":false}})";
    const std::string on = R"({"wifistat":{"wifi":-1,"uap":true}})";
    const std::string soft_ap = kEvents + on + "\nbrisk/robot/events " + on + "\n";
    std::array<char, kStatusTextSize> text{"as it was"};
    const auto make_fresh = [&] { return make_wifi_netinfo_json(text.data(), 1); };
    EXPECT_EQ(make_fresh(), 0) << "there is no interface";
    EXPECT_STREQ(text.data(), "as it was");
    const struct {
        std::function<int()> send;
        size_t result;
        std::string story;
    } messages[] = {
        {[] { return wifi_send_netinfo(0); }, 1, kEvents + none + "\n"},
        {[] { return wifi_send_wifistat(0); }, 1,
         kEvents + off + "\nbrisk/robot/events " + off + "\n"},
        {[] { return wifi_state_set_uap(1), 0; }, 0, "network.interface wlan1\n"},
        {[] { return wifi_send_wifistat(1); }, 1, soft_ap + kManager + on + "\n"},
        {[] {
             give_address();
             write_file("/etc/resolv.conf", "nameserver 1.1.1.1\nnameserver 8.8.8.8\n");
             char bssid[] = "02:AB:00:00:03:F0";
             wifi_netinfo_set_bssid(bssid);
             wifictl_set_sec_type("WPA2-PSK");
             wifi_set_addr_type(kStatic);
             return 0;
         },
         0, ""},
        {make_fresh, home.size(), ""},
        {[&] { return home.compare(text.data()); }, 0, ""},
        {[] { return wifi_send_netinfo(1); }, 1, kEvents + home + "\n" + kManager + home + "\n"},
        {[] { return exchange_network_tarn_handle(nullptr), wifi_send_wifistat(1); }, 1,
         soft_ap + "network_send_tarn_req() failed\n"},
        {[] { return send_command_to_robot("provstart"), 0; }, 0,
         "robot/debug {\"command\":\"provstart\"}\n"},
        {[] { return wifi_send_signal_levels(0); }, 43,
         kEvents + "{\"signal\":{\"rssi\":-90,\"snr\":0,\"noise\":-90}}\n"},
    };
    for (const auto &each : messages) {
        forget_commands();
        EXPECT_EQ(static_cast<size_t>(each.send()), each.result) << each.story;
        EXPECT_EQ(story("src/network_utils"), each.story);
    }
}

TEST_F(StatusMessages, WlcfgIsSentWholeOrNotAtAll) {
    const std::string addresses = R"(,"addr":"0.0.0.0","mask":"255.255.255.255","gw":"0.0.0.0",)"
                                  R"("dns1":"0.0.0.0","dns2":"0.0.0.0")";
    const std::string kHead = R"({"wlcfg":{"sec":7,"ssid":)";
    const std::string longest(255 - kHead.size() - 4, 'a');
    const std::string longest_static(longest.size() - addresses.size(), 'a');
    const struct {
        std::string ssid;
        uint8_t type;
        std::string rest;  // none: not sent
        std::string complaint;
    } rows[] = {
        {"486f6d65\n", kDhcp, R"("486f6d65"}})", ""},
        {"486f6d65", kStatic, "\"486f6d65\"" + addresses + "}}", ""},
        {longest, kDhcp, "\"" + longest + "\"}}", ""},
        {longest + "a", kDhcp, "", "message truncated, wlcfg not sent\n"},
        {longest_static, kStatic, "\"" + longest_static + "\"" + addresses + "}}", ""},
        {longest_static + "a", kStatic, "", "message truncated, wlcfg not sent\n"},
        {std::string(100'000, 'a'), kStatic, "", "message truncated, wlcfg not sent\n"},
        // Texts of other processes.
        {"a\"b\\c\x01\u00e9", kDhcp, "\"a\\\"b\\\\c\\u0001\u00e9\"}}", ""},
        {"\xff\xfe", kDhcp, "", "cannot load ssid\n"},
        {"", kDhcp, "", "cannot load ssid\n"},
    };
    for (const auto &row : rows) {
        kvs_set("network.ssid", row.ssid);
        wifi_set_addr_type(row.type);
        forget_commands();
        const size_t length = row.rest.empty() ? 0 : kHead.size() + row.rest.size();
        EXPECT_EQ(wifi_send_wlcfg_json(), static_cast<int8_t>(length)) << row.ssid.substr(0, 300);
        const std::string sent =
            row.rest.empty() ? "" : "network/events " + kHead + row.rest + "\n";
        EXPECT_EQ(story("src/network_utils"), sent + row.complaint);
    }
}

}  // namespace
