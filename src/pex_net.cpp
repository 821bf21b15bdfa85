#include "pex_net.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "log.h"
#include "owned.h"
#include "pex_get_levels_ioctl.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/pex_net"

namespace {

constexpr char kStation[] = "wlan0";  // of the wireless queries, whatever the station's name
constexpr char kResolvConf[] = "/etc/resolv.conf";
constexpr size_t kResolvLineSize = 1024;
constexpr size_t kDumpSize = 2048;  // what a route dump may take; the default route comes early
constexpr int8_t kUnknownLevel = -128;
constexpr int8_t kNoLink = -90;  // dBm; of an unknown noise too

std::atomic<bool> use_wireless_statistics{true};

// Issues an address query for an interface; false when the name or the interface is none.
bool query_interface(const char *ifname, unsigned long request, ifreq &answer) {
    const Fd query(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!query || strlen(ifname) >= IFNAMSIZ)
        return false;
    answer = {};
    strncpy(answer.ifr_name, ifname, IFNAMSIZ - 1);
    answer.ifr_addr.sa_family = AF_INET;
    return ioctl(query.get(), request, &answer) == 0;
}

int query_address(const char *ifname, unsigned long request, uint32_t *address) {
    if (ifname == nullptr || address == nullptr)
        return -1;
    *address = 0;
    ifreq answer;
    if (!query_interface(ifname, request, answer))
        return -1;
    sockaddr_in inet;
    memcpy(&inet, &answer.ifr_addr, sizeof inet);
    *address = inet.sin_addr.s_addr;
    return 0;
}

// The first line of a command's output, at most size-1 characters, its newline included; empty when
// it printed none, nothing when it could not be run.
std::optional<std::string> first_line(const char *command, size_t size) {
    const Pipe output(command);
    if (!output) {
        LOGE("popen failed");
        return std::nullopt;
    }
    std::string line(size, '\0');
    if (!pex_read_line(output.get(), line))
        return "";
    line.resize(strlen(line.c_str()));
    return line;
}

std::string without_last(std::string line) {
    line.pop_back();
    return line;
}

int8_t to_level(const std::string &text) {
    return static_cast<int8_t>(atoi(text.c_str()));
}

// --- route dump ----------------------------------------------------------------------------------

struct dump_request {
    nlmsghdr header;
    rtmsg message;
};
static_assert(sizeof(dump_request) == 28);

bool fits(const nlmsghdr *message, size_t room) {
    return room >= sizeof(nlmsghdr) && message->nlmsg_len >= sizeof(nlmsghdr) &&
           message->nlmsg_len <= room;
}

size_t aligned(size_t length) {
    return (length + 3) & ~static_cast<size_t>(3);
}

// Whether a DONE header stands anywhere in the messages of one datagram. It ends the dump; to wait
// for another datagram then would be to wait for ever.
bool holds_done(const char *datagram, size_t length) {
    while (true) {
        nlmsghdr header;
        if (length < sizeof header)
            return false;
        memcpy(&header, datagram, sizeof header);
        if (!fits(&header, length))
            return false;
        if (header.nlmsg_type == NLMSG_DONE)
            return true;
        const size_t step = std::min(aligned(header.nlmsg_len), length);
        datagram += step;
        length -= step;
    }
}

bool send_dump_request(int netlink) {
    dump_request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_pid = static_cast<uint32_t>(getpid());
    return send(netlink, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

// By its text, so that 10.0.0.0 and its like count as well; harmless, for the kernel lists the true
// default route first, and a robot without one asks such a subnet's gateway.
bool is_default(in_addr destination) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &destination, text.data(), text.size());
    return strstr(text.data(), "0.0.0.0") != nullptr;
}

// Walks the dump to the default route; false when there is none or a foreign route stands before.
bool find_default_route(const char *dump, size_t length, pex_net_route &route) {
    while (true) {
        const auto *message = reinterpret_cast<const nlmsghdr *>(dump);
        if (!fits(message, length))
            return false;
        route = {};
        if (pex_net_parse_routes(message, &route) != 0) {
            LOGE("pex_net_parse_routes failed");
            return false;
        }
        if (is_default(route.dst))
            return true;
        const size_t step = aligned(message->nlmsg_len);
        if (step > length)
            return false;
        dump += step;
        length -= step;
    }
}

uint32_t gateway_from_dump(int netlink, char *text, size_t size) {
    alignas(nlmsghdr) std::array<char, kDumpSize> buffer{};
    if (!send_dump_request(netlink)) {
        LOGE("pex_net_get_gatewayip - write to socket failed\n");
        return 0;
    }
    // The kernel answers with the request's number, 0: that number never ends the reading.
    const int length =
        pex_net_read_nl_sock(netlink, buffer.data(), 1, static_cast<uint32_t>(getpid()));
    if (length < 0) {
        LOGE("pex_net_get_gatewayip - read from socket failed\n");
        return 0;
    }
    if (length == 0) {
        LOGE("pex_net_get_gatewayip - did not receive response");
        return 0;
    }
    const Malloced<pex_net_route> route(
        static_cast<pex_net_route *>(calloc(1, sizeof(pex_net_route))));
    if (!route) {
        LOGE("malloc failed");
        return 0;
    }
    if (!find_default_route(buffer.data(), static_cast<size_t>(length), *route))
        return 0;
    if (text != nullptr)
        inet_ntop(AF_INET, &route->gateway, text, static_cast<socklen_t>(size));
    return route->gateway.s_addr;
}

void take_attribute(const rtattr *attribute, pex_net_route *route) {
    const void *data = reinterpret_cast<const char *>(attribute) + RTA_LENGTH(0);
    if (RTA_PAYLOAD(attribute) < sizeof(in_addr))
        return;
    switch (attribute->rta_type) {
        case RTA_DST:
            memcpy(&route->dst, data, sizeof route->dst);
            break;
        case RTA_PREFSRC:
            memcpy(&route->src, data, sizeof route->src);
            break;
        case RTA_GATEWAY:
            memcpy(&route->gateway, data, sizeof route->gateway);
            break;
        case RTA_OIF: {
            unsigned index;
            memcpy(&index, data, sizeof index);
            if_indextoname(index, route->ifname);
            break;
        }
    }
}

// Splits at blanks; runs of them count as one.
bool parse_nameserver(char *line, uint32_t &address) {
    char *rest = nullptr;
    const char *keyword = strtok_r(line, " ", &rest);
    char *text = keyword != nullptr ? strtok_r(nullptr, " ", &rest) : nullptr;
    if (text == nullptr) {
        LOGE("unexpected %s file format", kResolvConf);
        return false;
    }
    pex_strip_trailing_newline_and_return_chars(text, strlen(text));
    const int result = inet_pton(AF_INET, text, &address);
    if (result < 1) {
        LOGE("inet_pton() error, ret %d", result);
        return false;
    }
    return true;
}

}  // namespace

