#include "device_network_hop.h"

#include <jansson.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "home_device_list.h"
#include "log.h"
#include "monitor_main.h"
#include "mqtt_client.h"
#include "pex_misc.h"
#include "pthread_utils.h"
#include "supplicant_status.h"
#include "topics.h"

#define LOG_SOURCE "src/device_pinger"  // one source to log readers, as the pinger paces the hops

namespace {

// Scan results beyond it are not looked at: a survey keeps about as many as fit.
constexpr size_t kReplySize = 1024;
constexpr int kStatusAttempts = 5;
constexpr int kScanWaitS = 9;
constexpr int kScanEntries = 15;
constexpr size_t kKnownChannels = 3;
constexpr int kMhzPerBand = 1000;  // 2 for 2.4 GHz, 5 for 5 GHz
constexpr char kUnexpectedScan[] = "unexpected wpa supplicant scan results";

Semaphore requests{0};

using Channels = std::array<channel_info, kKnownChannels>;
// Kept between hops. Leaked: the thread runs as long as the process.
Channels &g_known_channels = *new Channels;
size_t known_index = 0;  // the slot of the last hop

bool is_empty(const channel_info &entry) {
    return entry.freq == 0;
}

channel_info take(channel_info &entry) {
    return std::exchange(entry, {});
}

MallocText new_reply() {
    MallocText reply(static_cast<char *>(calloc(1, kReplySize)));
    if (!reply)
        LOGE("malloc error");
    return reply;
}

// The number at the start of a text, which may go on behind it; the nearest to one out of range.
std::optional<int32_t> leading_number(std::string_view text) {
    int32_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc::result_out_of_range)
        return text.starts_with('-') ? INT32_MIN : INT32_MAX;
    if (result.ec != std::errc{})
        return std::nullopt;
    return number;
}

// --- the current access point --------------------------------------------------------------------

bool link_is_up() {
    const MallocText reply = new_reply();
    if (!reply)
        return false;
    if (wlan_monitor_ctrl_status(reply.get(), kReplySize) != 0) {
        LOGE("failed to get status");
        return false;
    }
    const char *state = supplicant_status_after(reply.get(), "wpa_state");
    if (state == nullptr) {
        LOGE("unexpected status output");
        return false;
    }
    return std::string_view(state).starts_with("=COMPLETED");
}

bool wait_for_link() {
    for (int attempt = 0; attempt < kStatusAttempts; attempt++) {
        if (link_is_up())
            return true;
        sleep(1);
    }
    LOGW("not connected, cannot get bssid");
    return false;
}

// The link's access point, its signal left at 0; an empty entry when it cannot be read.
channel_info current_access_point() {
    channel_info current;
    char *bssid = nullptr;
    if (get_current_bssid(&bssid, &current.freq) != 0)
        current.bssid.reset(bssid);
    return current;
}

// --- scan ----------------------------------------------------------------------------------------

void wait_for_scan() {
    for (int waited = 0; waited < kScanWaitS; waited++) {
        sleep(1);
        if (wlan_monitor_ctrl_pending_scan() == 0)
            return;
    }
}

// The reply to the results of a fresh scan, or null.
MallocText scan_malloc() {
    MallocText reply = new_reply();
    if (!reply)
        return nullptr;
    LOGD("Starting wifi scan");
    if (wlan_monitor_ctrl_scan(reply.get(), kReplySize) != 0) {
        LOGE("failed to start wifi scan");
        return nullptr;
    }
    LOGD("Scan started");
    wait_for_scan();
    LOGD("Getting scan results");
    if (wlan_monitor_ctrl_get_scan_results(reply.get(), kReplySize) != 0) {
        LOGE("failed to get wifi scan results");
        return nullptr;
    }
    reply.get()[kReplySize - 1] = '\0';
    return reply;
}

// A full buffer ends anywhere. Its last line is left out when that may be within the signal: "-4"
// of "-45" would be the strongest access point of the home.
std::string_view without_cut_signal(std::string_view results) {
    const size_t last = results.rfind('\n') + 1;
    const auto tabs = std::count(results.begin() + static_cast<long>(last), results.end(), '\t');
    const bool is_cut = results.size() == kReplySize - 1 && tabs == 2;
    return is_cut ? results.substr(0, last) : results;
}

enum class line_kind { good, skipped, last };

