// The robot's persistent settings: one file per dotted key. No lock is taken. Any thread.
// Other processes write here too: a link is not followed, and only a regular file is read or
// written, so that no call waits for the other end of a pipe.
#pragma once

#include <cstddef>

// The path of a key's file, freed by the caller, or null. The key is not checked: one with a "/"
// names a file outside the store, and callers are trusted.
char *create_fname_malloc(const char *key);

// Writes a whole file in place, mode 0660, and syncs it. 0 or -1; an empty value is refused.
int pex_write_buf_to_file(const char *path, const void *buffer, size_t length);

int pex_kvs_set_key(const char *key, const void *buffer, size_t length);  // 0 or -1

// Reads a value, trailing line ends cut, terminated; `*length` becomes the text's length plus 1.
// 0 or -1: then `*length` is 0, or the length needed when the buffer was too short.
int pex_kvs_get_key(const char *key, char *buffer, size_t *length);

int pex_kvs_del_key(const char *key);  // 0 or -1

// Calls back with every key, which may be deleted by it. The OR of the results, or -1.
int pex_kvs_foreach_key(int (*callback)(const char *key));

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// Creates a directory path of fewer than 64 characters. 0, or -1 (also when a part exists).
int pex_kvs_create_dir(const char *path);
