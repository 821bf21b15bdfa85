#include "gateway_ping.h"

#include <arpa/inet.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "arping.h"
#include "log.h"
#include "owned.h"
#include "pex_misc.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"

#define LOG_SOURCE "src/gateway_pinger"  // one source to log readers, with the watchdog's lines

namespace {

constexpr size_t kLineSize = 256;

gateway_answer find_reply(FILE *output) {
    const MallocText line(static_cast<char *>(malloc(kLineSize)));
    if (!line) {
        LOGE("malloc error");
        return gateway_answer::not_run;
    }
    while (pex_read_line(output, {line.get(), kLineSize}))
        if (const auto mac = arping_reply(line.get(), arping_peer::gateway)) {
            LOGD("received gateway reply, mac addr: %.*s", static_cast<int>(mac->size()),
                 mac->data());
            return gateway_answer::answered;
        }
    return gateway_answer::silent;
}

}  // namespace

bool gateway_ping_has_target(const netinfo &info) {
    return info.addr != 0 && info.gw != 0;
}

char *create_arping_cmd_str_malloc() {
    constexpr char kFormat[] = "sudo arping -I%s -c1 %s -w 2 ";
    netinfo info;
    wifi_get_netinfo(&info);
    if (!gateway_ping_has_target(info)) {
        LOGI("no gateway to ping");
        return nullptr;
    }
    std::array<char, INET_ADDRSTRLEN> gateway{};
    const uint32_t address = info.gw;
    inet_ntop(AF_INET, &address, gateway.data(), gateway.size());
    const char *interface = wifi_get_sta_interface();
    const size_t size = strlen(interface) + strlen(gateway.data()) + sizeof kFormat;
    MallocText command(static_cast<char *>(malloc(size)));
    if (!command) {
        LOGE("%s: out of memory", "create_arping_cmd_str_malloc");
        return nullptr;
    }
    const int length = snprintf(command.get(), size, kFormat, interface, gateway.data());
    if (length < 0 || static_cast<size_t>(length) >= size) {
        LOGE("%s: broken ping packet %s", "create_arping_cmd_str_malloc", kFormat);
        return nullptr;
    }
    return command.release();
}

gateway_answer gateway_ping(const char *command) {
    const Pipe output(command);
    if (output)
        return find_reply(output.get());
    LOGE("popen failed");
    return gateway_answer::not_run;
}

int gateway_pinger_arping_once(const char *command) {
    const MallocText built(command == nullptr ? create_arping_cmd_str_malloc() : nullptr);
    const char *line = command != nullptr ? command : built.get();
    return line != nullptr && gateway_ping(line) == gateway_answer::answered ? 1 : 0;
}
