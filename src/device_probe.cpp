#include "device_probe.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <string_view>

#include "arping.h"
#include "log.h"
#include "owned.h"
#include "pex_misc.h"
#include "wifi_settings.h"

#define LOG_SOURCE "src/device_pinger"  // one source to log readers, as the pinger probes most

namespace {

constexpr char kModule[] = "netwarden";
constexpr size_t kCommandSize = 128;
constexpr size_t kLineSize = 255;

// What a device announced as its address reaches a shell only if it is one.
bool is_ipv4(const char *text) {
    in_addr parsed;
    return text != nullptr && inet_pton(AF_INET, text, &parsed) == 1;
}

using Command = std::array<char, kCommandSize>;

enum class probe { learn_mac, keep_alive, wait };

bool build_command(probe kind, const char *ip, Command &command) {
    const char *interface = wifi_get_sta_interface();
    if (interface == nullptr || *interface == '\0') {
        LOGE("no valid interface for pinging");
        return false;
    }
    const bool learns = kind == probe::learn_mac;
    const char *tail = learns ? " | grep reply" : kind == probe::keep_alive ? " &" : "";
    const int length = snprintf(command.data(), command.size(), "sudo arping %s-I%s -c2 -f %s%s",
                                learns ? "" : "-q ", interface, ip, tail);
    if (length >= 0 && static_cast<size_t>(length) < command.size())
        return true;
    LOGE("broken ping packet %s", ip);
    return false;
}

void store_reply(ping_request &request, std::string_view mac) {
    if (request.mac == nullptr) {
        LOGE("NULL mac_address in entry");
        return;
    }
    request.mac[mac.copy(request.mac, kProbeMacSize - 1)] = '\0';
    LOGD("updated mac %s for ip %s\n", request.mac, request.ip);
}

bool read_replies(FILE *output, ping_request &request) {
    std::array<char, kLineSize> line{};
    bool replied = false;
    while (pex_read_line(output, line))
        if (const auto mac = arping_reply(line.data(), arping_peer::device)) {
            store_reply(request, *mac);
            replied = true;
        }
    return replied;
}

bool learn_mac(const char *command, ping_request &request) {
    const Pipe output(command);
    if (!output) {
        LOGE("Failed to run command %s", command);
        return false;
    }
    if (read_replies(output.get(), request))
        return true;
    LOGE("no reply from %s\n", request.ip);
    return false;
}

int run_arping(const char *command) {
    LOGD("%s\n", command);
    LOGD("\nCalling pex_system(%s) now...", command);
    return pex_system(kModule, command, nullptr);
}

}  // namespace

int ping_device(ping_request *request, int want_mac, int wait) {
    if (!is_ipv4(request->ip)) {
        LOGE("no valid ip address to ping");
        return 0;
    }
    const probe kind = want_mac != 0 ? probe::learn_mac
                       : wait != 0   ? probe::wait
                                     : probe::keep_alive;
    Command command{};
    if (!build_command(kind, request->ip, command))
        return 0;
    if (kind == probe::learn_mac)
        return learn_mac(command.data(), *request) ? 1 : 0;
    if (run_arping(command.data()) != 0 || kind == probe::keep_alive)
        return 0;
    LOGD("Rx arping reply from %s\n", request->ip);
    return 1;
}
