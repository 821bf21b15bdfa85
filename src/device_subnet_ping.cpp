#include "device_subnet_ping.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <span>

#include "device_probe.h"
#include "device_tracking.h"
#include "home_device_list.h"
#include "log.h"
#include "pex_misc.h"
#include "pthread_utils.h"
#include "wifi_netinfo.h"

#define LOG_SOURCE "src/device_pinger"  // one source to log readers, as the pinger asks for it

using device_tracking::is_sweep_wanted;

namespace {

constexpr uint32_t kRangeSize = 8;    // addresses of a worker
constexpr size_t kWaveSize = 64;      // workers at once: each runs a tool, and a robot is small
constexpr uint32_t kMaxHosts = 4096;  // more are not a home

Semaphore requests{0};
std::atomic<uint32_t> requested_session{0};  // of the last request

// As the log shows a thread.
unsigned short_id(pthread_t thread) {
    return static_cast<unsigned>(thread);
}

// The host addresses of the subnet, network and broadcast left out; none for /31 and /32.
uint32_t count_hosts(uint32_t mask) {
    const uint32_t wildcard = ntohl(~mask);
    const uint32_t hosts = wildcard > 0 ? wildcard - 1 : 0;
    if (hosts <= kMaxHosts)
        return hosts;
    LOGW("subnet has %u addresses, pinging only the first %u", hosts, kMaxHosts);
    return kMaxHosts;
}

const char *print_address(uint32_t address, std::span<char, INET_ADDRSTRLEN> text) {
    return inet_ntop(AF_INET, &address, text.data(), text.size());
}

// --- one sweep: sweep thread ---------------------------------------------------------------------

using Ranges = std::span<ping_range>;

void plan(const netinfo &info, uint32_t hosts, uint32_t session, Ranges ranges) {
    const uint32_t network = ntohl(info.addr & info.mask);
    uint32_t host = 1;
    for (ping_range &range : ranges) {
        range.first = htonl(network + host);
        range.count = static_cast<uint16_t>(std::min(kRangeSize, hosts - host + 1));
        range.session = session;
        host += kRangeSize;
    }
}

void start(ping_range &range) {
    std::array<char, INET_ADDRSTRLEN> text{};
    const uint32_t first = range.first;
    const int count = range.count;
    if (pthread_create_detached_thread(&range.thread, ping_range_main, &range, "device_ping_rng") !=
        0) {
        LOGE("failed to create child thread");
        range.done = 1;
        return;
    }
    if (print_address(first, text) == nullptr)
        LOGE("inet_ntoa error");
    LOGI("starting thread %0x - range %s , count %d", short_id(range.thread), text.data(), count);
}

// Looks at the workers up to the first that is not done.
bool all_done(Ranges ranges) {
    for (const ping_range &range : ranges) {
        if (range.done == 0) {
            LOGD("thread %0x NOT done", short_id(range.thread));
            return false;
        }
        LOGD("thread %0x done", short_id(range.thread));
    }
    return true;
}

void run_wave(Ranges wave) {
    for (ping_range &range : wave)
        start(range);
    do
        sleep(1);
    while (!all_done(wave));
}

void run_waves(Ranges ranges, uint32_t session) {
    while (!ranges.empty()) {
        const size_t count = std::min(ranges.size(), kWaveSize);
        run_wave(ranges.first(count));
        ranges = ranges.subspan(count);
        if (!is_sweep_wanted(session))
            return;
    }
}

bool sweep() {
    using std::chrono::steady_clock;
    const uint32_t session = requested_session;
    netinfo info{};
    wifi_get_netinfo(&info);
    if (info.addr == 0)
        LOGI("no IP address");
    const uint32_t hosts = count_hosts(info.mask);
    const size_t workers = (hosts + kRangeSize - 1) / kRangeSize;
    const auto ranges = pex_outlast_shortage(
        [&] { return std::unique_ptr<ping_range[]>(new (std::nothrow) ping_range[workers]{}); });
    if (!ranges) {
        LOGE("calloc error");
        return false;
    }
    LOGI("pinging %d addresses", static_cast<int>(hosts));
    plan(info, hosts, session, {ranges.get(), workers});
    const auto started = steady_clock::now();
    run_waves({ranges.get(), workers}, session);
    device_tracking::end_sweep(session);
    const auto took =
        std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - started);
    // The letter behind the number is what log readers match on.
    LOGI("discover threads done after %ul seconds", static_cast<unsigned>(took.count()));
    return true;
}

// --- worker --------------------------------------------------------------------------------------

void ping_address(uint32_t address, unsigned worker) {
    std::array<char, INET_ADDRSTRLEN> ip{};
    ping_request request{.ip = print_address(address, ip)};
    if (ping_device(&request, 0, 1) == 0)
        return;
    const bool is_new = add_entry_to_device_list(request.name, request.name_rank, request.ip,
                                                 request.mac, request.type, request.google_cd,
                                                 request.hostname, request.md) != nullptr;
    if (is_new)
        LOGI("tid %0x added entry for %s", worker, ip.data());
    else
        LOGD("entry for %s already exists", ip.data());
}

}  // namespace

void device_subnet_ping_request(uint32_t session) {
    requested_session = session;
    requests.release();
}

void *device_subnet_ping_main(void * /*unused*/) {
    do
        requests.acquire();
    while (sweep());
    return nullptr;
}

void *ping_range_main(void *argument) {
    auto &range = *static_cast<ping_range *>(argument);
    const unsigned worker = short_id(pthread_self());
    const uint32_t first = ntohl(range.first);
    for (uint32_t i = 0; i < range.count; i++) {
        if (!is_sweep_wanted(range.session)) {
            LOGI("tid %0x stopping pinger early", worker);
            break;
        }
        ping_address(htonl(first + i), worker);
    }
    range.done = 1;  // the record may be gone from here on
    LOGI("thread %0x done", worker);
    return nullptr;
}
