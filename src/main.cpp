#include "main.h"

#include <atomic>

#include "log.h"

namespace {

std::atomic<log_handle *> log_of_process{nullptr};
std::atomic<mqtt_app *> broker{nullptr};
std::atomic<tarn_lib *> transport{nullptr};

}  // namespace

log_handle *get_log_handle() {
    return log_of_process.load(std::memory_order_acquire);
}
mqtt_app *get_mqtt_app() {
    return broker.load(std::memory_order_acquire);
}
tarn_lib *get_network_tarn_handle() {
    return transport.load(std::memory_order_acquire);
}
