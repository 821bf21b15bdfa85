// The census of the other devices on the home network. Any thread, unless said otherwise.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "owned.h"

// One device; `ip` and `mac` are its keys. Everything in it is guarded by the list's lock.
struct device_entry {
    MallocText name;
    uint32_t name_rank = 0;  // of the source of the name; 0 without one
    MallocText ip;           // IPv4, dotted
    MallocText mac;          // as store_arping_mac_address_alloc makes it
    MallocText odd_mac;      // as it was given when it makes no MAC: the device is known by it
    MallocText type;
    MallocText google_cd;
    MallocText hostname;
    MallocText md;
    device_entry *next = nullptr;
    device_entry **back = nullptr;  // what points here
};

// Forgets all entries without freeing them. Once, at the start.
void init_device_list();

// Removes and frees every entry.
void clear_device_list();

int is_device_list_empty();  // 1 or 0

// Adds a device or completes a known one with what it lacks; a name replaces one of a lower rank.
// Any text may be null, but not both keys. Non-null only for a new device; it may go at any time.
device_entry *add_entry_to_device_list(const char *name, uint32_t name_rank, const char *ip,
                                       const char *mac, const char *type, const char *google_cd,
                                       const char *hostname, const char *md);

// Gives a device of that ip that has no mac yet this one, normalised. 1; 0 when there is no such
// device (any more), -1 without memory. Leaves the updated flag alone.
int learn_device_mac(const char *ip, const char *mac);

// The texts of every device, in the order of the list.
struct device_texts {
    std::optional<std::string> name, ip, mac, type, google_cd, hostname, md;
};
std::vector<device_texts> copy_device_list();

// Whether anything changed since the flag was cleared: 1 or 0.
int device_list_updated();
void clear_device_list_updated();

// A MAC address with two digits in each part, at most 23 characters, freed by the caller; null
// without any part or memory.
char *store_arping_mac_address_alloc(const char *text);

// --- entry by entry ------------------------------------------------------------------------------
// For programs built on this list that look at its entries themselves; the daemon copies the texts.

// 0; -1 after an error (logged, and a second waited): the caller goes on as if it held the lock.
int lock_device_list();
int unlock_device_list();

// The first entry with that ip, that mac, or both where both are given; null when there is none.
// The caller of the first holds the lock; an entry of the second may be gone when it is returned.
device_entry *find_device_entry(const char *ip, const char *mac);
device_entry *find_device_entry_locked(const char *ip, const char *mac);

// The first entry for null, else the one behind `previous`; null at the end or when `previous` has
// gone. What is returned may go at any time: to read texts, copy the list.
device_entry *get_next_device_entry(const device_entry *previous);

// Unlinks and frees. 1, or 0 for null (the second only). The caller holds the lock.
int remove_device_entry(device_entry *entry);
int remove_device_entry_if_any(device_entry *entry);