// --- interfaces ----------------------------------------------------------------------------------

int pex_net_get_ip(const char *ifname, uint32_t *address) {
    return query_address(ifname, SIOCGIFADDR, address);
}

int pex_net_get_subnet_mask(const char *ifname, uint32_t *mask) {
    return query_address(ifname, SIOCGIFNETMASK, mask);
}

int pex_net_get_hwaddr(const char *ifname, uint8_t *hwaddr) {
    constexpr size_t kLength = 6;
    if (ifname == nullptr || hwaddr == nullptr)
        return -1;
    memset(hwaddr, 0, kLength);
    ifreq answer;
    if (!query_interface(ifname, SIOCGIFHWADDR, answer) ||
        answer.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        return -1;
    memcpy(hwaddr, answer.ifr_hwaddr.sa_data, kLength);
    return 0;
}

// --- name servers --------------------------------------------------------------------------------

int pex_net_get_nameservers(uint32_t *servers, int capacity) {
    if (servers == nullptr || capacity < 1) {
        LOGE("invalid param");
        return -1;
    }
    const MallocText line(static_cast<char *>(calloc(1, kResolvLineSize)));
    if (!line) {
        LOGE("calloc error");
        return -1;
    }
    const File file(fopen(kResolvConf, "re"));
    if (!file) {
        LOGE("fopen failed");
        return -1;
    }
    int found = 0;
    while (fgets(line.get(), kResolvLineSize, file.get()) != nullptr) {
        if (strstr(line.get(), "nameserver") == nullptr)  // anywhere, in a comment too
            continue;
        if (found == capacity)
            return 0;
        if (!parse_nameserver(line.get(), servers[found]))
            return -1;
        found++;
    }
    return 0;
}

// --- routes --------------------------------------------------------------------------------------

int pex_net_read_nl_sock(int socket, char *buffer, uint32_t sequence, uint32_t port_id) {
    size_t total = 0;
    while (total < kDumpSize) {  // a cut datagram fills the buffer, so nothing is waited for
        char *const datagram = buffer + total;
        const ssize_t received = recv(socket, datagram, kDumpSize - total, 0);
        if (received < 0) {
            LOGE("pex_net_read_nl_sock - socket read error\n");
            return -1;
        }
        const auto length = static_cast<size_t>(received);
        if (length == 0)
            break;
        nlmsghdr header{};
        memcpy(&header, datagram, std::min(length, sizeof header));
        if (!fits(&header, length)) {
            LOGE("pex_net_read_nl_sock - Error length mismatch read_len %d, len %d, min_len %d ",
                 static_cast<int>(received), static_cast<int>(header.nlmsg_len),
                 static_cast<int>(sizeof header));
            return -1;
        }
        if (header.nlmsg_type == NLMSG_ERROR) {
            nlmsgerr error{};
            memcpy(&error, datagram + sizeof header,
                   std::min(length - sizeof header, sizeof error));
            LOGE("pex_net_read_nl_sock - Error in received packet, error code: %d\n", error.error);
            return -1;
        }
        if (header.nlmsg_type == NLMSG_DONE)
            break;
        total += length;
        const bool answered = header.nlmsg_seq == sequence && header.nlmsg_pid == port_id;
        if ((header.nlmsg_flags & NLM_F_MULTI) == 0 || answered || holds_done(datagram, length))
            break;
    }
    return static_cast<int>(total);
}

int pex_net_parse_routes(const nlmsghdr *message, pex_net_route *route) {
    if (message == nullptr || route == nullptr) {
        LOGE("invalid input");
        return -1;
    }
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
        LOGE(message->nlmsg_len <= NLMSG_HDRLEN ? "NLMSG_DATA returned NULL"
                                                : "route is not for AF_INET");
        return -1;
    }
    rtmsg header;
    memcpy(&header, reinterpret_cast<const char *>(message) + NLMSG_HDRLEN, sizeof header);
    if (header.rtm_family != AF_INET) {
        LOGE("route is not for AF_INET");
        return -1;
    }
    if (header.rtm_table != RT_TABLE_MAIN) {
        LOGE("route does not belong to main routing table");
        return -1;
    }
    const char *next = reinterpret_cast<const char *>(message) + NLMSG_LENGTH(sizeof(rtmsg));
    size_t room = message->nlmsg_len - NLMSG_LENGTH(sizeof(rtmsg));
    while (room >= sizeof(rtattr)) {
        const auto *attribute = reinterpret_cast<const rtattr *>(next);
        if (attribute->rta_len < sizeof(rtattr) || attribute->rta_len > room)
            break;
        take_attribute(attribute, route);
        const size_t step = std::min<size_t>(RTA_ALIGN(attribute->rta_len), room);
        next += step;
        room -= step;
    }
    return 0;
}

