#include "process_handles.h"

#include <atomic>

namespace {

std::atomic<mqtt_app *> broker{nullptr};
std::atomic<tarn_lib *> transport{nullptr};

}  // namespace

mqtt_app *get_mqtt_app() {
    return broker.load(std::memory_order_acquire);
}
tarn_lib *get_network_tarn_handle() {
    return transport.load(std::memory_order_acquire);
}

mqtt_app *exchange_mqtt_app(mqtt_app *app) {
    return broker.exchange(app);
}
tarn_lib *exchange_network_tarn_handle(tarn_lib *made) {
    return transport.exchange(made);
}
