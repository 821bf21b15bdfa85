#include "gateway_pinger.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <mutex>

#include "gateway_ping.h"
#include "kvs_json.h"
#include "kvs_keys.h"
#include "log.h"
#include "mqtt_client.h"
#include "owned.h"
#include "pex_misc.h"
#include "provisioning_state.h"
#include "tarn/robot_processes.h"
#include "wifi_connect.h"
#include "wifi_netinfo.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/gateway_pinger"

namespace {

constexpr unsigned kCycleS = 20;  // three silent cycles: restart after a minute
constexpr int kMaxLostPings = 3;
constexpr int kDefaultLimit = 1440;  // cycles: eight hours
constexpr int kSafeToReboot = 900;   // at least this far to the next cleaning
constexpr size_t kReplySize = 256;
constexpr int kLongestConnectCycles = 6;  // scans, a slow DHCP server

std::mutex mission_lock;
bool mission_in_progress = false;

// The key and the message speak of minutes but the value counts cycles: meant to stay, or robots
// with a saved limit would wait three times as long.
int watchdog_limit() {
    json_t *raw = nullptr;
    int limit = kDefaultLimit;
    if (kvs_get_json_from_key(kvs_key::kWatchdogInterval, JSON_INTEGER, &raw) == 0) {
        const Json value(raw);
        const json_int_t number = json_integer_value(value.get());
        if (number >= INT_MIN && number <= INT_MAX)
            limit = static_cast<int>(number);
    }
    LOGI("wifi watchdog timer interval, %d minutes", limit);
    return limit;
}

// The watchdog. One object lives on the pinger thread; a cycle is run every 20 s.
class Watchdog {
  public:
    explicit Watchdog(int limit) : limit_(limit) {}

    void cycle() {
        if (reset_request_) {
            ping_command_.reset();
            reset_request_ = false;
            lost_pings_ = 0;
        }
        sleep(kCycleS);
        if (link_is_worth_a_ping() && have_ping_command())
            ping();
    }

  private:
    bool link_is_worth_a_ping() {
        const int last_status = wifi_state_get_last_prov_status();
        const int state = wifi_state_get_wifi();
        netinfo info;
        wifi_get_netinfo(&info);
        if (state == WIFI_CONNECTED)
            return true;
        if (gateway_ping_has_target(info) && is_robot_provisioning() == 0) {
            if (state == WIFI_NETWORK_DOWN) {
                LOGI("wifi is trying to reconnect");
                wifi_network_reconnect();
            }
            return true;
        }
        LOGI("wifi is disconnected");
        reset_request_ = true;
        if (last_status != WIFI_CONNECTED || state == WIFI_OFF)
            return false;
        if (state == WIFI_CONNECTING)
            return true;
        count_missing_address();
        return false;
    }

    void count_missing_address() {
        const bool past_limit = no_address_ > limit_;
        no_address_++;
        LOGW("no address count, %d", no_address_);
        if (!restarted_) {
            if (no_address_ >= limit_) {
                LOGI("restarting network");
                wifi_network_reconnect();
                restarted_ = true;
            }
        } else if (past_limit) {
            reboot_unless_cleaning();
        }
    }

    // A failed question for the next cleaning gives 0 and so forbids the reboot. A mission that
    // begins while the reboot is on its way calls it off.
    static void reboot_unless_cleaning() {
        const auto in_mission = [] { return gateway_pinger_get_mission_in_progress() != 0; };
        if (!in_mission() && gateway_pinger_get_next_cleaning() >= kSafeToReboot) {
            LOGE("No connectivity, rebooting");
            if (pex_system_reboot_unless(in_mission))
                return;
        }
        LOGI("No connectivity but clean mission running or scheduled. Waiting to reboot...");
    }

    bool have_ping_command() {
        if (ping_command_)
            return true;
        lost_pings_ = 0;
        ping_command_.reset(create_arping_cmd_str_malloc());
        if (!ping_command_) {
            forget_missing_address();
            count_nothing_to_ping();
            return false;
        }
        LOGI("ready to ping using %s", ping_command_.get());
        nothing_to_ping_ = 0;
        return true;
    }

    // A robot that looks for its network does so with a supplicant, a DHCP client and an interface
    // that may have gone meanwhile, and nobody else would look after them.
    void count_nothing_to_ping() {
        if (is_robot_provisioning() != 0 ||
            ++nothing_to_ping_ < std::max(limit_, kLongestConnectCycles))
            return;
        nothing_to_ping_ = 0;
        LOGI("restarting network");
        wifi_network_reconnect();
    }

    void ping() {
        const bool provisioning = is_robot_provisioning() != 0;
        const gateway_answer answer =
            provisioning ? gateway_answer::not_run : gateway_ping(ping_command_.get());
        forget_missing_address();
        if (answer == gateway_answer::answered)
            lost_pings_ = 0;
        else if (answer == gateway_answer::silent)
            count_lost_ping();  // else the counter keeps its value
    }

    void count_lost_ping() {
        lost_pings_++;
        LOGW("no ping recv, loss counter = %d", lost_pings_);
        if (lost_pings_ < kMaxLostPings)
            return;
        LOGE("maximum ping loss count, restarting network");
        reset_request_ = true;
        wifi_network_reconnect();
    }

    void forget_missing_address() {
        restarted_ = false;
        no_address_ = 0;
    }

    const int limit_;
    MallocText ping_command_;
    bool reset_request_ = true;
    int lost_pings_ = 0;
    int no_address_ = 0;
    int nothing_to_ping_ = 0;
    bool restarted_ = false;
};

}  // namespace

void *pinger_main(void * /*unused*/) {
    for (Watchdog watchdog(watchdog_limit());;)
        watchdog.cycle();
}

void gateway_pinger_set_mission_in_progress(int flag) {
    const std::lock_guard guard(mission_lock);
    mission_in_progress = flag != 0;
}

int gateway_pinger_get_mission_in_progress() {
    const std::lock_guard guard(mission_lock);
    return mission_in_progress ? 1 : 0;
}

int gateway_pinger_get_next_cleaning() {
    std::array<char, kReplySize> reply{};
    if (network_send_tarn_req(PROCESS_SCHEDULER, R"({"get":"nextCleaning"})", reply.data(),
                              reply.size()) != 0) {
        LOGE("network_send_tarn_req failed");
        return 0;
    }
    LOGD("tarn resp: %s", pex_one_line(reply.data()).c_str());
    json_error_t error;
    const Json answer(json_loads(reply.data(), 0, &error));
    if (!answer) {
        LOGE("json_loads() failed with error: %s", error.text);
        return 0;
    }
    const json_t *value = json_object_get(answer.get(), "nextCleaning");
    if (!json_is_integer(value)) {
        LOGE("failed to parse next cleaning json");
        return 0;
    }
    const json_int_t next = json_integer_value(value);
    if (next > INT_MAX)
        return INT_MAX;
    return next < INT_MIN ? INT_MIN : static_cast<int>(next);
}
