#include "device_pinger.h"

#include <jansson.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device_network_hop.h"
#include "device_probe.h"
#include "device_subnet_ping.h"
#include "device_tracking.h"
#include "home_device_list.h"
#include "kvs_json.h"
#include "kvs_keys.h"
#include "log.h"
#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "topics.h"
#include "wifi_control.h"
#include "wifi_netinfo.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/device_pinger"

using device_tracking::current_session;
using device_tracking::Session;

namespace {

constexpr unsigned kRoundS = 3;
constexpr int kDefaultHopIntervalS = 15;

// A keep-alive runs for 2 s in the background, for longer on a busy robot. A home with more devices
// than may run at once has half as many each round, so that two rounds' may overlap.
constexpr size_t kMostKeepAlives = 64;
constexpr size_t kKeepAlivesOfMany = kMostKeepAlives / 2;

// What report, link and hops wait for in a round: a silent device costs 2 s, and where tools are
// slow an answering one a second.
constexpr int kMostSilent = 5;
constexpr std::chrono::seconds kAskingTime{30};

bool is_off(const pinger_mode &flags) {
    return flags.pinger == 0 && flags.discover == 0;
}

bool is_current(uint32_t session) {
    return current_session().number == session;
}

using Devices = std::vector<device_texts>;

// --- report --------------------------------------------------------------------------------------

void set_member(json_t *object, const char *key, const std::optional<std::string> &value) {
    if (!value)
        return;
    // A text that is not UTF-8 makes no JSON: the member is left out, the device stays.
    json_object_set_new(object, key, json_stringn(value->data(), value->size()));
}

// Empty without memory.
std::string describe(const device_texts &device) {
    const Json object(json_object());
    set_member(object.get(), "mac_address", device.mac);
    set_member(object.get(), "google_cd", device.google_cd);
    set_member(object.get(), "type", device.type);
    set_member(object.get(), "name", device.name);
    set_member(object.get(), "hostname", device.hostname);
    set_member(object.get(), "md", device.md);
    const MallocText text(json_dumps(object.get(), JSON_COMPACT));
    return text ? text.get() : "";
}

std::string describe_address(const device_texts &device) {
    device_texts bare;
    bare.mac = device.mac;
    return describe(bare);
}

constexpr std::string_view kReportHead = R"({"wifiDevices":[)";
constexpr std::string_view kReportTail = "]}";
constexpr size_t kReportRoom = kMqttAppLargestMessage - kReportHead.size() - kReportTail.size();

// What one device may take of the report, comma included. Homes stay far below what a message
// holds; where somebody announces thousands of devices with long texts, each has an equal share.
// Described to be measured and again to be written: such a home's texts are too long to be kept.
size_t share_of_report(const Devices &devices) {
    size_t total = 0;
    for (const device_texts &device : devices)
        total += describe(device).size() + 1;
    return total <= kReportRoom ? total : kReportRoom / devices.size();
}

// One message with all devices, whatever they announce. Empty without memory.
std::string write_report(const Devices &devices) {
    const size_t share = share_of_report(devices);
    std::string text(kReportHead);
    size_t shortened = 0;
    for (const device_texts &device : devices) {
        std::string description = describe(device);
        if (description.size() >= share) {
            description = describe_address(device);
            shortened++;
        }
        if (description.empty())
            return "";
        text.append(&device != &devices.front() ? "," : "").append(description);
    }
    if (shortened > 0)
        LOGW("census too long: %zu of %zu devices are reported by their address only", shortened,
             devices.size());
    return text.append(kReportTail);
}

// Nothing once that tracking is over.
void report_devices(uint32_t session) {
    clear_device_list_updated();  // before the list is read: what changes later is in the next one
    Devices devices = copy_device_list();
    std::erase_if(devices, [](const device_texts &device) { return !device.mac; });
    const std::string text = write_report(devices);
    if (text.empty()) {
        LOGE("Could not allocate new json objects");
        return;
    }
    if (!is_current(session))
        return;
    LOGD("sending object %s", text.c_str());
    mqtt_client_send(topic::kRobotDebug, static_cast<int>(text.size()), text.c_str());
}

// --- the pinger ----------------------------------------------------------------------------------

int read_hop_interval() {
    json_t *raw = nullptr;
    kvs_get_json_from_key(kvs_key::kHopInterval, JSON_INTEGER, &raw);
    const Json value(raw);
    const json_int_t seconds = json_integer_value(value.get());
    if (!value || seconds < INT_MIN || seconds > INT_MAX) {
        LOGI("using default bssid switch sleep %d sec", kDefaultHopIntervalS);
        return kDefaultHopIntervalS;
    }
    const int interval = static_cast<int>(seconds);
    LOGI("setting bssid switch sleep to user selected val %d sec", interval);
    return interval;
}

bool has_link() {
    wifistat status{};
    netinfo info{};
    if (wifi_get_wifistat(&status) != sizeof status || status.wifi != WIFI_CONNECTED) {
        LOGI("wifi is disconnected");
        return false;
    }
    if (wifi_get_netinfo(&info) != sizeof info || info.addr == 0) {
        LOGI("no IP address");
        return false;
    }
    return true;
}

using Clock = std::chrono::steady_clock;

// The questions of one round for hardware addresses.
struct Asking {
    Clock::time_point end = Clock::now() + kAskingTime;
    int silent = 0;
    bool learned = false;
    bool is_over = false;
    size_t next = 0;  // place in the list of who is first in the next round
};

// The pinger. One object lives on its thread; a round is run every 3 s.
class Pinger {
  public:
    explicit Pinger(int hop_interval) : hop_interval_(hop_interval) {
        set_pinger_mode(PINGER_MODE_CLEAR, 0);
        session_ = current_session().number;
        wifi_enable_noarp_mode(0);
    }

