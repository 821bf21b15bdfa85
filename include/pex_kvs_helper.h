// Texts in the robot's settings store. Any thread.
#pragma once

#include <cstddef>

int pex_kvs_get_key_str(const char *key, char *buffer, size_t *length);  // as pex_kvs_get_key
size_t pex_kvs_get_key_data_size(const char *key);                       // bytes, 0 when missing

// The value, freed by the caller; null when missing, empty or unreadable.
char *pex_kvs_get_key_str_malloc(const char *key);

// The same, but outlasts a shortage of memory or descriptors: for those who would take a value that
// they cannot read for one that was never saved. Null with the errno of a shortage that went on.
char *pex_kvs_get_key_str_at_last_malloc(const char *key);

// Stores a text; values of secret keys are logged as "*". 0 or -1.
int pex_kvs_set_key_str(const char *key, const char *value);

// The epoch belongs to another robot process: does nothing here, returns 3.
int robot_epoch_generate_new();

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

int pex_kvs_key_exists(const char *key);  // 0 or -1

// Deletes the key unless it begins with "product.". 0 or -1.
int kvs_factory_reset_key(const char *key);

int pex_kvs_wipe_all_keys();  // always -1, also when every key was deleted
int pex_kvs_factory_reset();  // the OR of kvs_factory_reset_key over all keys

int pex_kvs_set_key_owner(const char *key);           // owner root, group apps; 0 or -1
int pex_kvs_is_valid_robot_id(const char *robot_id);  // 1 or 0
char *pex_kvs_get_default_language_malloc();          // freed by the caller, or null
