#include "wifi_station.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>

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
    uint32_t served() {
        const std::lock_guard guard(lock_);
        return places_.empty() ? 0 : places_.front();
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

uint32_t wifi_station_take_place() {
    return queue().join();
}
uint32_t wifi_station_served_place() {
    return queue().served();
}
void wifi_station_leave_place(uint32_t place) {
    queue().leave(place);
}
