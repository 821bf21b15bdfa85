// The radio's regulatory domain, from the robot's product setting.
#pragma once

// Applies a region's name or a two-letter country code (ISO 3166-1 alpha-2); null or anything else
// resets the domain. 0 when the requested domain is in force, else -1 (always for a reset). Blocks
// for seconds. Main thread, before the Wi-Fi threads run.
int wifi_regdom_utils_set_regdomain(const char *value);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// Replaces the country "BR" by "00" wherever the radio's NV file names it, with a backup beside it.
// 0 when a patched copy was written, else -1.
int wifi_regdom_utils_patch_nv_file();
