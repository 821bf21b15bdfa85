#include "wifi_command.h"

#include <pthread.h>

#include <cerrno>

#include "log.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/wifi_control"  // one source to log readers for all of Wi-Fi control

namespace {

// Of the C library's normal kind: a second lock by the same thread is defined, it blocks.
pthread_mutex_t command_lock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

WifiCommandLock::WifiCommandLock() {
    pthread_mutex_lock(&command_lock);
}
WifiCommandLock::~WifiCommandLock() {
    if (releases_)
        pthread_mutex_unlock(&command_lock);
}

int wifi_system_command(const char *command) {
    if (command == nullptr) {
        LOGE("invalid input");
        return -1;
    }
    const WifiCommandLock lock;
    const auto [end, value] = pex_run(command);
    switch (end) {
        case command_end::done:
            LOGD("system cmd returned EX_OK");
            return 0;
        case command_end::failed:
            LOGE("%s returned status %d", command, value);
            return -1;
        case command_end::signalled:
            return value;
        case command_end::reaped:
            LOGD("system() returned errno %d for %s", errno, command);
            return 0;
        case command_end::not_run:
            break;
    }
    LOGE("system() failed for %s", command);
    return -1;
}

int wifi_command_logged(const std::string &command) {
    const int result = wifi_system_command(command.c_str());
    if (wifi_command_failed(result))
        LOGE("wifi_system_command failed");
    return result;
}

int wifi_interface_down(const char *ifname) {
    return wifi_command_logged(pex_format("%s %s", "sudo ifdown", ifname));
}
int wifi_interface_up(const char *ifname) {
    return wifi_command_logged(pex_format("%s %s", "sudo ifup", ifname));
}
