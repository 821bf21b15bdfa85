#include "main.h"

#include <cxxabi.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "device_network_hop.h"
#include "device_pinger.h"
#include "device_subnet_ping.h"
#include "discovery.h"
#include "gateway_pinger.h"
#include "kvs_keys.h"
#include "log.h"
#include "mdns_device_discover.h"
#include "monitor_main.h"
#include "mqtt_client.h"
#include "mqtt_dispatch.h"
#include "mqttapp/mqtt_app.h"
#include "network_utils.h"
#include "owned.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "process_handles.h"
#include "provisioning_sm.h"
#include "provisioning_state.h"
#include "pthread_utils.h"
#include "service_manager.h"
#include "supplicant_config.h"
#include "tarn/robot_processes.h"
#include "tarn/tarn.h"
#include "topics.h"
#include "version.h"
#include "wifi_connect.h"
#include "wifi_control.h"
#include "wifi_events.h"
#include "wifi_netinfo.h"
#include "wifi_regdom_utils.h"
#include "wifi_settings.h"
#include "wifi_state.h"
#include "wifi_station.h"
#include "wifi_status.h"

#define LOG_SOURCE "src/main"

namespace {

constexpr char kName[] = "Connectivity Module";
constexpr int kUsageError = 143;
constexpr unsigned kStartDelayS = 5;  // the rest of the robot comes up in the meantime
constexpr unsigned kInterfaceWaitS = 2;
constexpr long kTickerS = 600;
constexpr long kLongestOperationS = 300;

// Two bytes short of the buffer, which no netinfo fills; what is compared is what is copied, so
// that a text is not told as changed for ever.
constexpr size_t kComparedBytes = kStatusTextSize - 2;

// --- command line --------------------------------------------------------------------------------

struct options {
    bool wipe = false;
};

void print_usage() {
    // Kept to the letter, the uneven blanks included.
    constexpr std::array kUsage{
        "usage: netwarden args",
        " -h               - prints the usage/help",
        " --if_sta <name>  - selects the interface which is to be used as a station by name",
        " --if_uap <name>  - selects the interface which is to be used as a  access point by name",
        " -v               - prints the application version and exits",
        " --wipe - resets the wireless network configuration to factory default",
    };
    for (const char *line : kUsage)
        fprintf(stderr, "%s\n", line);
}

bool print_version() {
    version_record version{};
    version.capacity = sizeof version.text;
    if (getVersion(&version) != 0) {
        LOGE("Could not retrieve the version of the %s application", kName);
        return false;
    }
    printf("%s version: %s\n", kName, version.text);
    version_record details{};
    details.capacity = sizeof details.text;
    if (getVersionDetails(&details) == 0)
        printf("%s\n", details.text);
    return true;
}

void use_station_interface(const char *name) {
    LOGI("Station interface \"%s\"", name);
    wifi_set_station_interface_name(name);
}

void use_uap_interface(const char *name) {
    LOGI("Access Point Interface \"%s\"", name);
    wifi_set_uap_interface_name(name);
}

int usage_error() {
    print_usage();
    return kUsageError;
}

// The exit code when the process is to end here, else nothing and the options.
std::optional<int> parse_command_line(int argc, char **argv, options &result) {
    bool failed = false;
    for (int i = 1; i < argc; i++) {
        const std::string_view option = argv[i];
        const bool has_value = i + 1 < argc;
        if (option.empty() || option.front() != '-')
            return usage_error();
        if (option == "-h") {
            print_usage();
            return 0;
        }
        if (option == "-v") {
            if (print_version())
                return 0;
        } else if (option == "--wipe") {
            result.wipe = true;
        } else if (option == "--if_sta" && has_value) {
            use_station_interface(argv[++i]);
        } else if (option == "--if_uap" && has_value) {
            use_uap_interface(argv[++i]);
        } else {
            if (option == "--if_sta")
                LOGI("args[1] is %s", argv[i]);
            else if (option == "--if_uap")
                LOGI("args[1] is %s", "(null)");
            failed = true;
        }
    }
    if (failed)
        return usage_error();
    return std::nullopt;
}

// --- short of memory -----------------------------------------------------------------------------

// Where the C++ library gets no memory and nobody has an answer to that, the process ends, in one
// line, and its supervisor starts it again: a robot that was short of memory for a moment must not
// go on with half a thought.
[[noreturn]] void end_process() {
    const std::type_info *const error = abi::__cxa_current_exception_type();
    const std::string_view name = error != nullptr ? error->name() : "no exception";
    const bool is_memory = name == "St9bad_alloc" || name == "St20bad_array_new_length";
    log_die("netwarden: %s", is_memory ? "out of memory" : name.data());
}

// --- start-up ------------------------------------------------------------------------------------

// A start-up that cannot go on parks the process: whoever supervises the robot sees it alive and
// silent instead of restarting it for ever. Threads that run already keep running.
[[noreturn]] void park() {
    log_close(exchange_log_handle(nullptr));
    tarn_lib_exit(exchange_network_tarn_handle(nullptr));
    mqtt_app_exit(exchange_mqtt_app(nullptr));
    for (;;)
        sleep(100);
}

struct worker {
    const char *announcement;
    const char *name;
    void *(*body)(void *);
    const char *failure;
};

void start_thread(const worker &thread) {
    LOGD("%s", thread.announcement);
    if (pex_outlast_shortage([&] {
            return pthread_create_detached_thread(nullptr, thread.body, nullptr, thread.name) == 0;
        }))
        return;
    LOGE("%s", thread.failure);
    park();
}

void open_log() {
    exchange_log_handle(pex_outlast_shortage(
        [] { return log_open("network", LOG_LEVEL_INFO, nullptr, 0, 1, 0, 0, 1); }));
    if (get_log_handle() != nullptr)
        return;
    LOGE("log_open failed");
    park();
}

// Whether the sleep lasted to its end: no signal cut it short.
bool undisturbed_sleep(time_t seconds) {
    const timespec duration{seconds, 0};
    return nanosleep(&duration, nullptr) == 0;
}

void wait_for_the_robot() {
    LOGI("sleeping for %d secs", static_cast<int>(kStartDelayS));
    if (!undisturbed_sleep(kStartDelayS))
        LOGW("could not sleep for required time");
}

void connect_libraries() {
    exchange_mqtt_app(pex_outlast_shortage([] { return mqtt_client_init(on_mqtt_app_message); }));
    if (get_mqtt_app() == nullptr) {
        LOGE("mqtt_client_init_failed");
        park();
    }
    exchange_network_tarn_handle(pex_outlast_shortage(network_tarn_init));
    if (get_network_tarn_handle() == nullptr) {
        LOGE("network_tarn_init failed");
        park();
    }
}

// The interface key names hardware, not a network: it stays.
int wipe_network_key(const char *key) {
    const std::string_view name = key;
    if (!name.starts_with("network.") || name.starts_with(kvs_key::kInterface))
        return 0;
    return pex_kvs_del_key(key);
}

void wipe_saved_network() {
    if (pex_kvs_foreach_key(wipe_network_key) == 0)
        LOGI("Wiped network keys");
}

void ensure_active_interface() {
    const MallocText active(pex_kvs_get_key_str_malloc(kvs_key::kInterface));
    if (!active && set_active_ifname(wifi_get_sta_interface()) != 0)
        LOGE("%s: Could not set network.interface key", "main");
}

// Also without the key: an absent one resets the domain.
void apply_regulatory_domain() {
    const MallocText domain(pex_kvs_get_key_str_at_last_malloc(kvs_key::kRegdom));
    if (wifi_regdom_utils_set_regdomain(domain.get()) != 0)
        LOGE("failed to set regdomain");
    if (!domain)
        LOGE("Could not find %s key", kvs_key::kRegdom);
}

bool wifi_is_there() {
    const bool interface = wifi_check_sta_iface_available() != -1;
    const bool directory = wifi_check_run_network_dir() != -1;
    return interface && directory;
}

void wait_for_the_interface() {
    do {
        service_manager_tell("waiting for the station interface");
        sleep(kInterfaceWaitS);
    } while (!wifi_is_there());
}

void bring_wifi_into_a_known_state() {
    const StationOperation operation;  // the broker's thread runs: a restart may be asked for
    wifi_stop_uap();
    wifi_network_disconnect();
    wifi_init_netinfo();
    wifi_init_wifistat();
    const MallocText ssid(pex_kvs_get_key_str_at_last_malloc(kvs_key::kSsid));
    if (ssid) {
        wifi_start_sta_from_kvs_configuration();
        return;
    }
    LOGW("no network configuration, creating default %s", "/etc/wpa_supplicant.conf");
    wifi_state_set_wifi(WIFI_OFF);
    wifi_set_wpa_default_config();
    wifi_wpa_reconfigure();
}

void restart_diagnostic_web_server() {
    LOGI("Starting diagnostic webserver");
    LOGD("\nCalling pex_system(%s) now...", "sudo /usr/bin/webserver_control.sh stop");
    pex_system("netwarden", "sudo /usr/bin/webserver_control.sh stop", nullptr);
    LOGD("\nCalling pex_system(%s) now...", "sudo /usr/bin/webserver_control.sh start");
    pex_system("netwarden", "sudo /usr/bin/webserver_control.sh start", nullptr);
}

// The marker is left by a tidelink that connected before this process could hear it. It is removed
// when the event comes back from the broker.
void pass_on_tidelink_connected() {
    constexpr char kMarker[] = "/tmp/tidelink_connected";
    constexpr std::string_view kEvent = R"({"event":"tidelinkConnected"})";
    LOGI("Checking if %s exists", kMarker);
    if (access(kMarker, F_OK) != 0)
        return;
    LOGI("%s exists, publishing tidelinkConnected msg", kMarker);
    for (const char *topic : {topic::kCommands, topic::kUpdaterEvents})
        if (mqtt_app_publish(get_mqtt_app(), topic, static_cast<int>(kEvent.size()),
                             kEvent.data()) != 0) {
            LOGE("Failed to publish message %s on topic %s", kEvent.data(), topic);
            park();
        }
}

void ask_for_station_status() {
    std::array<char, kStatusTextSize> response{};
    if (network_send_tarn_req(PROCESS_STATION_STATUS, R"({"sta": 0})", response.data(),
                              response.size()) == 1)
        LOGE("Error publishing sta:0 TARN request.");
}

void publish_status() {
    wifi_send_netinfo(0);
    wifi_send_wifistat(0);
    wifi_send_wlcfg_json();
}

void start(const options &given) {
    open_log();
    service_manager_ready();  // nobody's boot waits for a network
    wait_for_the_robot();
    connect_libraries();
    if (given.wipe)
        wipe_saved_network();
    ensure_active_interface();
    apply_regulatory_domain();
    start_thread({"Creating mqtt app thread", "mqtt_app_main", mqtt_app_main,
                  "Could not start thread for mqtt app\n"});
    wlan_monitor_init(wifi_get_sta_interface(), wlan_monitor_event);
    start_thread({"Creating wlan monitor thread", "wlan_monitor", wlan_monitor_main,
                  "Could not start thread for wlan monitor\n"});
    wait_for_the_interface();
    bring_wifi_into_a_known_state();
    start_thread({"Creating gw pinger thread", "pinger_main", pinger_main,
                  "Could not start thread for pinger\n"});
    start_thread({"Creating IoT device mDNS discovery thread", "mdns_discovery",
                  mdns_discovery_main, "Could not start thread for mDNS\n"});
    start_thread({"Creating IoT device pinger thread", "dev_pinger", device_pinger_main,
                  "Could not start thread for pinger\n"});
    start_thread({"Creating subnet pinger thread", "dev_subnet_ping", device_subnet_ping_main,
                  "Could not start thread for pinger\n"});
    start_thread({"Creating bssid switching thread", "dev_network_hop", device_network_hop_main,
                  "Could not start thread for bssid switching\n"});
    restart_diagnostic_web_server();
    start_thread({"Creating discovery thread", "discovery_main", discovery_main,
                  "Could not start thread for discovery\n"});
    pass_on_tidelink_connected();
    ask_for_station_status();
    publish_status();
}

// --- supervision ---------------------------------------------------------------------------------

long monotonic_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<long>(now.tv_sec);
}

