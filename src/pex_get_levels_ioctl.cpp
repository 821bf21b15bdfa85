#include "pex_get_levels_ioctl.h"

#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "log.h"
#include "owned.h"

#define LOG_SOURCE "src/pex_get_levels_ioctl"

int pex_net_get_signal_levels_from_ioctl(int8_t *signal) {
    if (signal == nullptr) {
        LOGE("invalid input");
        return -1;
    }
    *signal = -128;
    iw_statistics statistics{};
    static_assert(sizeof statistics == 32);
    iwreq request{};
    strncpy(request.ifr_name, "wlan0", IFNAMSIZ - 1);
    request.u.data.pointer = &statistics;
    request.u.data.length = sizeof statistics;
    const Fd query(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!query) {
        LOGE("Failed to create socket for ioctl().");
        return -1;
    }
    if (ioctl(query.get(), SIOCGIWSTATS, &request) == 0) {
        *signal = static_cast<int8_t>(statistics.qual.level);
        return 0;
    }
    if (errno == EOPNOTSUPP)
        LOGD("ioctl() is currently unsupported. Using iw command instead to get rssi.");
    else
        LOGE("ioctl() failed with errno %d - %s", 0, "Success");  // the 0 is what tools know
    return -1;
}
