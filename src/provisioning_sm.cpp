#include "provisioning_sm.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "log.h"
#include "mqtt_client.h"
#include "network_utils.h"
#include "owned.h"
#include "pex_log_utils.h"
#include "provisioning_state.h"
#include "tarn/robot_processes.h"
#include "topics.h"
#include "wifi_connect.h"
#include "wifi_control.h"
#include "wifi_settings.h"
#include "wifi_state.h"
#include "wifi_station.h"

#define LOG_SOURCE "src/provisioning_sm"

namespace {

constexpr char kEventNames[][sizeof "PROVISIONING_NETWORK_STATIC_CONFIG_RX"]{
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
static_assert(std::size(kEventNames) == PROVISIONING_COMPLETE + 1);

// A value outside the table prints as the number it is.
std::string name_of(int event) {
    const auto index = static_cast<size_t>(event);
    return index < std::size(kEventNames) ? kEventNames[index] : std::to_string(event);
}

// The ring of posted events. Eight slots hold seven events; the eighth post between two ticks makes
// it look empty, and what was posted is lost. Nobody checks for that: the poster may be
// the broker's thread, which must not wait, and has nobody to tell of a refusal; eight events
// within a second are not an owner's. The state stays, and the next press or the time-out moves on
// from it.
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

// One event, while it is executed.
struct step {
    int event;
    std::string name;                        // the event's, for the log
    long now;                                // monotonic seconds
    bool stays = false;                      // set by an action that failed: no next state
    std::optional<StationOperation> held{};  // begun by an action, goes on until the step is done
};

constexpr long kProvisioningTimeoutS = 1200;
constexpr int kTrainingTicks = 7200;
constexpr int kTrainingForever = -1;
constexpr int kDebounceMs = 500;
constexpr useconds_t kAfterLocalDisconnectUs = 100'000;
constexpr int16_t kSoftApChannel = 6;
constexpr char kSoftApMode[] = "g";

// --- parts of actions ----------------------------------------------------------------------------

// Whole seconds in milliseconds, cut to 32 bits: the difference of two is right across the wrap.
int32_t milliseconds(long seconds) {
    return static_cast<int32_t>(static_cast<uint64_t>(seconds) * 1000);
}

void arm_debounce(step &s) {
    own.debounce_deadline = static_cast<int32_t>(static_cast<uint32_t>(milliseconds(s.now)) +
                                                 static_cast<uint32_t>(kDebounceMs));
}

// Both sides are whole seconds: a button is ignored exactly in the second of the start. A deadline
// further ahead than it was ever set is one from 24 days ago and more, before the wrap.
bool is_debounced(const step &s) {
    const auto past = static_cast<int32_t>(static_cast<uint32_t>(milliseconds(s.now)) -
                                           static_cast<uint32_t>(own.debounce_deadline));
    return past <= 0 && past >= -kDebounceMs;
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
    if (network_send_tarn_req(PROCESS_LOCAL_APP, kRequest, response.data(), response.size()) != 0)
        LOGE("Error publishing %s tarn request.", kRequest);
    usleep(kAfterLocalDisconnectUs);
}

void capture_wifi_log() {
    const MallocText path(create_wifi_log_file_malloc("prov-fail-wifilog"));
    if (!path)
        LOGE("create_wifi_log_file_malloc failed");
}

void stop_provisioning() {
    own.deadline = 0;
    if (wifi_stop_uap() != 0)
        LOGE("%s: failed to stop softAP", "provisioning_stop");
    if (wifi_network_disconnect() != 0)
        LOGE("%s: failed to stop stop station", "provisioning_stop");
    LOGI("provisioning stopped in state %d", provisioning_get_state());
    capture_wifi_log();
}

void tell_manufacturing_test() {
    std::array<char, 256> response{};
    if (network_send_tarn_req(PROCESS_FACTORY_TEST, R"({"wifistat": {"wifi": 8}})", response.data(),
                              response.size()) != 0)
        LOGE("network_send_tarn_req failed");
}

// --- actions of the rows, in their order ---------------------------------------------------------

void start_manufacturing_test(step & /*s*/) {
    wifi_network_disconnect();
    own.manufacturing = true;
}

void stop_for_training(step & /*s*/) {
    send_command_to_robot("provabort");
    stop_provisioning();
}

void start_training(step &s) {
    wifi_network_disconnect();
    if (wifi_configure_and_start_uap(kSoftApChannel, kSoftApMode) != 0) {
        LOGE("%s: failed to turn on softAP for training", "provisioning_train_start");
        s.stays = true;
        return;
    }
    own.training_counter = kTrainingTicks;
    send_command_to_robot("trainstart");
}

void start_provisioning(step &s) {
    send_command_to_robot("provstart");
    disconnect_local_app();
    wifi_network_disconnect();
    own.station_associated = false;
    own.manufacturing = false;
    if (wifi_state_get_uap() == 0)
        wifi_configure_and_start_uap(kSoftApChannel, kSoftApMode);
    LOGI("provisioning started");
    arm_debounce(s);
    own.deadline = s.now + kProvisioningTimeoutS;
    set_wifi_state_update_after_prov_done(0);
}

void restart_provisioning(step &s) {
    LOGI("Provisioning re-started while in state %s",
         provisioning_state_name(provisioning_get_state()));
    ring.clear();
    if (wifi_state_get_uap() != 0)
        disassociate_station();
    forget_station();
    start_provisioning(s);
}

// The stop and the saved network's start are one operation: a restart in between would bring the
// station up with the settings that just failed.
void time_out(step &s) {
    send_command_to_robot("provfail");
    s.held.emplace();
    stop_provisioning();
}

void abort_provisioning(step &s) {
    send_command_to_robot("provabort");
    s.held.emplace();
    stop_provisioning();
}

// Out of provisioning already, so that this network's states are not saved as the provisioning's.
void start_saved_network(step & /*s*/) {
    wifi_start_sta_from_kvs_configuration();
}

void ignore_abort(step & /*s*/) {
    LOGI("ignoring abort due to button debounce timer");
    LOGI("ignoring prov abort due to button debounce timer");
}

void apply_configuration(step &s) {
    const StationOperation operation;
    if (provisioning_get_state() >= WAITING_FOR_DHCP_COMPLETE)
        wifi_network_disconnect();
    if (wifi_set_provision_ip_config() == -1) {
        provisioning_handle_error(WIFI_IFACE_ERROR);
        s.stays = true;
        return;
    }
    wifi_send_wlcfg_json();
}

// One that fails goes on to the next state as well: its PROVISIONING_ERROR leads back.
void connect(step & /*s*/) {
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
        provisioning_handle_error(code);
}

void refuse_connect(step & /*s*/) {
    LOGE("Error unexpected event %s , ignoring", "PROVISIONING_WACTIVATED");
}

void report_lease(step & /*s*/) {
    constexpr char kIpDone[] = R"({"command":"ipdone"})";
    wifi_send_wifistat(0);
    wifi_send_netinfo(1);
    wifi_send_wlcfg_json();
    mqtt_client_send(topic::kLocalCommand, sizeof kIpDone - 1, kIpDone);
    wifictl_save_nw_info_to_kvs();
}

void retry_password(step & /*s*/) {
    wifi_select_sta_network();
}

void refuse_retry(step & /*s*/) {
    LOGW("Not able to retry password due to current state");
}

void report_error(step & /*s*/) {
    wifi_send_wifistat(1);
    wifi_network_disconnect();
}

void refuse_error(step & /*s*/) {
    LOGW("Not able to transition to PROVISIONING_ERROR due to current state");
}

void reset_cloud_connection(step & /*s*/) {
    network_send_tarn_event(PROCESS_CLOUD, R"({"event":"resetCloudConnection"})", 2);
    own.deadline = 0;
}

void stop_soft_ap(step & /*s*/) {
    wifi_stop_uap();
}

void succeed(step &s) {
    set_wifi_state_update_after_prov_done(1);
    stop_soft_ap(s);
}

void app_left(step & /*s*/) {
    own.training_counter = kTrainingTicks;
    send_command_to_robot("traindisconnect");
}

void app_came(step & /*s*/) {
    own.training_counter = kTrainingForever;
    send_command_to_robot("trainconnect");
}

void ignore_train_abort(step & /*s*/) {
    LOGI("ignoring abort due to button debounce timer");
    LOGI("ignoring train abort due to button debounce timer");
}

void stop_training(step &s) {
    if (wifi_stop_uap() != 0) {
        LOGE("%s: failed to stop softAP", "provisioning_train_stop");
        s.stays = true;
        return;
    }
    own.training_counter = 0;
}

void stop_training_for_home(step &s) {
    stop_training(s);
    if (!s.stays)
        wifi_start_sta_from_kvs_configuration();
}

void say_aborted(step & /*s*/) {
    send_command_to_robot("trainabort");
}

void say_done(step & /*s*/) {
    send_command_to_robot("traindone");
}

// The event is not done yet: the provisioning table takes it in the state that it led to.
void provision(step &s);

void say_aborted_and_provision(step &s) {
    say_aborted(s);
    provision(s);
}

// --- the tables ----------------------------------------------------------------------------------

// What a row asks for: the state, or more. All of it must hold.
constexpr unsigned kAlways = 0;
constexpr unsigned in(provisioning_state state) {
    return 1U << state;
}
constexpr unsigned kInTest = in(TRAINING_MODE) << 1;
constexpr unsigned kDebounced = kInTest << 1;

unsigned what_holds(const step &s) {
    return in(provisioning_get_state()) | (own.manufacturing ? kInTest : 0) |
           (is_debounced(s) ? kDebounced : 0);
}

// The first row of an event whose condition holds decides: its action, its next state unless the
// action failed, and what is done then, in either state.
struct transition {
    provisioning_event event;
    unsigned when;
    void (*action)(step &s);
    std::optional<provisioning_state> next;
    void (*then)(step &s) = nullptr;
};
constexpr std::optional<provisioning_state> kStay = std::nullopt;
constexpr std::nullptr_t kNothing = nullptr;

constexpr transition kAnyState[]{
    {MFG_WIFI_TEST, kAlways, start_manufacturing_test, MANUFACTURING_TEST},
};

constexpr transition kProvisioning[]{
    {TRAIN_START, in(PS_NONE), start_training, TRAINING_MODE, arm_debounce},
    {TRAIN_START, kAlways, stop_for_training, PS_NONE, provision},
    {PROVISIONING_ACTIVATED, in(PS_NONE), start_provisioning, WAITING_FOR_NETWORK_CONFIG_RX},
    {PROVISIONING_ACTIVATED, kAlways, restart_provisioning, WAITING_FOR_NETWORK_CONFIG_RX},
    {PROVISIONING_TIMEOUT, in(PS_NONE), kNothing, kStay},
    {PROVISIONING_TIMEOUT, kAlways, time_out, PS_NONE, start_saved_network},
    {PROVISIONING_ABORT, kDebounced, ignore_abort, kStay},
    {PROVISIONING_ABORT, kAlways, abort_provisioning, PS_NONE, start_saved_network},
    {PROVISIONING_NETWORK_CONFIG_RX, kAlways, apply_configuration, WAITING_FOR_WACTIVATE},
    {PROVISIONING_NETWORK_STATIC_CONFIG_RX, kAlways, apply_configuration, WAITING_FOR_WACTIVATE},
    {PROVISIONING_WACTIVATED, in(WAITING_FOR_WACTIVATE) | kInTest, connect, PS_NONE},
    {PROVISIONING_WACTIVATED, in(WAITING_FOR_WACTIVATE), connect, WAITING_FOR_DHCP_COMPLETE},
    {PROVISIONING_WACTIVATED, kAlways, refuse_connect, kStay},
    {PROVISIONING_DHCP_COMPLETE, in(WAITING_FOR_DHCP_COMPLETE), report_lease, WAITING_FOR_IP_DONE},
    {PROVISIONING_DHCP_COMPLETE, kAlways, kNothing, kStay},
    {PROVISIONING_RETRY_PASSWORD, in(WAITING_FOR_DHCP_COMPLETE), retry_password, kStay},
    {PROVISIONING_RETRY_PASSWORD, kAlways, refuse_retry, kStay},
    {PROVISIONING_ERROR, in(PS_NONE), refuse_error, kStay},
    {PROVISIONING_ERROR, kAlways, report_error, WAITING_FOR_NETWORK_CONFIG_RX},
    {PROVISIONING_COMPLETE, in(WAITING_FOR_IP_DONE), reset_cloud_connection, PS_NONE, succeed},
    {PROVISIONING_COMPLETE, kAlways, stop_soft_ap, kStay},
};

constexpr transition kTraining[]{
    {TRAIN_START, kAlways, arm_debounce, kStay},
    {TRAIN_DISCONNECT, kAlways, app_left, kStay},
    {TRAIN_CONNECT, kAlways, app_came, kStay},
    {TRAIN_ABORT, kDebounced, ignore_train_abort, kStay},
    {TRAIN_ABORT, kAlways, stop_training_for_home, PS_NONE, say_aborted},
    {TRAIN_END, kAlways, stop_training_for_home, PS_NONE, say_done},
    {PROVISIONING_ACTIVATED, kAlways, stop_training, PS_NONE, say_aborted_and_provision},
};

// False when the table has no row for the event.
bool follow(std::span<const transition> table, step &s) {
    const unsigned holds = what_holds(s);
    for (const auto &row : table)
        if (row.event == s.event && (row.when & holds) == row.when) {
            s.stays = false;
            if (row.action)
                row.action(s);
            if (row.next && !s.stays)
                provisioning_enter_state(*row.next);
            if (row.then)
                row.then(s);
            return true;
        }
    return false;
}

void provision(step &s) {
    if (!follow(kProvisioning, s))
        LOGW("Unhandled prov event %s", s.name.c_str());
}

void execute(int event, long now) {
    if (event == PROVISIONING_ABORT && is_robot_provisioning() == 0)
        return;
    step s{.event = event, .name = name_of(event), .now = now};
    LOGI("%s: rx event %s in state %s", "provisioning_state_machine_run", s.name.c_str(),
         provisioning_state_name(provisioning_get_state()));
    follow(kAnyState, s);
    if (is_robot_training() == 0)
        provision(s);  // of a manufacturing test, too, which only has it warn
    else if (!follow(kTraining, s))
        LOGW("Unhandled training event %s", s.name.c_str());
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
