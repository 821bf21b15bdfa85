#include "supplicant_config.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "kvs_keys.h"
#include "log.h"
#include "owned.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "wifi_settings.h"
#include "wifi_state.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

constexpr char kConfigPath[] = "/etc/wpa_supplicant.conf";
constexpr char kDefaultConfig[] =
    "eapol_version=1\n"
    "fast_reauth=1\n"
    "ap_scan=1\n"
    "filter_ssids=1\n"
    "ctrl_interface=/var/run/wpa_supplicant\n"
    "ctrl_interface_group=apps\n";

// --- the supplicant's configuration --------------------------------------------------------------

// The text of the file, cut at 1023 characters. Nothing from outside but hexadecimal digits gets
// into it.
class Config {
  public:
    void open_block(const char *ssid) {
        add("network={\n\tssid=%s\n\tkey_mgmt=NONE\n\tscan_ssid=1\n}\n", ssid);
        blocks_++;
    }
    void wpa_block(const char *ssid, const char *psk) {
        add("network={\n\tssid=%s\n\tpsk=%s\n\tpriority=2\n\tscan_ssid=1\n}\n", ssid, psk);
        blocks_++;
    }
    void wep_block(const char *ssid, const char *key) {
        add("network={\n\tssid=%s\n\twep_key0=%s\n\twep_tx_keyidx=0\n\tkey_mgmt=NONE\n"
            "\tpriority=1\n\tscan_ssid=1\n}\n",
            ssid, key);
        blocks_++;
    }
    void finish() {
        add("%s", kDefaultConfig);
        LOGD("blocks %d offset %d remaining %d\n", blocks_, static_cast<int>(used_),
             static_cast<int>(text_.size() - used_));
    }
    int blocks() const { return blocks_; }
    const char *text() const { return text_.data(); }

  private:
    void add(const char *format, ...) __attribute__((format(printf, 2, 3)));

    std::array<char, 1024> text_{};
    size_t used_ = 0;
    int blocks_ = 0;
};

void Config::add(const char *format, ...) {
    const size_t room = text_.size() - used_;
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text_.data() + used_, room, format, args);
    va_end(args);
    used_ += std::min(static_cast<size_t>(std::max(length, 0)), room - 1);
}

// What the blocks are made of.
struct Network {
    std::string ssid;    // hexadecimal text
    std::string secret;  // empty for an open network
    MallocText name;     // the SSID decoded, null when that is not possible
};

// Each reading of a secret adds a block or leaves it; false only without memory.

bool read_as_open(Config &config, const Network &network) {
    config.open_block(network.ssid.c_str());
    LOGI("OPEN network block generated");
    return true;
}

bool read_as_psk(Config &config, const Network &network) {
    if (ishexstring(network.secret.c_str()) == 0)
        return true;
    config.wpa_block(network.ssid.c_str(), network.secret.c_str());
    LOGI("WPA PSK network block generated");
    return true;
}

bool read_as_passphrase(Config &config, const Network &network) {
    std::array<char, 65> psk{};
    if (!network.name ||
        wpa_passphrase(network.name.get(), network.secret.c_str(), psk.data(), psk.size()) != 0) {
        LOGE("wpa_passphrase failed \n");
        return true;
    }
    config.wpa_block(network.ssid.c_str(), psk.data());
    LOGI("WPA passphrase network block generated");
    return true;
}

template <int bits>
bool read_as_wep_digits(Config &config, const Network &network) {
    if (ishexstring(network.secret.c_str()) == 0)
        return true;
    config.wep_block(network.ssid.c_str(), network.secret.c_str());
    LOGI("WEP-%d network block generated", bits);
    return true;
}

template <int bits>
bool read_as_wep_text(Config &config, const Network &network) {
    const MallocText key(hex_encode_str_malloc(network.secret.data(), network.secret.size()));
    if (!key)
        return false;
    config.wep_block(network.ssid.c_str(), key.get());
    LOGI("WEP-%d network block generated", bits);
    return true;
}

// Which readings a secret's length allows (IEEE 802.11: passphrases of 8 to 63 characters, WEP keys
// of 40 and 104 bits), in the order of the blocks.
struct reading {
    size_t shortest;
    size_t longest;
    bool (*add)(Config &, const Network &);
};
constexpr reading kReadings[] = {
    {0, 0, read_as_open},
    {64, 64, read_as_psk},
    {8, 63, read_as_passphrase},
    {13, 13, read_as_wep_text<104>},
    {26, 26, read_as_wep_digits<104>},
    {5, 5, read_as_wep_text<40>},
    {10, 10, read_as_wep_digits<40>},
};