// "BSSID <tab> frequency <tab> signal <tab> ...".
line_kind parse_scan_line(std::string_view line, channel_info &result) {
    const std::string_view bssid = pex_next_piece(line, '\t');
    if (bssid.empty()) {
        LOGE(kUnexpectedScan);
        return line_kind::last;
    }
    const auto frequency = leading_number(pex_next_piece(line, '\t'));
    const auto signal = leading_number(pex_next_piece(line, '\t'));
    if (!frequency || !signal) {
        LOGE(kUnexpectedScan);
        return line_kind::skipped;
    }
    result = {*frequency, *signal, MallocText(strndup(bssid.data(), bssid.size()))};
    if (result.bssid)
        return line_kind::good;
    LOGE("strdup failed");
    return line_kind::last;
}

// Appends it; or, without room, puts it in place of a weaker one on its frequency. The new count.
int keep(channel_info found, std::span<channel_info> entries, int count) {
    if (static_cast<size_t>(count) < entries.size()) {
        entries[static_cast<size_t>(count)] = std::move(found);
        return count + 1;
    }
    const auto same =
        std::ranges::find(entries, found.freq, [](const auto &entry) { return entry.freq; });
    if (same != entries.end() && found.rssi > same->rssi)
        *same = std::move(found);
    return count;
}

// --- survey --------------------------------------------------------------------------------------

using Entries = std::span<channel_info>;

// The strongest of a band, of any for 0; the first of equals. Null when there is none.
channel_info *strongest(Entries entries, int band) {
    channel_info *best = nullptr;
    for (channel_info &entry : entries) {
        if (is_empty(entry) || (band != 0 && entry.freq / kMhzPerBand != band))
            continue;
        if (best == nullptr || entry.rssi > best->rssi)
            best = &entry;
    }
    return best;
}

// The best of each band, then the best of the rest, moved out of the scan list.
Channels pick_best(Entries scanned) {
    Channels best;
    size_t count = 0;
    for (const int band : {2, 5})
        if (channel_info *const found = strongest(scanned, band)) {
            LOGD("Found best channel for band %d: %s(%d): %d", band, found->bssid.get(),
                 found->freq, found->rssi);
            best[count++] = take(*found);
        }
    while (count < best.size()) {
        channel_info *const found = strongest(scanned, 0);
        if (found == nullptr)
            break;
        LOGD("         top channel: %s(%d): %d", found->bssid.get(), found->freq, found->rssi);
        best[count++] = take(*found);
    }
    return best;
}

void clear_remaining(Entries scanned) {
    LOGD("Clearing remaining channels");
    for (channel_info &entry : scanned) {
        if (is_empty(entry))
            continue;
        LOGD("    did not use %d (%s): %d", entry.freq, entry.bssid.get(), entry.rssi);
        entry = {};
    }
}

// A channel that is still among the best keeps its slot, so that the slots are taken in turn.
void refresh_known_channels(Channels &best) {
    for (channel_info &slot : g_known_channels) {
        if (is_empty(slot))
            continue;
        const auto same =
            std::ranges::find(best, slot.freq, [](const auto &entry) { return entry.freq; });
        slot = same != best.end() ? take(*same) : channel_info{};
    }
}

void place_in_known_channels(Channels &best) {
    for (channel_info &entry : best) {
        if (is_empty(entry))
            continue;
        const auto slot = std::ranges::find_if(g_known_channels, is_empty);
        if (slot != g_known_channels.end())
            *slot = take(entry);
        else
            LOGE("Inconsistent data: ran out of open slots in g_known_channels");
    }
}

// --- hop -----------------------------------------------------------------------------------------

// The next known access point in turn whose frequency is another; null when there is none.
const channel_info *next_target(int32_t current_frequency) {
    for (size_t tried = 0; tried < kKnownChannels; tried++) {
        known_index = (known_index + 1) % kKnownChannels;
        const channel_info &slot = g_known_channels[known_index];
        if (!is_empty(slot) && slot.freq != current_frequency)
            return &slot;
    }
    return nullptr;
}

void report_switch(const channel_info &old, const channel_info &now) {
    // As far as the new one's text goes.
    if (std::string_view(old.bssid.get()).starts_with(now.bssid.get())) {
        LOGI("Failed to switch bssid");
        LOGD("Did not switch bssid");
        return;
    }
    LOGI("Obtained new BSSID; switch successful");
    LOGD("bssid switch, old bssid: %s(%d), new bssid: %s(%d)", old.bssid.get(), old.freq,
         now.bssid.get(), now.freq);
}

void hop_from(const channel_info &old) {
    const channel_info *const target = next_target(old.freq);
    if (target == nullptr) {
        LOGE("failed to get bssid to switch to");
        return;
    }
    LOGI("Roaming to new bssid");
    LOGD("Roaming to %s", target->bssid.get());
    if (bssid_roam(target->bssid.get()) != 0) {
        LOGE("failed to roam to bssid");
        return;
    }
    const channel_info now = current_access_point();
    if (!now.bssid) {
        LOGE("failed to get new bssid");
        return;
    }
    report_switch(old, now);
}

