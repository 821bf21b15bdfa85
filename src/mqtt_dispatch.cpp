// The vocabulary of inbound messages. Everything runs on the broker thread, so nothing here may
// wait for a response that this thread would have to deliver.
#include "mqtt_dispatch.h"

#include <string>

#include "log.h"
#include "main.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "tarn/tarn.h"

#define LOG_SOURCE "src/mqtt_client"

namespace {

// One message while it is handled.
struct inbound {
    const char *topic;
    std::string payload;
    json_t *root;
};

void on_set_log_level(const inbound &message, json_t *value) {
    if (tarn_handle_set_log_level_request(get_network_tarn_handle(), get_log_handle(),
                                          message.topic, value) != 0)
        LOGE("tarn_handle_set_log_level_request failed");
}

void handle_transport_message(const inbound &message) {
    tarn_lib *const transport = get_network_tarn_handle();
    if (tarn_req *request = tarn_get_req_handle_using_topic(transport, message.topic)) {
        LOGD("tarn_complete_transfer");
        tarn_complete_transfer(request, message.payload.c_str());
        return;
    }
    if (json_t *level = json_object_get(message.root, "set_log_level"))
        on_set_log_level(message, level);
    else
        LOGE("Unsupported message");
}

}  // namespace

void on_mqtt_app_message(mqtt_app * /*app*/, const mqtt_app_message *message) {
    if (message->payload_len <= 0) {
        LOGD("%s (null)\n", message->topic);
        return;
    }
    inbound received{message->topic,
                     std::string(message->payload, static_cast<size_t>(message->payload_len)),
                     nullptr};
    LOGD("mqtt_client (network) rx (len = %d) %s %s\n", message->payload_len, received.topic,
         received.payload.c_str());
    const Json root(json_loads(received.payload.c_str(), 0, nullptr));
    if (!root) {
        LOGE("json_loads() failed");
        return;
    }
    received.root = root.get();
    int type = 0;
    if (get_tarn_message_type(get_network_tarn_handle(), received.topic, &type) == 0)
        handle_transport_message(received);
}