bool add_blocks(Config &config, const Network &network) {
    const size_t length = network.secret.size();
    return std::all_of(std::begin(kReadings), std::end(kReadings), [&](const reading &row) {
        return length < row.shortest || length > row.longest || row.add(config, network);
    });
}

// Null with the reason in `*error_code`.
std::unique_ptr<Config> make_config(const Network &network, int32_t *error_code) {
    if (ishexstring(network.ssid.c_str()) == 0) {
        *error_code = WIFI_BAD_CONFIG;
        LOGE("invalid ssid, setting error_code to WIFI_BAD_CONFIG");
        return nullptr;
    }
    std::unique_ptr<Config> config(new (std::nothrow) Config);
    if (!config || !add_blocks(*config, network)) {
        *error_code = WIFI_BAD_CONFIG;
        LOGE("out of memory, setting error_code to WIFI_BAD_CONFIG");
        return nullptr;
    }
    config->finish();
    if (config->blocks() == 0) {
        *error_code = WIFI_AUTH_ERROR;
        LOGE("no network blocks generated, setting error_code to WIFI_AUTH_ERROR");
        return nullptr;
    }
    return config;
}

// --- the configuration file ----------------------------------------------------------------------

// Created for its owner only, for it holds the key; the mode of a file that is there stays.
File open_config_file() {
    Fd fd(open(kConfigPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    File stream(fd ? fdopen(fd.get(), "w+") : nullptr);
    if (stream)
        fd.release();
    else
        LOGE("cannot open %s", kConfigPath);
    return stream;
}

// Replaces what follows `key` up to the next line of its block by "*".
void mask_values(char *text, const char *key) {
    for (char *value = strstr(text, key); value != nullptr; value = strstr(value, key)) {
        value += strlen(key);
        char *const line_end = strstr(value, "\n\t");
        char *const end = line_end != nullptr ? line_end : value + strlen(value);
        if (end == value)
            continue;
        *value = '*';
        memmove(value + 1, end, strlen(end) + 1);
    }
}

void log_masked(const char *text) {
    const MallocText copy(strdup(text));
    if (!copy) {
        LOGE("out of memory writing %s file", kConfigPath);
        return;
    }
    mask_values(copy.get(), "psk=");
    mask_values(copy.get(), "wep_key0=");
    LOGI("writing %s file with %s", kConfigPath, copy.get());
}

bool write_config_file(const char *text, bool is_logged) {
    File stream = open_config_file();
    if (!stream)
        return false;
    const bool written = fputs(text, stream.get()) >= 0;
    if (is_logged)
        log_masked(text);
    if (fclose(stream.release()) == 0 && written)
        return true;
    LOGE("cannot write %s", kConfigPath);
    return false;
}

// --- the settings --------------------------------------------------------------------------------

std::string saved_text(const char *key) {
    const MallocText value(pex_kvs_get_key_str_at_last_malloc(key));
    return value ? value.get() : "";
}

// The pending settings, else the saved ones; an empty SSID when there are none.
Network settings() {
    const pending_settings pending = wifictl_copy_pending();
    if (pending.ssid[0] != '\0')
        return {pending.ssid, pending.pass, nullptr};
    return {saved_text(kvs_key::kSsid), saved_text(kvs_key::kPassword), nullptr};
}

// What cannot be decoded is refused later, or still serves a network without passphrase.
MallocText decode_ssid(const std::string &ssid) {
    LOGD("Encoded SSID: %s", pex_one_line(ssid.c_str()).c_str());
    MallocText name(hex_decode_str_malloc(ssid.c_str()));
    if (!name)
        LOGW("Could not decode ssid");
    else if (non_print_char_check(name.get()) != 0)
        LOGD("SSID has non-printable characters");
    else
        LOGD("Provisioning for SSID %s", name.get());
    return name;
}

}  // namespace

void wifi_set_wpa_default_config() {
    write_config_file(kDefaultConfig, false);
}

bool supplicant_config_write(int32_t *error_code) {
    Network network = settings();
    if (network.ssid.empty()) {
        *error_code = WIFI_BAD_CONFIG;
        LOGE("no SSID set/saved");
        return false;
    }
    network.name = decode_ssid(network.ssid);
    const auto config = make_config(network, error_code);
    if (!config || *error_code == WIFI_BAD_CONFIG) {
        LOGE("newfile is null");
        return false;
    }
    if (*error_code == WIFI_AUTH_ERROR)
        return false;
    if (!write_config_file(config->text(), true)) {
        *error_code = WIFI_BAD_CONFIG;
        return false;
    }
    return true;
}
