#include "supplicant_status.h"

#include <array>
#include <cstring>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"
#include "wifi_command.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

supplicant_property supplicant_status_property(std::string_view line) {
    const std::string_view name = pex_next_piece(line, '=');
    return {std::string(name), std::string(pex_next_piece(line, '='))};
}

const char *supplicant_status_after(const char *status, const char *key) {
    const char *const found = strstr(status, key);
    return found != nullptr ? found + strlen(key) : nullptr;
}

char *get_key_mgmt_protocol() {
    // The name is fixed and there is no sudo, whatever the station's interface.
    const char *const command = "wpa_cli status -iwlan0 | grep key_mgmt | sed s/\"^.*=\"//";
    const WifiCommandLock lock;
    Pipe pipe(command);
    if (!pipe) {
        LOGE("Failed to run command %s", command);
        return nullptr;
    }
    std::array<char, 256> line{};
    const bool found = pex_read_line(pipe.get(), line);
    if (pipe.close() == -1)
        LOGE("error closing pipe");
    const size_t length = strlen(line.data());
    if (!found || length < 2) {
        LOGW("Unable to get key management protocol\n");
        return nullptr;
    }
    return strndup(line.data(), length - 1);
}
