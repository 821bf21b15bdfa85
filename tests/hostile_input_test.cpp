// Every message of the inbound vocabulary, bent in every way a broken or hostile sender could: the
// daemon goes on, keeps no descriptor and no child, and can be provisioned afterwards. Its
// peers answer at once.
#include "bus.h"
#include "mqtt_dispatch.h"
#include "mqttapp/mqtt_app.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "vocabulary.h"
#include "wifi_robot.h"
#include "wifi_state.h"

namespace {

void receive(const std::string &topic, const std::string &payload) {
    const mqtt_app_message message{1, topic.c_str(), payload.data(),
                                   static_cast<int>(payload.size())};
    on_mqtt_app_message(nullptr, &message);
}

// The message with each member, and each member's member, taken out or given every wrong value.
void bend(json_t *object, const json_t *root, const std::function<void(const std::string &)> &use) {
    std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const std::string huge = "\"" + std::string(60'000, 'A') + "\"";
    const Json copy(json_copy(object));
    const char *key;
    json_t *value;
    json_object_foreach(copy.get(), key, value) {
        json_object_del(object, key);
        use(MallocText(json_dumps(root, 0)).get());
        for (const std::string &wrong :
             {std::string("null"), std::string("true"), std::string("0"), std::string("-1e300"),
              std::string("9223372036854775807"), std::string("\"\""), std::string("\"`reboot`\""),
              std::string("{}"), huge, deep}) {
            json_object_set_new(object, key, json_loads(wrong.c_str(), JSON_DECODE_ANY, nullptr));
            use(MallocText(json_dumps(root, 0)).get());
        }
        json_object_set(object, key, value);
        if (json_is_object(value))
            bend(value, root, use);
    }
}

class HostileInput : public WifiRobot {};

TEST_F(HostileInput, LeavesTheRobotProvisionable) {
    const Bus bus([](auto &, auto &) { return std::optional<std::string>("{}"); });
    for (const std::string topic : {"brisk/network/events", "tarn/network/req/3/7",
                                    "tarn/network/event/3/8", "tarn/network/resp/3/9"})
        for (const phrase &each : kVocabulary) {
            const std::string text = each.text;
            const Json root(json_loads(text.c_str(), 0, nullptr));
            const std::string inside = text.substr(1, text.size() - 2);
            bend(root.get(), root.get(), [&](const std::string &bent) { receive(topic, bent); });
            for (const std::string &raw :
                 {"{" + inside + "," + inside + "}", text.substr(0, text.size() / 2),
                  text + std::string(65'536 - text.size(), ' '), text + '\0' + text,
                  text.substr(0, 2) + "\xff" + text.substr(2), "[" + text + "]"})
                receive(topic, raw);
        }
    for (int i = 0; i < 1000; i++)
        receive("brisk/network/events", R"({"event":"provisioning"})");
    for (const char *command : {"reboot", "AAAA"})
        for (const auto &line : commands())
            EXPECT_EQ(line.find(command), std::string::npos) << line;
    provisioning_timer_tick(100);
    receive("brisk/network/events", R"({"event":"tidelinkConnected"})");
    receive("brisk/network/events", R"({"event":"provisioning"})");
    provisioning_timer_tick(200);
    EXPECT_NE(is_robot_provisioning(), 0);
}

}  // namespace
