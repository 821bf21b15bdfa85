// The record lock is a leaf: it covers copies only, never a system call or another lock, and may be
// taken under any other.
#include "wifi_netinfo.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kvs_keys.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_net.h"
#include "wifi_settings.h"

#define LOG_SOURCE "src/wifi_state"  // one source to log readers, with the state's lines

const security_type security_types[] = {
    {"NONE", 0}, {"WEP", 2}, {"WPA-PSK", 3}, {"WPA2-PSK", 4}, {nullptr, 0},
};

namespace {

constexpr netinfo kNoNetinfo{0, 0xFFFFFFFF, 0, 0, 0, {}, kSecurityUnknown};

std::mutex record_lock;
netinfo info{};
std::atomic<int16_t> sta_channel{0};

constexpr auto kRelaxed = std::memory_order_relaxed;

template <typename Change>
void change_netinfo(Change change) {
    const std::lock_guard lock(record_lock);
    change(info);
}

struct name_servers {
    uint32_t first;
    uint32_t second;
};

// On the soft AP the robot has none, even if the system knows some.
name_servers name_servers_of(const char *active) {
    if (strncmp(wifi_get_sta_interface(), active, strlen(active)) != 0)
        return {0, 0};
    std::array<uint32_t, 2> servers{};
    if (pex_net_get_nameservers(servers.data(), servers.size()) != 0) {
        LOGE("pex_net_get_nameservers failed");
        return {0, 0};
    }
    return {servers[0], servers[1]};
}

// The system is asked before the record is locked: a route dump takes its time.
netinfo refresh_addresses(const char *active, uint32_t addr) {
    uint32_t mask = 0;
    pex_net_get_subnet_mask(active, &mask);
    const uint32_t gw = pex_net_get_gatewayip(nullptr, 0);
    const name_servers dns = name_servers_of(active);
    netinfo copy;
    change_netinfo([&](netinfo &record) {
        record.addr = addr;
        record.mask = mask;
        record.gw = gw;
        record.dns1 = dns.first;
        record.dns2 = dns.second;
        copy = record;
    });
    return copy;
}

}  // namespace

void wifi_init_netinfo() {
    change_netinfo([](netinfo &record) { record = kNoNetinfo; });
}

int wifi_get_netinfo(netinfo *out) {
    change_netinfo([&](const netinfo &record) { *out = record; });
    return sizeof(*out);
}

int wifi_read_netinfo(netinfo *out) {
    if (out == nullptr) {
        LOGE("bad input");
        return -1;
    }
    *out = {};
    const MallocText active(pex_kvs_get_key_str_malloc(kvs_key::kInterface));
    if (!active) {
        LOGE("%s: failed to get interface", "wifi_read_netinfo");
        return -1;
    }
    uint32_t addr = 0;
    pex_net_get_ip(active.get(), &addr);
    if (addr == 0)
        change_netinfo([](netinfo &record) { record.addr = 0; });
    else
        *out = refresh_addresses(active.get(), addr);
    return sizeof(*out);
}

void wifi_netinfo_set_bssid(char *text) {
    if (text == nullptr)
        return;
    std::array<uint8_t, sizeof(netinfo::bssid)> octets{};
    size_t count = 0;
    char *rest = nullptr;
    for (char *piece = strtok_r(text, ":", &rest); piece != nullptr && count < octets.size();
         piece = strtok_r(nullptr, ":", &rest))
        octets[count++] = static_cast<uint8_t>(strtoul(piece, nullptr, 16));
    change_netinfo([&](netinfo &record) { std::copy_n(octets.begin(), count, record.bssid); });
}

void wifictl_set_sec_type(const char *name) {
    // The table's name need only begin the text: the supplicant adds "/IEEE 802.1X" and the like.
    for (const security_type *row = security_types; row->name != nullptr; row++) {
        if (strncmp(name, row->name, strlen(row->name)) != 0)
            continue;
        LOGI("sec type (%s)", name);
        change_netinfo([&](netinfo &record) { record.sec = row->value; });
        return;
    }
    LOGE("could not save security type %s", name);
}

int16_t wifi_get_sta_channel() {
    return sta_channel.load(kRelaxed);
}
void wifi_set_sta_channel(int16_t channel) {
    sta_channel.store(channel, kRelaxed);
}
