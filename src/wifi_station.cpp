#include "wifi_station.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "log.h"
#include "pthread_utils.h"
#include "wifi_control.h"

#define LOG_SOURCE "src/wifi_control"

namespace {

// First come, first served: whose place is at the front owns the station.
class Queue {
  public:
    uint32_t join() {
        const std::lock_guard guard(lock_);
        if (++last_ == 0)
            last_ = 1;  // 0 is no place
        places_.push_back(last_);
        return last_;
    }
    void wait_for_turn(uint32_t place) {
        std::unique_lock guard(lock_);
        moved_.wait(guard, [&] { return !places_.empty() && places_.front() == place; });
    }
    void leave(uint32_t place) {
        const std::lock_guard guard(lock_);
        std::erase(places_, place);
        moved_.notify_all();
    }

  private:
    std::mutex lock_;
    std::condition_variable moved_;
    std::deque<uint32_t> places_;
    uint32_t last_ = 0;
};

Queue &queue() {
    static auto *const forever = new Queue;  // detached threads outlive static storage
    return *forever;
}

// How deep this thread is in its operation, and the place that it has for it.
thread_local unsigned depth = 0;
thread_local uint32_t own_place = 0;

std::mutex restart_lock;                   // one request for a restart at a time
std::atomic<uint32_t> waiting_restart{0};  // the place of the one that has not begun; 0 for none

void *restart_main(void * /*unused*/) {
    const StationOperation operation(waiting_restart);
    waiting_restart = 0;  // from here on a request is one for another restart
    wifi_network_reconnect();
    return nullptr;
}

}  // namespace

StationOperation::StationOperation() {
    if (depth++ > 0)
        return;
    own_place = queue().join();
    queue().wait_for_turn(own_place);
}

StationOperation::StationOperation(uint32_t place) {
    depth++;
    own_place = place;
    queue().wait_for_turn(place);
}

StationOperation::~StationOperation() {
    if (--depth == 0)
        queue().leave(own_place);
}

void wifi_station_request_restart() {
    const std::lock_guard guard(restart_lock);
    if (waiting_restart != 0)
        return;
    // The place is taken here, for the order to be that of the requests.
    const uint32_t place = queue().join();
    waiting_restart = place;
    if (pthread_create_detached_thread(nullptr, restart_main, nullptr, "net_restart") == 0)
        return;
    waiting_restart = 0;
    queue().leave(place);
    LOGE("failed to restart the network");
}
