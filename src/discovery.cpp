#include "discovery.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "kvs_keys.h"
#include "log.h"
#include "mqtt_client.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_log_utils.h"
#include "pex_misc.h"
#include "pex_net.h"
#include "pex_product_version_string.h"
#include "provisioning_state.h"
#include "tarn/robot_processes.h"

#define LOG_SOURCE "src/discovery"

namespace {

constexpr uint16_t kPort = 5678;
constexpr std::string_view kProbe = "halvikmcs";
constexpr std::string_view kHostPrefix = "Plover";
constexpr size_t kRobotIdLength = 32;
constexpr size_t kSkuLength = 7;
constexpr size_t kReplySize = 1024;
constexpr size_t kCapResponseSize = 512;
constexpr size_t kMacLength = 6;

// Filled once before the first probe is served; the version is cut to what its field holds.
struct identity {
    std::string robot_id;
    std::string sku;
    std::string software;
    std::string host_name;
};

// Shared by the discovery thread and the broker thread, every member under the lock. Never
// destroyed: the threads are detached and outlive static storage.
struct shared_state {
    std::mutex lock;
    identity robot;
    std::array<uint8_t, kMacLength> last_mac{};
    std::string capabilities;
    bool capabilities_known = false;
};
shared_state &shared = *new shared_state;

std::string saved(const char *key, size_t longest) {
    const MallocText value(pex_kvs_get_key_str_at_last_malloc(key));
    return value ? std::string(value.get()).substr(0, longest) : std::string();
}

identity read_identity() {
    identity robot;
    robot.robot_id = saved(kvs_key::kRobotId, kRobotIdLength);
    robot.sku = saved(kvs_key::kSku, kSkuLength);
    if (const char *version = pex_get_product_version_string())
        robot.software = std::string(version).substr(0, 256);
    else
        LOGE("Could not read software version");
    robot.host_name = std::string(kHostPrefix) + "-" + robot.robot_id;
    return robot;
}

// Asks the robot's core for its capabilities; they also come unasked later.
void fetch_capabilities() {
    const MallocText response(static_cast<char *>(calloc(1, kCapResponseSize)));
    if (!response) {
        LOGE("malloc failed");
        return;
    }
    if (network_send_tarn_req(PROCESS_CORE, R"({"get":"cap"})", response.get(), kCapResponseSize) !=
        0) {
        LOGE("falied to get cap from corehub");
        return;
    }
    const Json answer(json_loads(response.get(), 0, nullptr));
    if (!answer) {
        LOGE("json_loads failed");
        return;
    }
    json_t *cap = json_object_get(answer.get(), "cap");
    if (cap == nullptr) {
        LOGE("json_object_get failed");
        return;
    }
    const MallocText text(json_dumps(cap, JSON_COMPACT));
    store_robot_cap(text.get());
}

Fd open_socket() {
    Fd listener =
        pex_outlast_shortage([] { return Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
    if (!listener) {
        LOGE("discovery socket init failed with error %s", strerrordesc_np(errno));
        return {};
    }
    const int reuse = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        LOGE("bind failed with error %s", strerrordesc_np(errno));
        return {};
    }
    return listener;
}

// --- the description -----------------------------------------------------------------------------

struct addresses {
    std::array<char, INET_ADDRSTRLEN> ip{"0.0.0.0"};
    std::array<uint8_t, kMacLength> mac{};
};

std::array<uint8_t, kMacLength> last_mac() {
    const std::lock_guard guard(shared.lock);
    return shared.last_mac;
}

// Of the active interface. Without one, or while it tells none, the MAC stays what it was last;
// with a name that is none, both are zero.
addresses read_addresses() {
    addresses found;
    const MallocText name(pex_kvs_get_key_str_malloc(kvs_key::kInterface));
    if (!name) {
        LOGE("Could not get discovery_if key");
        found.mac = last_mac();
        return found;
    }
    if (strlen(name.get()) >= IFNAMSIZ) {
        LOGE("interface name longer than permitted (IFNAMSIZ = %d, strlen = %d)", IFNAMSIZ,
             static_cast<int>(strlen(name.get())));
    } else {
        uint32_t address = 0;
        pex_net_get_ip(name.get(), &address);
        inet_ntop(AF_INET, &address, found.ip.data(), found.ip.size());
        if (pex_net_get_hwaddr(name.get(), found.mac.data()) != 0)
            found.mac = last_mac();
    }
    const std::lock_guard guard(shared.lock);
    shared.last_mac = found.mac;
    return found;
}

std::string robot_name() {
    const MallocText name(pex_kvs_get_key_str_at_last_malloc(kvs_key::kRobotName));
    if (name)
        return name.get();
    if (!pex_is_shortage(errno))  // else there may be one
        pex_kvs_set_key_str(kvs_key::kRobotName, "robot");
    LOGE("Could not get robot name key");
    return "robot";
}

// What follows the capabilities.
std::string tail() {
    const MallocText trained(pex_kvs_get_key_str_malloc(kvs_key::kRobotTrained));
    return trained ? std::string(",\"trained\":") + trained.get() + "}" : "}";
}

std::string capability_text() {
    const std::lock_guard guard(shared.lock);
    return shared.capabilities_known ? shared.capabilities : "{}";
}

identity copy_identity() {
    const std::lock_guard guard(shared.lock);
    return shared.robot;
}

}  // namespace

int get_discovery_json(char *buffer, int size) {
    if (buffer == nullptr || size < 0) {
        LOGE("%s: bad param", "get_discovery_json");
        return -1;
    }
    const addresses at = read_addresses();
    const std::string name = robot_name();
    const identity robot = copy_identity();
    // The saved texts stand as they are stored, unescaped: what then is no JSON is not sent.
    const int length = snprintf(
        buffer, static_cast<size_t>(size),
        "{\"ver\":\"3\",\"hostname\":\"%s\",\"robotname\":\"%s\",\"robotid\":\"%s\",\"ip\":\"%s\","
        "\"mac\":\"%02X:%02X:%02X:%02X:%02X:%02X\",\"sw\":\"%s\",\"sku\":\"%s\",\"nc\":%d,"
        "\"proto\":\"mqtt\",\"cap\":%s%s",
        robot.host_name.c_str(), name.c_str(), robot.robot_id.c_str(), at.ip.data(), at.mac[0],
        at.mac[1], at.mac[2], at.mac[3], at.mac[4], at.mac[5], robot.software.c_str(),
        robot.sku.c_str(), get_nc_val(), capability_text().c_str(), tail().c_str());
    if (length < 0 || length >= size) {
        LOGE("discovery packet truncated!!");
        return -1;
    }
    LOGD("The size of the discovery packet is %d bytes.", length + 1);
    return length;
}

void store_robot_cap(const char *text) {
    if (text == nullptr) {
        LOGE("robot cap is NULL");
        return;
    }
    const std::lock_guard guard(shared.lock);
    shared.capabilities = text;
    shared.capabilities_known = true;
}

char *add_lps_malloc(const char *text) {
    const Json description(json_loadb(text, strlen(text), 0, nullptr));
    if (!description) {
        LOGE("json_loadb failed");
        return nullptr;
    }
    const MallocText status(pex_kvs_get_key_str_malloc(kvs_key::kLastProvStatus));
    if (!status)
        LOGE("pex_kvs_get_key_str_malloc failed");
    const char *digits = status ? status.get() : "0";
    char *end = nullptr;
    const unsigned long number = strtoul(digits, &end, 10);
    if (end == digits) {
        LOGE("strtoul: input strng has no integer");
        return nullptr;
    }
    if (json_object_set_new(description.get(), "lps",
                            json_integer(static_cast<json_int_t>(number))) != 0) {
        LOGE("json_object_set_new failed");
        return nullptr;
    }
    MallocText extended(json_dumps(description.get(), JSON_COMPACT));
    if (!extended)
        LOGE("json_dumps failed");
    return extended.release();
}

void store_robot_trained_state(int trained) {
    const char *text = trained != 0 ? "true" : "false";
    if (saved(kvs_key::kRobotTrained, kRobotIdLength) == text)
        return;
    if (pex_kvs_set_key_str(kvs_key::kRobotTrained, text) != 0)
        LOGE("%s: KVS write fail", "store_robot_trained_state");
}

namespace {

Fd discovery_socket() {
    {
        identity robot = read_identity();
        const std::lock_guard guard(shared.lock);
        shared.robot = std::move(robot);
        shared.capabilities.clear();
        shared.capabilities_known = false;
    }
    fetch_capabilities();
    // Meant to stay in the product: who starts the daemon by hand sees that it has come this far.
    fprintf(stderr, "debug: %s\n", "discovery_init");
    return open_socket();
}

// Receives one datagram; true when it is a probe. Longer ones are not: the kernel tells their
// whole length.
bool receive_probe(int listener, sockaddr_in &sender) {
    std::array<char, kProbe.size() + 1> text{};
    socklen_t length = sizeof sender;
    const ssize_t received = recvfrom(listener, text.data(), kProbe.size(), MSG_TRUNC,
                                      reinterpret_cast<sockaddr *>(&sender), &length);
    if (received == static_cast<ssize_t>(kProbe.size()) && kProbe == text.data())
        return true;
    std::array<char, INET_ADDRSTRLEN> address{};
    inet_ntop(AF_INET, &sender.sin_addr, address.data(), address.size());
    LOGE("bad discovery packet from %s - len=%d rxbuf=%s", address.data(),
         static_cast<int>(received), pex_one_line(text.data()).c_str());
    return false;
}

void log_reply(const char *text) {
    if (log_configure_trunc(get_log_handle(), 0) != 0)
        LOGE("Failed to disable logging truncation, discovery packet will be truncated");
    LOGI("disc_advertised is: %s", pex_one_line(text).c_str());
    if (log_configure_trunc(get_log_handle(), 1) != 0)
        LOGE("Failed to enable logging truncation.");
}

void answer(int listener, const sockaddr_in &sender, char *buffer) {
    std::array<char, INET_ADDRSTRLEN> address{};
    inet_ntop(AF_INET, &sender.sin_addr, address.data(), address.size());
    LOGD("rx discover from: %s\n", address.data());
    if (get_discovery_json(buffer, kReplySize) < 1)
        return;
    const MallocText with_status(is_robot_provisioning() != 0 ? add_lps_malloc(buffer) : nullptr);
    const char *text = with_status ? with_status.get() : buffer;
    json_error_t error;
    const Json description(json_loadb(text, strlen(text), 0, &error));
    if (!description) {
        LOGE("json_loadb failed: %s", error.text);
        return;
    }
    print_json_kv_pairs(description.get(), "DISCOVERY PACKET");
    log_reply(text);
    sendto(listener, text, strlen(text), 0, reinterpret_cast<const sockaddr *>(&sender),
           sizeof sender);
}

}  // namespace

int discovery_init() {
    return discovery_socket().release();
}

void *discovery_main(void * /*unused*/) {
    const Fd listener(discovery_init());
    const auto reply =
        pex_outlast_shortage([] { return MallocText(static_cast<char *>(malloc(kReplySize))); });
    if (!listener || !reply) {
        LOGE("Discovery init failed.");
        return nullptr;
    }
    for (sockaddr_in sender{};;)
        if (receive_probe(listener.get(), sender))
            answer(listener.get(), sender, reply.get());
}
