// A route dump as it may come from a kernel that the robot was never tried on: each message parsed
// alone, and all walked by the gateway query. The input is a row of datagrams, each with its length
// in front (16 bits, little endian).
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "owned.h"
#include "pex_net.h"

namespace {

int answered_socket = -1;  // what the gateway query opens

void require(bool holds) {
    if (!holds)
        abort();
}

// Alone at the end of its memory: a read beyond it is seen.
void parse(const uint8_t *datagram, size_t length) {
    nlmsghdr header{};
    memcpy(&header, datagram, std::min(length, sizeof header));
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > length)
        return;
    const MallocText alone(static_cast<char *>(malloc(header.nlmsg_len)));
    memcpy(alone.get(), datagram, header.nlmsg_len);
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
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    answered_socket = ends[0];
    const Fd kernel(ends[1]);
    for (size_t length; size >= 2; data += 2 + length, size -= 2 + length) {
        length = std::min<size_t>(data[0] + size_t{256} * data[1], size - 2);
        parse(data + 2, length);
        send(kernel.get(), data + 2, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    shutdown(kernel.get(), SHUT_WR);  // everything has come, nothing more will
    char text[16] = "";
    const uint32_t gateway = pex_net_get_gatewayip(text, sizeof text);
    require((gateway != 0) == (text[0] != '\0' && strcmp(text, "0.0.0.0") != 0));
    return 0;
}
