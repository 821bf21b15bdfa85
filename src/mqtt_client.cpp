#include "mqtt_client.h"

#include <atomic>
#include <cstring>
#include <memory>

#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "process_handles.h"
#include "tarn/robot_processes.h"
#include "tarn/tarn.h"
#include "topics.h"

#define LOG_SOURCE "src/mqtt_client"

namespace {

constexpr int kResponseWaitS = 3;
constexpr int kEventFailure = 255;
constexpr const char *kTopics[] = {topic::kDebug, topic::kCommands, topic::kProcesses, nullptr};

std::atomic<int> nc_value{0};

struct RequestReleaser {
    void operator()(tarn_req *request) const { tarn_free_req_handle(request); }
};
using Request = std::unique_ptr<tarn_req, RequestReleaser>;

void on_connect(mqtt_app * /*app*/) {
    LOGI("on_connect callback: connected to broker");
}

// The request and event library sends with this. "Ivalid" is what tools on the log look for.
int tarn_send_mqtt_data_cb(void *fn_data, const char *topic, const char *text) {
    if (fn_data == nullptr) {
        LOGE("%s: Ivalid input for fn_data", "tarn_send_mqtt_data_cb");
        return 1;
    }
    mqtt_app_publish(static_cast<mqtt_app *>(fn_data), topic, static_cast<int>(strlen(text)), text);
    return 0;
}

Request alloc_request() {
    Request request(tarn_alloc_req_handle(get_network_tarn_handle()));
    if (!request)
        LOGE("tarn_alloc_req_handle failed");
    return request;
}

}  // namespace

mqtt_app *mqtt_client_init(void (*on_message)(mqtt_app *, const mqtt_app_message *)) {
    mqtt_app *const app = mqtt_app_create("network");
    if (app == nullptr)
        return nullptr;
    if (mqtt_app_init(app, kTopics, on_message) < 0) {
        mqtt_app_exit(app);
        return nullptr;
    }
    if (mqtt_app_register_on_connect_cb(app, on_connect) != 0) {
        LOGE("mqtt_app_register_on_connect_cb failed\n");
        mqtt_app_exit(app);
        return nullptr;
    }
    return app;
}

tarn_lib *network_tarn_init() {
    tarn_lib *const transport =
        tarn_lib_init(tarn_send_mqtt_data_cb, get_mqtt_app(), get_log_handle());
    if (transport == nullptr)
        LOGE("%s failed", "network_tarn_init");
    return transport;
}

int mqtt_client_send(const char *topic, int length, const char *text) {
    if (topic == nullptr)
        topic = topic::kStatus;
    if (const int error = mqtt_app_publish(get_mqtt_app(), topic, length, text)) {
        LOGE("%s error code %d", "mqtt_client_send", error);
        return -1;
    }
    LOGD("sent topic %s, message %s", topic, text);
    return 0;
}

int network_send_tarn_req(int destination, const char *text, char *response, size_t size) {
    const Request request = alloc_request();
    if (!request)
        return 1;
    if (tarn_transfer(request.get(), PROCESS_NETWORK, destination, text, response, size,
                      kResponseWaitS) == -1) {
        LOGE("tarn_transfer failed");
        return 1;
    }
    return 0;
}

int network_send_tarn_event(int destination, const char *text, int value) {
    const Request request = alloc_request();
    if (!request)
        return kEventFailure;
    if (tarn_event_transfer(request.get(), PROCESS_NETWORK, destination, text, value) == -1) {
        LOGE("tarn_event_transfer failed");
        return kEventFailure;
    }
    return 0;
}

int get_nc_val() {
    return nc_value.load(std::memory_order_relaxed);
}
void set_nc_val(int value) {
    nc_value.store(value, std::memory_order_relaxed);
}
