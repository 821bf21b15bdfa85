// A route dump as it may come from a kernel that the robot was never tried on: read, parsed message
// by message, and walked by the gateway query. The input is a row of datagrams, each with its
// length in front (16 bits, little endian).
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "owned.h"
#include "pex_net.h"

namespace {

constexpr size_t kDumpSize = 2048;

int answered_socket = -1;  // what the gateway query opens

void require(bool holds) {
    if (!holds)
        abort();
}

// The kernel's end, and in `ours` the socket as the reader finds it: everything has come, nothing
// more will.
Fd answer(const uint8_t *data, size_t size, Fd &ours) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    ours.reset(ends[0]);
    Fd kernel(ends[1]);
    while (size >= 2) {
        const size_t length = std::min<size_t>(data[0] + size_t{256} * data[1], size - 2);
        if (send(kernel.get(), data + 2, length, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            break;
        data += 2 + length;
        size -= 2 + length;
    }
    shutdown(kernel.get(), SHUT_WR);
    return kernel;
}

// Each message alone at the end of its memory: a read beyond it is seen.
void parse(const char *message, size_t length) {
    const MallocText alone(static_cast<char *>(malloc(length)));
    memcpy(alone.get(), message, length);
    pex_net_route route{};
    pex_net_parse_routes(reinterpret_cast<const nlmsghdr *>(alone.get()), &route);
    require(memchr(route.ifname, '\0', sizeof route.ifname) != nullptr);
}

}  // namespace

// In front of the C library's: nothing else here opens a socket.
extern "C" int socket(int, int, int) noexcept {
    return answered_socket;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Fd ours;
    Fd kernel = answer(data, size, ours);
    const MallocText dump(static_cast<char *>(calloc(1, kDumpSize)));
    const int total = pex_net_read_nl_sock(ours.get(), dump.get(), 1, 0);
    require(total >= -1 && total <= static_cast<int>(kDumpSize));
    const char *next = dump.get();
    for (size_t room = total > 0 ? static_cast<size_t>(total) : 0; room >= sizeof(nlmsghdr);) {
        nlmsghdr header;
        memcpy(&header, next, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > room)
            break;
        parse(next, header.nlmsg_len);
        const size_t step = std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), room);
        next += step;
        room -= step;
    }
    kernel = answer(data, size, ours);
    answered_socket = ours.release();
    char text[16] = "";
    const uint32_t gateway = pex_net_get_gatewayip(text, sizeof text);
    require((gateway != 0) == (text[0] != '\0' && strcmp(text, "0.0.0.0") != 0));
    return 0;
}