    void round() {
        sleep(kRoundS);
        const Session now = current_session();
        LOGD("pinger %s, discover %s", now.mode.pinger != 0 ? "active" : "disabled",
             now.mode.discover != 0 ? "enable" : "disable");
        if (is_off(now.mode) || now.number != session_)
            settle_down();
        session_ = now.number;
        if (is_off(now.mode) || !has_link())
            return;
        const bool sweeps = !is_tracking_ && start_tracking();
        if (!sweeps)
            pace_hops();
        if (probe_devices() || device_list_updated() != 0)
            report_devices(session_);
    }

  private:
    // Also when tracking is on again already: each stop empties the list and each start sweeps.
    void settle_down() {
        if (is_tracking_) {
            wifi_stop_monitor_mode();
            wifi_enable_noarp_mode(0);
            is_tracking_ = false;
        }
        first_asked_ = next_keep_alive_ = 0;
        if (is_device_list_empty() != 0)
            return;
        clear_device_list();
        LOGW("clearing device list");
    }

    // True when a sweep is due: one for each start.
    bool start_tracking() {
        wifi_start_monitor_mode();
        wifi_enable_noarp_mode(1);
        is_tracking_ = true;
        pinger_mode now;
        if (get_pinger_mode(&now)->discover == 0)
            return false;
        device_subnet_ping_request(session_);
        return true;
    }

    void pace_hops() {
        pinger_mode now;
        get_pinger_mode(&now);
        const std::chrono::duration<double> passed = Clock::now() - last_hop_;
        if (now.pinger == 0 || now.discover != 0 || passed.count() < hop_interval_)
            return;
        last_hop_ = Clock::now();
        device_network_hop_request();
    }

    // Off, or the link is lost: hundreds of silent devices would hold up the rest.
    bool goes_on() const {
        wifistat status{};
        return is_current(session_) && wifi_get_wifistat(&status) == sizeof status &&
               status.wifi == WIFI_CONNECTED;
    }

    // Whether a hardware address was learned.
    bool probe_devices() {
        const Devices devices = copy_device_list();
        const std::vector<bool> keep_alives = turns_of_keep_alives(devices);
        Asking asking;
        int count = 0;
        for (size_t walked = 0; walked < devices.size() && goes_on(); walked++) {
            const size_t i = (first_asked_ + walked) % devices.size();
            if (!devices[i].ip)
                continue;
            count++;
            ping_request request{.ip = devices[i].ip->c_str()};
            if (keep_alives[i])
                ping_device(&request, 0, 0);
            else if (!devices[i].mac)
                ask(request, i, asking);
        }
        first_asked_ = asking.next;
        LOGI("pinged %d active devices", count);
        return asking.learned;
    }

    // Who of those with a hardware address gets a keep-alive in this round.
    std::vector<bool> turns_of_keep_alives(const Devices &devices) {
        const auto is_known = [](const device_texts &each) { return each.ip && each.mac; };
        const auto known =
            static_cast<size_t>(std::count_if(devices.begin(), devices.end(), is_known));
        std::vector<bool> turns(devices.size());
        for (size_t left = known <= kMostKeepAlives ? known : kKeepAlivesOfMany; left > 0;) {
            const size_t i = next_keep_alive_++ % devices.size();
            turns[i] = is_known(devices[i]);
            left -= turns[i] ? 1 : 0;
        }
        if (!devices.empty())
            next_keep_alive_ %= devices.size();
        return turns;
    }

    static void ask(ping_request &request, size_t place, Asking &asking) {
        if (asking.is_over)
            return;
        asking.is_over = asking.silent >= kMostSilent || Clock::now() >= asking.end;
        if (asking.is_over)
            asking.next = place;
        else if (find_mac(request))
            asking.learned = true;
        else
            asking.silent++;
    }

    static bool find_mac(ping_request &request) {
        std::array<char, kProbeMacSize> answer{};
        request.mac = answer.data();
        LOGI("need mac for %s", request.ip);
        if (ping_device(&request, 1, 1) == 0)
            return false;
        const int learned = learn_device_mac(request.ip, request.mac);
        if (learned > 0)
            LOGI("updating %s with mac %s", request.ip, request.mac);
        else if (learned < 0)
            LOGI("out of memory");
        return learned > 0;
    }

    const int hop_interval_;
    Clock::time_point last_hop_ = Clock::now();
    bool is_tracking_ = false;
    uint32_t session_ = 0;
    size_t first_asked_ = 0;  // places in the list: who is first in this round
    size_t next_keep_alive_ = 0;
};

}  // namespace

void *device_pinger_main(void * /*unused*/) {
    for (Pinger pinger(read_hop_interval());;)
        pinger.round();
}
