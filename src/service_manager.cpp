#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/service_manager"

namespace {

Fd manager;

// A path, or a name in the kernel's own room behind a "@".
Fd connect_to(std::string_view name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() < 2 || name.size() >= sizeof address.sun_path ||
        (name[0] != '/' && name[0] != '@'))
        return Fd();
    name.copy(address.sun_path, name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    Fd made = pex_outlast_shortage(
        [] { return Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); });
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (!made || connect(made.get(), reinterpret_cast<sockaddr *>(&address), length) != 0)
        return Fd();
    return made;
}

void send_text(const char *text, size_t length) {
    if (manager && send(manager.get(), text, length, MSG_NOSIGNAL) < 0)
        LOGD("the service manager was not told, errno %d", errno);
}

}  // namespace

void service_manager_ready() {
    const char *const name = getenv("NOTIFY_SOCKET");
    if (name == nullptr)
        return;
    manager = connect_to(name);
    if (!manager)
        LOGW("no service manager at NOTIFY_SOCKET %s", name);
    unsetenv("NOTIFY_SOCKET");
    constexpr std::string_view kReady = "READY=1";
    send_text(kReady.data(), kReady.size());
}

void service_manager_tell(const char *words, bool hangs) {
    if (!manager)
        return;
    std::array<char, 256> text;
    const int length =
        snprintf(text.data(), text.size(), "%sSTATUS=%.200s", hangs ? "" : "WATCHDOG=1\n", words);
    send_text(text.data(), static_cast<size_t>(length));
}
