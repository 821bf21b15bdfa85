// The robot's product software version and language packs, from the robot's own tools. Any thread.
#pragma once

#include <cstddef>

// The product's software version, read once and kept; not freed by the caller. Null while the tool
// has no answer.
const char *pex_get_product_version_string();

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// Language packs; freed by the caller, or null.
char *pex_get_lang_pack_id_malloc();
char *pex_get_extra_lang_pack_id_malloc();
char *pex_get_lang_pack_version_malloc();
char *pex_get_extra_lang_pack_version_malloc();

int pex_get_hostname(char *buffer, size_t length);  // 0 or -1