void hop() {
    LOGD("Getting current bssid");
    const channel_info current = current_access_point();
    if (!current.bssid) {
        LOGE("could not get current bssid, skipping bssid switch");
        return;
    }
    LOGI("Current bssid obtained");
    LOGD("Current bssid: %s", current.bssid.get());
    update_known_channel_info();
    hop_from(current);
}

}  // namespace

void *device_network_hop_main(void * /*unused*/) {
    for (;;) {
        requests.acquire();
        hop();
    }
}

void device_network_hop_request() {
    requests.release();
}

int get_current_bssid(char **bssid, int32_t *frequency) {
    const MallocText status = new_reply();
    if (!status || !wait_for_link())
        return 0;
    sleep(1);
    if (wlan_monitor_ctrl_status(status.get(), kReplySize) != 0) {
        LOGE("failed to get status");
        return 0;
    }
    channel_info current;
    if (parse_link_status(status.get(), &current) == 0)
        return 0;
    *bssid = current.bssid.release();
    *frequency = current.freq;
    return 1;
}

int parse_link_status(const char *status, channel_info *link) {
    const char *bssid = supplicant_status_after(status, "bssid=");
    const char *end = bssid != nullptr ? strchr(bssid, '\n') : nullptr;
    if (end == nullptr) {
        LOGE("unexpected wpa supplicant status output");
        return 0;
    }
    MallocText address(strndup(bssid, static_cast<size_t>(end - bssid)));
    if (!address) {
        LOGE("strdup failed");
        return 0;
    }
    const char *frequency = supplicant_status_after(status, "freq=");
    if (frequency == nullptr) {
        LOGE("unexpected wpa supplicant status output");
        return 0;
    }
    const auto number = leading_number(frequency);
    if (!number) {
        LOGE("unexpected wpa_supplicant status output");  // the underscore tells the two apart
        return 0;
    }
    link->bssid = std::move(address);
    link->freq = *number;
    return 1;
}

int get_channel_information(channel_info *entries, int capacity) {
    const MallocText results = scan_malloc();
    return results ? parse_scan_results(results.get(), entries, capacity) : 0;
}

int parse_scan_results(const char *text, channel_info *entries, int capacity) {
    LOGD("Parsing scan results");
    const std::span<channel_info> room(entries, static_cast<size_t>(std::max(capacity, 0)));
    std::string_view results = without_cut_signal(text);
    if (pex_next_piece(results, '\n').empty()) {  // the line of titles
        LOGE(kUnexpectedScan);
        return 0;
    }
    int count = 0;
    for (;;) {
        const std::string_view line = pex_next_piece(results, '\n');
        if (line.empty())
            return count;
        LOGD("parsing line %.*s", static_cast<int>(line.size()), line.data());
        channel_info found;
        const line_kind kind = parse_scan_line(line, found);
        if (kind == line_kind::last)
            return count;
        if (kind == line_kind::skipped)
            continue;
        add_entry_to_device_list(nullptr, 0, nullptr, found.bssid.get(), "access-point", nullptr,
                                 nullptr, nullptr);
        count = keep(std::move(found), room, count);
    }
}

void update_known_channel_info() {
    std::array<channel_info, kScanEntries> scanned;
    const int count = get_channel_information(scanned.data(), kScanEntries);
    send_bssid_rssi_json(scanned.data(), count);
    Channels best = pick_best(scanned);
    clear_remaining(scanned);
    refresh_known_channels(best);
    place_in_known_channels(best);
}

void send_bssid_rssi_json(const channel_info *entries, int count) {
    const Json list(json_array());
    const Json message(list ? json_pack("{s:O}", "wifiScanResults", list.get()) : nullptr);
    if (!message) {
        LOGE("Could not allocate new json objects");
        return;
    }
    for (int i = 0; i < count; i++) {
        const channel_info &entry = entries[i];
        json_t *item = json_pack("{s:s,s:i,s:i}", "bssid", entry.bssid.get(), "rssi", entry.rssi,
                                 "freq", entry.freq);
        if (item == nullptr || json_array_append_new(list.get(), item) != 0) {
            LOGE("Could not allocate new json objects");
            break;
        }
    }
    const MallocText text(json_dumps(message.get(), JSON_COMPACT));
    if (!text) {
        LOGE("Could not allocate new json objects");
        return;
    }
    LOGD("sending object %s", text.get());
    mqtt_client_send(topic::kRobotDebug, static_cast<int>(strlen(text.get())), text.get());
}

int bssid_roam(const char *bssid) {
    const MallocText reply = new_reply();
    return reply ? wlan_monitor_ctrl_roam(bssid, reply.get(), kReplySize) : -1;
}
