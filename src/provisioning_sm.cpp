#include "provisioning_sm.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "log.h"
#include "mqtt_client.h"
#include "network_utils.h"
#include "owned.h"
#include "pex_log_utils.h"
#include "provisioning_state.h"
#include "wifi_connect.h"
#include "wifi_control.h"
#include "wifi_settings.h"
#include "wifi_state.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/provisioning_sm"

namespace {

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

    void clear() {
        const std::lock_guard guard(lock_);
        events_.fill(PE_NONE);
        head_ = tail_ = 0;
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
// What the machine remembers between events. Main thread only.
struct machine {
    bool station_associated;          // a phone has joined the soft AP
    int training_counter;             // ticks left; kTrainingForever while an app is there
    long deadline;                    // monotonic seconds; 0 when provisioning has none
    int32_t debounce_deadline;        // monotonic milliseconds
    std::array<uint32_t, 6> station;  // as wifi_get_associated_station_status fills it
    bool manufacturing;
};
machine own{};

constexpr long kProvisioningTimeoutS = 1200;
constexpr int kTrainingTicks = 7200;
constexpr int kTrainingForever = -1;
constexpr int kDebounceMs = 500;
constexpr useconds_t kAfterLocalDisconnectUs = 100'000;
constexpr int16_t kSoftApChannel = 6;
constexpr char kSoftApMode[] = "g";

constexpr int kProcessOnTest = 1;  // hears of the connect in a manufacturing test
constexpr int kCloudProcess = 2;
constexpr int kLocalAppProcess = 5;

// --- steps ---------------------------------------------------------------------------------------

// Whole seconds in milliseconds, cut to 32 bits: the difference of two is right across the wrap.
int32_t milliseconds(long seconds) {
    return static_cast<int32_t>(static_cast<uint64_t>(seconds) * 1000);
}

void arm_debounce(long now) {
    own.debounce_deadline = static_cast<int32_t>(static_cast<uint32_t>(milliseconds(now)) +
                                                 static_cast<uint32_t>(kDebounceMs));
}

// Both sides are whole seconds: a button is ignored exactly in the second of the start. A deadline
// further ahead than it was ever set is one from 24 days ago and more, before the wrap.
bool is_debounced(long now) {
    const auto past = static_cast<int32_t>(static_cast<uint32_t>(milliseconds(now)) -
                                           static_cast<uint32_t>(own.debounce_deadline));
    if (past > 0 || past < -kDebounceMs)
        return false;
    LOGI("ignoring abort due to button debounce timer");
    return true;
}

void forget_station() {
    own.station.fill(0);
    own.station_associated = false;
}

void disassociate_station() {
    if (!own.station_associated)
        return;
    if (wifi_disassociate_uap_station(own.station.data()) == -1)
        LOGW("Could not disassociate uap client");
    forget_station();
}

void disconnect_local_app() {
    constexpr char kRequest[] = R"({"event":"disconnect_local"})";
    std::array<char, 256> response{};
    if (network_send_tarn_req(kLocalAppProcess, kRequest, response.data(), response.size()) != 0)
        LOGE("Error publishing %s tarn request.", kRequest);
    usleep(kAfterLocalDisconnectUs);
}

void capture_wifi_log() {
    const MallocText path(create_wifi_log_file_malloc("prov-fail-wifilog"));
    if (!path)
        LOGE("create_wifi_log_file_malloc failed");
}

// Leaves provisioning for PS_NONE, so that the network which is joined again afterwards keeps its
// saved status.
void stop_provisioning() {
    own.deadline = 0;
    if (wifi_stop_uap() != 0)
        LOGE("%s: failed to stop softAP", "provisioning_stop");
    if (wifi_network_disconnect() != 0)
        LOGE("%s: failed to stop stop station", "provisioning_stop");
    LOGI("provisioning stopped in state %d", provisioning_get_state());
    capture_wifi_log();
    provisioning_enter_state(PS_NONE);
}

// False when the soft AP could not be stopped: the robot is in training still.
bool stop_training(bool restart_station) {
    if (provisioning_get_state() != TRAINING_MODE)
        return true;
    if (wifi_stop_uap() != 0) {
        LOGE("%s: failed to stop softAP", "provisioning_train_stop");
        return false;
    }
    if (restart_station)
        wifi_start_sta_from_kvs_configuration();
    own.training_counter = 0;
    provisioning_enter_state(PS_NONE);
    return true;
}

// Leaves provisioning for the saved network. One operation: a restart in between would bring the
// station up with the settings that just failed.
void return_to_saved_network() {
    const StationOperation operation;
    stop_provisioning();
    wifi_start_sta_from_kvs_configuration();
}

void fail_with(int code) {
    wifi_state_set_wifi(code);
    provisioning_state_machine(PROVISIONING_ERROR);
}

// --- actions -------------------------------------------------------------------------------------
// Each returns the new state.

provisioning_state ignore(long /*now*/) {
    return provisioning_get_state();
}

void restart_provisioning() {
    LOGI("Provisioning re-started while in state %s",
         provisioning_state_name(provisioning_get_state()));
    ring.clear();
    if (wifi_state_get_uap() != 0)
        disassociate_station();
    forget_station();
}

provisioning_state activate(long now) {
    if (provisioning_get_state() != PS_NONE)
        restart_provisioning();
    send_command_to_robot("provstart");
    disconnect_local_app();
    wifi_network_disconnect();
    own.station_associated = false;
    own.manufacturing = false;
    if (wifi_state_get_uap() == 0)
        wifi_configure_and_start_uap(kSoftApChannel, kSoftApMode);
    LOGI("provisioning started");
    arm_debounce(now);
    own.deadline = now + kProvisioningTimeoutS;
    set_wifi_state_update_after_prov_done(0);
    return WAITING_FOR_NETWORK_CONFIG_RX;
}

provisioning_state time_out(long /*now*/) {
    send_command_to_robot("provfail");
    return_to_saved_network();
    return PS_NONE;
}

provisioning_state ignore_abort(long /*now*/) {
    LOGI("ignoring prov abort due to button debounce timer");
    return provisioning_get_state();
}

provisioning_state abort_provisioning(long /*now*/) {
    send_command_to_robot("provabort");
    return_to_saved_network();
    return PS_NONE;
}

provisioning_state apply_configuration(long /*now*/) {
    const StationOperation operation;
    if (provisioning_get_state() >= WAITING_FOR_DHCP_COMPLETE)
        wifi_network_disconnect();
    if (wifi_set_provision_ip_config() == -1) {
        fail_with(WIFI_IFACE_ERROR);
        return provisioning_get_state();
    }
    wifi_send_wlcfg_json();
    return WAITING_FOR_WACTIVATE;
}

void tell_manufacturing_test() {
    std::array<char, 256> response{};
    if (network_send_tarn_req(kProcessOnTest, R"({"wifistat": {"wifi": 8}})", response.data(),
                              response.size()) != 0)
        LOGE("network_send_tarn_req failed");
}

provisioning_state connect(long /*now*/) {
    disconnect_local_app();
    disassociate_station();
    const StationOperation operation;
    int32_t code = WIFI_IFACE_ERROR;
    bool connecting = false;
    if (wifi_stop_uap() == 0) {
        wifi_state_set_wifi(WIFI_CONNECTING);
        wifi_send_wifistat(0);
        if (own.manufacturing)
            tell_manufacturing_test();
        code = -1;
        connecting = wifi_wactivate(&code) != -1;
    }
    if (!connecting)
        fail_with(code);
    return own.manufacturing ? PS_NONE : WAITING_FOR_DHCP_COMPLETE;
}

provisioning_state refuse_connect(long /*now*/) {
    LOGE("Error unexpected event %s , ignoring", "PROVISIONING_WACTIVATED");
    return provisioning_get_state();
}

provisioning_state report_connected(long /*now*/) {
    constexpr char kIpDone[] = R"({"command":"ipdone"})";
    wifi_send_wifistat(0);
    wifi_send_netinfo(1);
    wifi_send_wlcfg_json();
    mqtt_client_send("local/cmd", sizeof kIpDone - 1, kIpDone);
    wifictl_save_nw_info_to_kvs();
    return WAITING_FOR_IP_DONE;
}

provisioning_state retry_password(long /*now*/) {
    wifi_select_sta_network();
    return provisioning_get_state();
}

provisioning_state refuse_retry(long /*now*/) {
    LOGW("Not able to retry password due to current state");
    return provisioning_get_state();
}

provisioning_state report_error(long /*now*/) {
    wifi_send_wifistat(1);
    wifi_network_disconnect();
    return WAITING_FOR_NETWORK_CONFIG_RX;
}

provisioning_state refuse_error(long /*now*/) {
    LOGW("Not able to transition to PROVISIONING_ERROR due to current state");
    return provisioning_get_state();
}

provisioning_state complete(long /*now*/) {
    network_send_tarn_event(kCloudProcess, R"({"event":"resetCloudConnection"})", 2);
    own.deadline = 0;
    provisioning_enter_state(PS_NONE);
    set_wifi_state_update_after_prov_done(1);
    wifi_stop_uap();
    return PS_NONE;
}

provisioning_state stop_soft_ap(long /*now*/) {
    wifi_stop_uap();
    return provisioning_get_state();
}

provisioning_state start_training(long now) {
    if (provisioning_get_state() != TRAINING_MODE) {
        if (provisioning_get_state() != PS_NONE) {
            send_command_to_robot("provabort");
            stop_provisioning();
        }
        wifi_network_disconnect();
        if (wifi_configure_and_start_uap(kSoftApChannel, kSoftApMode) == 0) {
            own.training_counter = kTrainingTicks;
            send_command_to_robot("trainstart");
            provisioning_enter_state(TRAINING_MODE);
        } else {
            LOGE("%s: failed to turn on softAP for training", "provisioning_train_start");
        }
    }
    arm_debounce(now);
    return provisioning_get_state();
}

provisioning_state app_left(long /*now*/) {
    own.training_counter = kTrainingTicks;
    send_command_to_robot("traindisconnect");
    return TRAINING_MODE;
}

provisioning_state app_came(long /*now*/) {
    own.training_counter = kTrainingForever;
    send_command_to_robot("trainconnect");
    return TRAINING_MODE;
}

provisioning_state ignore_train_abort(long /*now*/) {
    LOGI("ignoring train abort due to button debounce timer");
    return provisioning_get_state();
}

provisioning_state abort_training(long /*now*/) {
    stop_training(true);
    send_command_to_robot("trainabort");
    return provisioning_get_state();
}

provisioning_state end_training(long /*now*/) {
    stop_training(true);
    send_command_to_robot("traindone");
    return provisioning_get_state();
}

provisioning_state provision_from_training(long now) {
    stop_training(false);
    send_command_to_robot("trainabort");
    return activate(now);
}

// --- the tables ----------------------------------------------------------------------------------

using condition = bool (*)(long now);
bool always(long /*now*/) {
    return true;
}
bool idle(long /*now*/) {
    return provisioning_get_state() == PS_NONE;
}
bool awaits_wactivate(long /*now*/) {
    return provisioning_get_state() == WAITING_FOR_WACTIVATE;
}
bool awaits_dhcp(long /*now*/) {
    return provisioning_get_state() == WAITING_FOR_DHCP_COMPLETE;
}
bool awaits_ip_done(long /*now*/) {
    return provisioning_get_state() == WAITING_FOR_IP_DONE;
}

// The first row of an event whose condition holds decides.
struct transition {
    provisioning_event event;
    condition when;
    provisioning_state (*actions)(long now);
};

constexpr std::array kProvisioning{
    transition{TRAIN_START, always, start_training},
    transition{PROVISIONING_ACTIVATED, always, activate},
    transition{PROVISIONING_TIMEOUT, idle, ignore},
    transition{PROVISIONING_TIMEOUT, always, time_out},
    transition{PROVISIONING_ABORT, is_debounced, ignore_abort},
    transition{PROVISIONING_ABORT, always, abort_provisioning},
    transition{PROVISIONING_NETWORK_CONFIG_RX, always, apply_configuration},
    transition{PROVISIONING_NETWORK_STATIC_CONFIG_RX, always, apply_configuration},
    transition{PROVISIONING_WACTIVATED, awaits_wactivate, connect},
    transition{PROVISIONING_WACTIVATED, always, refuse_connect},
    transition{PROVISIONING_DHCP_COMPLETE, awaits_dhcp, report_connected},
    transition{PROVISIONING_DHCP_COMPLETE, always, ignore},
    transition{PROVISIONING_RETRY_PASSWORD, awaits_dhcp, retry_password},
    transition{PROVISIONING_RETRY_PASSWORD, always, refuse_retry},
    transition{PROVISIONING_ERROR, idle, refuse_error},
    transition{PROVISIONING_ERROR, always, report_error},
    transition{PROVISIONING_COMPLETE, awaits_ip_done, complete},
    transition{PROVISIONING_COMPLETE, always, stop_soft_ap},
};

constexpr std::array kTraining{
    transition{TRAIN_START, always, start_training},
    transition{TRAIN_DISCONNECT, always, app_left},
    transition{TRAIN_CONNECT, always, app_came},
    transition{TRAIN_ABORT, is_debounced, ignore_train_abort},
    transition{TRAIN_ABORT, always, abort_training},
    transition{TRAIN_END, always, end_training},
    transition{PROVISIONING_ACTIVATED, always, provision_from_training},
};

// False when the table has no row for the event.
template <size_t N>
bool follow(const std::array<transition, N> &table, int event, long now) {
    for (const auto &row : table)
        if (row.event == event && row.when(now)) {
            provisioning_enter_state(row.actions(now));
            return true;
        }
    return false;
}

void start_manufacturing_test() {
    wifi_network_disconnect();
    provisioning_enter_state(MANUFACTURING_TEST);
    own.manufacturing = true;
}

void execute(int event, long now) {
    const bool out_of_provisioning =
        provisioning_get_state() == PS_NONE || is_robot_training() != 0;
    if (event == PROVISIONING_ABORT && out_of_provisioning)
        return;
    LOGI("%s: rx event %s in state %s", "provisioning_state_machine_run",
         name_of(kEventNames, event).c_str(), provisioning_state_name(provisioning_get_state()));
    if (event == MFG_WIFI_TEST)
        start_manufacturing_test();  // and on to the handler, which only warns
    if (is_robot_training() != 0) {
        if (!follow(kTraining, event, now))
            LOGW("Unhandled training event %s", name_of(kEventNames, event).c_str());
    } else if (!follow(kProvisioning, event, now)) {
        LOGW("Unhandled prov event %s", name_of(kEventNames, event).c_str());
    }
}

void count_training() {
    if (own.training_counter > 0 && --own.training_counter == 0)
        provisioning_state_machine(TRAIN_ABORT);
}

void check_deadline(long now) {
    if (own.deadline >= now)
        return;
    LOGE("PROVISIONING TIMEOUT");
    own.deadline = 0;
    provisioning_state_machine(PROVISIONING_TIMEOUT);
}

void look_for_a_phone() {
    if (wifi_state_get_uap() == 0 || own.station_associated ||
        provisioning_get_state() >= WAITING_FOR_WACTIVATE)
        return;
    own.station_associated =
        wifi_get_associated_station_status(own.station.data(), sizeof own.station) != 0;
    if (own.station_associated)
        send_command_to_robot("softapconnect");
}

}  // namespace

void provisioning_state_machine(int event) {
    ring.post(event);
}

void provisioning_handle_error(int code) {
    wifi_state_set_wifi(code);
    provisioning_state_machine(PROVISIONING_ERROR);
}

void provisioning_timer_tick(long now) {
    for (int event = PE_NONE; ring.take(event);)
        execute(event, now);
    if (provisioning_get_state() == TRAINING_MODE)
        count_training();
    if (provisioning_get_state() == PS_NONE || own.deadline == 0)
        return;
    check_deadline(now);
    look_for_a_phone();
}
