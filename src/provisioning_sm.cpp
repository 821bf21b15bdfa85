#include "provisioning_sm.h"

#include <array>
#include <atomic>
#include <mutex>
#include <string>

#include "log.h"
#include "mqtt_client.h"
#include "network_utils.h"
#include "wifi_control.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/provisioning_sm"

namespace {

constexpr std::array kStateNames{
    "PS_NONE",
    "WAITING_FOR_NETWORK_CONFIG_RX",
    "WAITING_FOR_WACTIVATE",
    "WAITING_FOR_DHCP_COMPLETE",
    "WAITING_FOR_IP_DONE",
    "TRAINING_MODE",
};
static_assert(kStateNames.size() == TRAINING_MODE + 1);

constexpr std::array kEventNames{
    "PE_NONE",
    "MFG_WIFI_TEST",
    "TRAIN_START",
    "TRAIN_DISCONNECT",
    "TRAIN_CONNECT",
    "TRAIN_ABORT",
    "TRAIN_END",
    "PROVISIONING_ACTIVATED",
    "PROVISIONING_TIMEOUT",
    "PROVISIONING_ABORT",
    "PROVISIONING_NETWORK_CONFIG_RX",
    "PROVISIONING_NETWORK_STATIC_CONFIG_RX",
    "PROVISIONING_WACTIVATED",
    "PROVISIONING_DHCP_COMPLETE",
    "PROVISIONING_RETRY_PASSWORD",
    "PROVISIONING_ERROR",
    "PROVISIONING_COMPLETE",
};
static_assert(kEventNames.size() == PROVISIONING_COMPLETE + 1);

// A value outside its table prints as the number it is.
template <size_t N>
std::string name_of(const std::array<const char *, N> &names, int value) {
    return value >= 0 && static_cast<size_t>(value) < N ? names[static_cast<size_t>(value)]
                                                        : std::to_string(value);
}

// The ring of posted events. Eight slots hold seven events; the eighth post between two ticks makes
// it look empty, and what was posted is lost. It is never checked for being full, on purpose.
class EventRing {
  public:
    void post(int event) {
        int head;
        int tail;
        {
            const std::lock_guard guard(lock_);
            events_[static_cast<size_t>(tail_)] = event;
            tail_ = next(tail_);
            head = head_;
            tail = tail_;
        }
        LOGD("head index %d, tail index %d", head, tail);
    }

    bool take(int &event) {
        const std::lock_guard guard(lock_);
        if (head_ == tail_)
            return false;
        event = events_[static_cast<size_t>(head_)];
        head_ = next(head_);
        return true;
    }

  private:
    static constexpr int kSlots = 8;
    static constexpr int next(int index) { return (index + 1) % kSlots; }

    std::mutex lock_;
    std::array<int, kSlots> events_{};
    int head_ = 0;
    int tail_ = 0;
};

EventRing ring;
std::atomic<int> state{PS_NONE};  // written by the main thread only
std::mutex done_lock;
unsigned char done_flag = 0;

int current_state() {
    return state.load(std::memory_order_relaxed);
}
void enter(int new_state) {
    state.store(new_state, std::memory_order_relaxed);
}

void on_dhcp_complete() {
    constexpr char kIpDone[] = R"({"command":"ipdone"})";
    if (current_state() != WAITING_FOR_DHCP_COMPLETE)
        return;
    wifi_send_wifistat(0);
    wifi_send_netinfo(1);
    wifi_send_wlcfg_json();
    mqtt_client_send("local/cmd", sizeof kIpDone - 1, kIpDone);
    wifictl_save_nw_info_to_kvs();
    enter(WAITING_FOR_IP_DONE);
}

void on_retry_password() {
    if (current_state() == WAITING_FOR_DHCP_COMPLETE)
        wifi_select_sta_network();
    else
        LOGW("Not able to retry password due to current state");
}

void on_error() {
    if (current_state() == PS_NONE) {
        LOGW("Not able to transition to PROVISIONING_ERROR due to current state");
        return;
    }
    wifi_send_wifistat(1);
    wifi_network_disconnect();
    enter(WAITING_FOR_NETWORK_CONFIG_RX);
}

struct handler_row {
    provisioning_event event;
    void (*handle)();
};
constexpr std::array kHandlers{
    handler_row{PROVISIONING_DHCP_COMPLETE, on_dhcp_complete},
    handler_row{PROVISIONING_RETRY_PASSWORD, on_retry_password},
    handler_row{PROVISIONING_ERROR, on_error},
};

void execute(int event) {
    const bool out_of_provisioning = current_state() == PS_NONE || is_robot_training() != 0;
    if (event == PROVISIONING_ABORT && out_of_provisioning)
        return;
    LOGI("%s: rx event %s in state %s", "provisioning_state_machine_run",
         name_of(kEventNames, event).c_str(), name_of(kStateNames, current_state()).c_str());
    for (const auto &row : kHandlers)
        if (row.event == event) {
            row.handle();
            return;
        }
    LOGW("Unhandled prov event %s", name_of(kEventNames, event).c_str());
}

}  // namespace

int is_robot_provisioning() {
    const int now = current_state();
    return now != PS_NONE && now != TRAINING_MODE ? 1 : 0;
}

int is_robot_training() {
    return current_state() == TRAINING_MODE ? 1 : 0;
}

int is_wifi_state_update_after_prov_done() {
    const std::lock_guard guard(done_lock);
    return done_flag;
}

void set_wifi_state_update_after_prov_done(int value) {
    const std::lock_guard guard(done_lock);
    done_flag = static_cast<unsigned char>(value);
}

void provisioning_state_machine(int event) {
    ring.post(event);
}

void provisioning_handle_error(int code) {
    wifi_state_set_wifi(code);
    provisioning_state_machine(PROVISIONING_ERROR);
}

void provisioning_timer_tick(long /*now*/) {
    for (int event = PE_NONE; ring.take(event);)
        execute(event);
}