using NetinfoText = std::array<char, kStatusTextSize>;

void publish_what_changed(NetinfoText &previous, NetinfoText &current) {
    make_wifi_netinfo_json(current.data(), 1);
    if (memcmp(current.data(), previous.data(), kComparedBytes) == 0)
        return;
    memcpy(previous.data(), current.data(), kComparedBytes);
    publish_status();
}

// Whether one operation on the station goes on for longer than any script should take: whoever
// does it hangs, and nobody else can bring the network back.
bool station_hangs(long now) {
    static uint32_t served = 0;
    static long since = 0;
    const uint32_t place = wifi_station_served_place();
    if (place == 0 || place != std::exchange(served, place))
        since = now;
    return now - since > kLongestOperationS;
}

// A pass that hangs, in a script of the board say, is noticed by the service manager as well.
void tell_service_manager(long now) {
    const bool hangs = station_hangs(now);
    std::array<char, 64> words;
    snprintf(words.data(), words.size(), "Wi-Fi %s%s%s", wifi_state_name(wifi_state_get_wifi()),
             is_robot_provisioning() == 0 ? "" : ", provisioning", hangs ? ", a script hangs" : "");
    service_manager_tell(words.data(), hangs);
}

[[noreturn]] void supervise() {
    NetinfoText previous{};
    NetinfoText current{};
    make_wifi_netinfo_json(previous.data(), 1);
    const long started = monotonic_seconds();
    for (;;) {
        const long now = monotonic_seconds();
        if ((now - started) % kTickerS == 0)
            LOGD("10 minute ticker at %u", static_cast<unsigned>(now));
        wifi_network_status_update();
        if (is_robot_provisioning() == 0)
            publish_what_changed(previous, current);
        tell_service_manager(now);
        if (!undisturbed_sleep(1))
            continue;
        const long after = monotonic_seconds();
        wifi_timer_tick(after);
        provisioning_timer_tick(after);
    }
}

}  // namespace

void *mqtt_app_main(void * /*unused*/) {
    mqtt_app_run(get_mqtt_app());
    return nullptr;
}

int netwarden_main(int argc, char **argv) {
    std::set_terminate(end_process);
    options given;
    if (const auto exit_code = parse_command_line(argc, argv, given))
        return *exit_code;
#ifdef M_ARENA_MAX
    mallopt(M_ARENA_MAX,
            1);  // else each of nine threads that hardly allocate keeps a heap of its own
#endif
    start(given);
    supervise();
}
