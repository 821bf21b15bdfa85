#include "home_device_list.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "log.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/home_device_list"

namespace {

constexpr size_t kMacSize = 24;

// More than any home has, and what a robot's memory bears: whoever is on the network can announce
// as many devices as he likes.
constexpr size_t kMostDevices = 4096;

// Tells a release by a thread that does not hold it, instead of going wrong.
pthread_mutex_t list_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
device_entry *first = nullptr;
device_entry **tail = &first;  // the last entry's next link
size_t entries = 0;
bool is_told_full = false;  // once until the list is cleared

std::mutex updated_lock;
bool is_updated = false;

class ListLock {
  public:
    ListLock() { lock_device_list(); }
    ~ListLock() { unlock_device_list(); }
    ListLock(const ListLock &) = delete;
    ListLock &operator=(const ListLock &) = delete;
};

const char *shown(const char *text) {
    return text != nullptr ? text : "(null)";
}

int check_lock(int error, const char *what) {
    if (error == 0)
        return 0;
    errno = error;
    LOGE("%s device error %d", what, error);
    sleep(1);
    return -1;
}

bool is_same(const MallocText &text, const char *other) {
    return text && strcmp(text.get(), other) == 0;
}

bool matches(const device_entry &entry, const char *ip, const char *mac) {
    if (ip != nullptr && !is_same(entry.ip, ip))
        return false;
    return mac == nullptr || is_same(entry.mac, mac) || is_same(entry.odd_mac, mac);
}

void append(device_entry *entry) {
    entry->next = nullptr;
    entry->back = tail;
    *tail = entry;
    tail = &entry->next;
    entries++;
}

void unlink(device_entry &entry) {
    if (entry.next != nullptr)
        entry.next->back = entry.back;
    else
        tail = entry.back;
    *entry.back = entry.next;
    entries--;
}

std::optional<std::string> copy(const MallocText &text) {
    return text ? std::optional<std::string>(text.get()) : std::nullopt;
}

const char *shown(const std::optional<std::string> &text) {
    return text ? text->c_str() : "(null)";
}

// --- looking up ----------------------------------------------------------------------------------

// What a search tells the log, kept until the lock is released: the log may be slow.
struct Search {
    device_entry *entry = nullptr;
    bool is_list_empty = false;
    device_texts texts;  // name and keys of what was found
};

// The lock is held.
Search search(const char *ip, const char *mac) {
    Search result;
    result.is_list_empty = first == nullptr;
    if (ip == nullptr && mac == nullptr)
        return result;
    for (device_entry *entry = first; entry != nullptr; entry = entry->next)
        if (matches(*entry, ip, mac)) {
            result.entry = entry;
            result.texts.name = copy(entry->name);
            result.texts.ip = copy(entry->ip);
            result.texts.mac = copy(entry->mac);
            break;
        }
    return result;
}

void log_search(const Search &result, const char *ip, const char *mac) {
    if (result.is_list_empty)
        return;
    if (ip == nullptr && mac == nullptr) {
        LOGE("(find_device_entry) invalid ip & mac");
        return;
    }
    LOGD("looking for %s", ip != nullptr ? ip : mac);
    if (result.entry != nullptr)
        LOGD(" found entry - name %s ip %s mac %s", pex_one_line(shown(result.texts.name)).c_str(),
             shown(result.texts.ip), shown(result.texts.mac));
}

// --- adding --------------------------------------------------------------------------------------

struct Description {
    const char *name;
    uint32_t name_rank;
    const char *ip;
    const char *mac;
    const char *type;
    const char *google_cd;
    const char *hostname;
    const char *md;
};

// The outcome of a change, for the log and the updated flag once the lock is released.
struct Change {
    Search search;
    device_entry *created = nullptr;
    bool is_known = false;
    bool is_change = false;
    const char *error = nullptr;
};

// False when the text could not be copied.
bool replace(MallocText &field, const char *text, Change &change) {
    MallocText fresh(strdup(text));
    if (!fresh) {
        change.error = "strdup error";
        return false;
    }
    field = std::move(fresh);
    return true;
}

// What is there already stays.
bool fill(MallocText &field, const char *text, Change &change) {
    if (field || text == nullptr)
        return true;
    if (!replace(field, text, change))
        return false;
    change.is_change = true;
    return true;
}

bool fill_name(device_entry &entry, const Description &given, Change &change) {
    if (given.name == nullptr || given.name_rank <= entry.name_rank)
        return true;
    if (!replace(entry.name, given.name, change))
        return false;
    entry.name_rank = given.name_rank;
    change.is_change = true;
    return true;
}

// A device whose address makes no sense is listed without it, once.
void fill_mac(device_entry &entry, const Description &given, Change &change) {
    if (entry.mac || given.mac == nullptr)
        return;
    entry.mac.reset(store_arping_mac_address_alloc(given.mac));
    if (entry.mac) {
        change.is_change = true;
        return;
    }
    change.error = "store_arping_mac_address_alloc failed";
    if (!entry.odd_mac)
        entry.odd_mac.reset(strdup(given.mac));
}

// What was filled in before a failure stays, but is no change.
bool complete(device_entry &entry, const Description &given, Change &change) {
    if (fill_name(entry, given, change) && fill(entry.google_cd, given.google_cd, change) &&
        fill(entry.type, given.type, change) && fill(entry.hostname, given.hostname, change) &&
        fill(entry.md, given.md, change)) {
        fill_mac(entry, given, change);
        return true;
    }
    change.is_change = false;
    return false;
}

void create(const Description &given, Change &change) {
    if (entries >= kMostDevices) {
        change.error = std::exchange(is_told_full, true) ? nullptr : "too many devices";
        return;
    }
    std::unique_ptr<device_entry> entry(new (std::nothrow) device_entry);
    if (!entry) {
        change.error = "calloc error";
        return;
    }
    if (!fill(entry->ip, given.ip, change) || !complete(*entry, given, change))
        return;
    change.is_change = true;
    change.created = entry.release();
    append(change.created);
}

void complete_known(device_entry &entry, const Description &given, Change &change) {
    change.is_known = entry.ip && entry.mac && given.name == nullptr;
    if (change.is_known)
        return;
    if (!entry.ip && given.ip != nullptr && !replace(entry.ip, given.ip, change))
        return;  // an address alone is no change
    complete(entry, given, change);
}

// The lock is held.
Change change_list(const Description &given) {
    Change change;
    change.search = search(given.ip, given.mac);
    if (change.search.entry == nullptr)
        create(given, change);
    else
        complete_known(*change.search.entry, given, change);
    return change;
}

void set_updated(bool value) {
    const std::lock_guard guard(updated_lock);
    is_updated = value;
}

}  // namespace

