// The supplicant's configuration file. The app sends a secret but not the kind of security, so the
// supplicant is given one network block for every reading of the secret and picks by priority.
#pragma once

#include <cstdint>

// Rewrites the file with the default text only.
void wifi_set_wpa_default_config();

// Writes it for the pending, else the saved settings. False with the Wi-Fi state that tells why in
// `*error_code`, which the caller presets to -1: a slot that holds the error of an earlier step is
// believed.
bool supplicant_config_write(int32_t *error_code);
