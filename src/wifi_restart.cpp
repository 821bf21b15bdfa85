#include "wifi_restart.h"

#include <atomic>
#include <mutex>

#include "log.h"
#include "pthread_utils.h"
#include "wifi_connect.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

std::mutex restart_lock;                   // one request for a restart at a time
std::atomic<uint32_t> waiting_restart{0};  // the place of the one that has not begun; 0 for none

void *restart_main(void * /*unused*/) {
    const StationOperation operation(waiting_restart);
    waiting_restart = 0;  // from here on a request is one for another restart
    wifi_network_reconnect();
    return nullptr;
}

}  // namespace

void wifi_station_request_restart() {
    const std::lock_guard guard(restart_lock);
    if (waiting_restart != 0)
        return;
    // The place is taken here, for the order to be that of the requests.
    const uint32_t place = wifi_station_take_place();
    waiting_restart = place;
    if (pthread_create_detached_thread(nullptr, restart_main, nullptr, "net_restart") == 0)
        return;
    waiting_restart = 0;
    wifi_station_leave_place(place);
    LOGE("failed to restart the network");
}