// --- the list ------------------------------------------------------------------------------------

int lock_device_list() {
    return check_lock(pthread_mutex_lock(&list_lock), "lock");
}
int unlock_device_list() {
    return check_lock(pthread_mutex_unlock(&list_lock), "unlock");
}

void init_device_list() {
    const ListLock guard;
    first = nullptr;
    tail = &first;
    entries = 0;
}

void clear_device_list() {
    lock_device_list();
    device_entry *entry = std::exchange(first, nullptr);
    tail = &first;
    entries = 0;
    is_told_full = false;
    unlock_device_list();
    // Nobody else sees these any more.
    while (entry != nullptr) {
        const std::unique_ptr<device_entry> removed(std::exchange(entry, entry->next));
        LOGD("removing entry %s", shown(removed->ip.get()));
    }
}

int is_device_list_empty() {
    const ListLock guard;
    return first == nullptr ? 1 : 0;
}

device_entry *find_device_entry(const char *ip, const char *mac) {
    const Search result = search(ip, mac);
    log_search(result, ip, mac);
    return result.entry;
}

device_entry *find_device_entry_locked(const char *ip, const char *mac) {
    lock_device_list();
    const Search result = search(ip, mac);
    unlock_device_list();
    log_search(result, ip, mac);
    return result.entry;
}

device_entry *get_next_device_entry(const device_entry *previous) {
    const ListLock guard;
    if (previous == nullptr)
        return first;
    // Looked up by its place: its texts may have been freed.
    device_entry *entry = first;
    while (entry != nullptr && entry != previous)
        entry = entry->next;
    return entry != nullptr ? entry->next : nullptr;
}

std::vector<device_texts> copy_device_list() {
    const ListLock guard;
    std::vector<device_texts> copies;
    for (const device_entry *entry = first; entry != nullptr; entry = entry->next)
        copies.push_back({copy(entry->name), copy(entry->ip), copy(entry->mac), copy(entry->type),
                          copy(entry->google_cd), copy(entry->hostname), copy(entry->md)});
    return copies;
}

device_entry *add_entry_to_device_list(const char *name, uint32_t name_rank, const char *ip,
                                       const char *mac, const char *type, const char *google_cd,
                                       const char *hostname, const char *md) {
    if (ip == nullptr && mac == nullptr) {
        LOGE("invalid input");
        return nullptr;
    }
    lock_device_list();
    const Change change = change_list({name, name_rank, ip, mac, type, google_cd, hostname, md});
    unlock_device_list();
    log_search(change.search, ip, mac);
    if (change.is_known)
        LOGD("(add_entry_to_device_list) already known %s", shown(ip));
    if (change.error != nullptr)
        LOGE("%s", change.error);
    if (change.is_change) {
        LOGD("(add_entry_to_device_list) list updated");
        set_updated(true);
    }
    return change.created;
}

int learn_device_mac(const char *ip, const char *mac) {
    MallocText normalised(store_arping_mac_address_alloc(mac));
    if (!normalised)
        return -1;
    const ListLock guard;
    for (device_entry *entry = first; entry != nullptr; entry = entry->next)
        if (is_same(entry->ip, ip) && !entry->mac) {
            entry->mac = std::move(normalised);
            return 1;
        }
    return 0;
}

int remove_device_entry(device_entry *entry) {
    const std::unique_ptr<device_entry> removed(entry);
    unlink(*removed);
    LOGD("removing entry %s", shown(removed->ip.get()));
    return 1;
}

int remove_device_entry_if_any(device_entry *entry) {
    return entry != nullptr ? remove_device_entry(entry) : 0;
}

// --- flag and texts ------------------------------------------------------------------------------

int device_list_updated() {
    const std::lock_guard guard(updated_lock);
    return is_updated ? 1 : 0;
}

void clear_device_list_updated() {
    set_updated(false);
}

char *store_arping_mac_address_alloc(const char *text) {
    std::string normalised;
    std::string_view rest = text != nullptr ? text : "";
    while (normalised.size() < kMacSize) {
        const std::string_view part = pex_next_piece(rest, ':');
        if (part.empty())
            break;
        if (!normalised.empty())
            normalised += ':';
        if (part.size() < 2)
            normalised += '0';
        normalised += part.substr(0, kMacSize);
    }
    return normalised.empty() ? nullptr : strndup(normalised.c_str(), kMacSize - 1);
}