uint32_t pex_net_get_gatewayip(char *text, size_t size) {
    Fd netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!netlink) {
        LOGE("pex_net_get_gatewayip - could not create socket\n");
        return 0;
    }
    const uint32_t gateway = gateway_from_dump(netlink.get(), text, size);
    if (netlink.reset() != 0)
        LOGE("pex_net_get_gatewayip - Error closing netlink socket");
    return gateway;
}

// --- signal and noise ----------------------------------------------------------------------------

int pex_net_get_noise(int8_t *noise) {
    *noise = kNoLink;
    const auto line = first_line("cat /proc/net/wireless | grep wlan0 | awk '{print $5}'", 64);
    if (!line)
        return -1;
    if (line->empty()) {
        LOGE("Failed to capture noise value from proc/net/wireless");
        return -1;
    }
    *noise = to_level(*line);
    return 0;
}

int pex_net_get_bss_noise(int8_t *noise) {
    if (noise == nullptr) {
        LOGE("Invalid input");
        return -1;
    }
    *noise = kNoLink;
    const std::string status =
        std::string("wpa_cli status ") + kStation + " | grep bssid | cut -d '=' -f2";
    const auto bssid = first_line(status.c_str(), sizeof "00:00:00:00:00:00");
    if (!bssid)
        return -1;
    // The answer goes into the next command line: nothing but an address may.
    if (bssid->empty() || bssid->find_first_not_of("0123456789abcdefABCDEF:") != bssid->npos) {
        LOGE("Failed to capture bssid from %s", status.c_str());
        return -1;
    }
    const std::string bss = "wpa_cli bss " + *bssid + " | grep noise | grep -o '[-0-9]*'";
    const auto line = first_line(bss.c_str(), 64);
    if (!line)
        return -1;
    if (line->empty()) {
        LOGE("Failed to capture noise from %s", bss.c_str());
        return -1;
    }
    *noise = to_level(without_last(*line));
    return 0;
}

int pex_net_get_signal_levels(const char *ifname, int connected, int8_t *signal, int8_t *snr,
                              int8_t *noise) {
    if (ifname == nullptr || signal == nullptr || snr == nullptr || noise == nullptr) {
        LOGE("invalid input");
        return -1;
    }
    *signal = *snr = *noise = kUnknownLevel;
    if (connected == 0) {
        *signal = *noise = kNoLink;
        *snr = 0;
        return 0;
    }
    if (use_wireless_statistics) {
        if (pex_net_get_signal_levels_from_ioctl(signal) != 0)
            use_wireless_statistics = false;  // for good: the driver does not have it
    } else {
        const std::string link =
            std::string("iw ") + kStation + " link | grep signal | grep -o '[-0-9]*'";
        const auto line = first_line(link.c_str(), 64);
        if (line && !line->empty())
            *signal = to_level(without_last(*line));
    }
    if (pex_net_get_noise(noise) != 0)
        LOGE("Couldn't get noise");
    *snr = static_cast<int8_t>(*signal - *noise);
    return 0;
}
