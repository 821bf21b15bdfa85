// Queries about the station's network, asked of a real one in the test's own namespace.
#include "pex_net.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "pex_get_levels_ioctl.h"
#include "robot.h"

static int statistics_errno = 0;  // of the driver, which has some while it is 0

// The kernel's, but for the statistics of a radio "wlan0", which no namespace has.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list rest;
    va_start(rest, request);
    void *const argument = va_arg(rest, void *);
    va_end(rest);
    if (request != SIOCGIWSTATS)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    const auto *const query = static_cast<iwreq *>(argument);
    const bool is_known = strcmp(query->ifr_name, "wlan0") == 0 && query->u.data.length == 32;
    errno = is_known ? statistics_errno : ENODEV;
    if (errno != 0)
        return -1;
    static_cast<iw_statistics *>(query->u.data.pointer)->qual.level = 256 - 61;
    return 0;
}

namespace {

std::string dotted(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

class PexNet : public Robot {
  protected:
    static void run(const std::string &script) { ASSERT_EQ(system(script.c_str()), 0) << script; }
    // A message of `length` bytes behind a header that says `said` (0: the same).
    static std::string message(uint16_t type, uint16_t flags, size_t length, uint32_t said = 0) {
        const nlmsghdr header{said != 0 ? said : static_cast<uint32_t>(length), type, flags, 0, 7};
        std::string bytes(std::max(length, sizeof header), '\0');
        memcpy(bytes.data(), &header, sizeof header);
        return bytes.substr(0, length);
    }
};

TEST_F(PexNet, AddressesOfAnInterface) {
    run("ip link add wlan0 address 02:00:00:00:00:05 type veth peer name fifteen_letters");
    run("ip link set lo up; ip addr add 192.168.7.20/22 dev wlan0");
    uint32_t address = 5, mask = 5;
    uint8_t hwaddr[6];
    EXPECT_EQ(pex_net_get_ip("wlan0", &address) + pex_net_get_subnet_mask("wlan0", &mask), 0);
    EXPECT_EQ(dotted(address) + "/" + dotted(mask), "192.168.7.20/255.255.252.0");
    EXPECT_EQ(pex_net_get_hwaddr("wlan0", hwaddr), 0);
    EXPECT_EQ(hwaddr[0] * 256 + hwaddr[5], 0x205);
    EXPECT_EQ(pex_net_get_hwaddr("lo", hwaddr), -1) << "not Ethernet";
    for (const char *name : {"fifteen_letters", "fifteen_letters_", ""})
        EXPECT_EQ(pex_net_get_ip(name, &address) + static_cast<int>(address), -1) << name;
    EXPECT_EQ(pex_net_get_ip(nullptr, &address) + pex_net_get_hwaddr("wlan0", nullptr), -2);
}

TEST_F(PexNet, DefaultGatewayOfTheMainTable) {
    const std::string many =
        "for i in $(seq 99); do echo route add 10.1.$i.0/24 via 192.168.7.2; done | ip -b -; ";
    const std::string by = "ip route add default via 192.168.7.1; ";
    for (const auto &[routes, gateway] :
         {std::pair(std::string("true"), "0.0.0.0"),
          {"ip route add 10.9.8.0/24 via 192.168.7.2; " + by, "192.168.7.1"},
          {"ip route add 172.16.0.0/12 via 192.168.7.2", "0.0.0.0"},
          {"ip route add 10.0.0.0/8 via 192.168.7.3", "192.168.7.3"},  // its text ends in 0.0.0.0
          {"ip route add default dev wlan0", "0.0.0.0"},
          // The other table comes first and ends the search.
          {by + "ip route add 10.7.0.0/16 dev wlan0 table 7", "0.0.0.0"},
          {many, "0.0.0.0"},
          {many + by, "192.168.7.1"}}) {
        run("ip link add wlan0 type veth peer name gw0; ip link set gw0 up; ip link set wlan0 up; "
            "ip addr add 192.168.7.20/24 dev wlan0; " +
            routes);
        char text[INET_ADDRSTRLEN] = "0.0.0.0";
        EXPECT_EQ(dotted(pex_net_get_gatewayip(text, sizeof text)), gateway) << routes;
        EXPECT_STREQ(text, gateway);
        run("ip link del wlan0; ip route flush table 7 2>/dev/null; true");
    }
    EXPECT_TRUE(logged_as("ERROR", "route does not belong to main routing table"));
}

TEST_F(PexNet, NameServersOfTheResolver) {
    const std::string first = "nameserver 1.1.1.1\n", two = "0 1.1.1.1 2.2.2.2";
    const std::pair<std::string, std::string> files[] = {
        {first + "nameserver 2.2.2.2\nnameserver 3.3.3.3\n", two},
        {first + "nameserver 2.2.2.2\nnameserver x", two},  // beyond what was asked for
        {"domain a\n\nnameserver   1.1.1.1 # ours\nnameserver 2.2.2.2", two},
        {"nameserver 1.1.1.1\r\nnameserver\t2.2.2.2\n", "-1 1.1.1.1 0.0.0.0"},
        {first + "nameserver fe80::1\n", "-1 1.1.1.1 0.0.0.0"},
        {first + "nameserver \n", "-1 1.1.1.1 0.0.0.0"},
        {"# a nameserver\n" + first, "-1 0.0.0.0 0.0.0.0"},
        {"", "0 0.0.0.0 0.0.0.0"},
    };
    uint32_t servers[3];
    for (const auto &[file, expected] : files) {
        write_file("/etc/resolv.conf", file);
        std::ranges::copy(std::array{0, 0, 7}, servers);
        const int result = pex_net_get_nameservers(servers, 2);
        EXPECT_EQ(std::to_string(result) + " " + dotted(servers[0]) + " " + dotted(servers[1]),
                  expected)
            << file;
        EXPECT_EQ(servers[2], 7U) << file;
    }
    EXPECT_EQ(pex_net_get_nameservers(nullptr, 1) + pex_net_get_nameservers(servers, 0), -2);
    unlink("/etc/resolv.conf");
    EXPECT_EQ(pex_net_get_nameservers(servers, 1), -1);
}

TEST_F(PexNet, ReplyIsReadToItsEndAndNoFurther) {
    constexpr uint16_t kMore = NLM_F_MULTI;
    const std::string done = message(NLMSG_DONE, kMore, 20);
    const std::string route = message(RTM_NEWROUTE, kMore, 60);
    const std::string long_route = message(RTM_NEWROUTE, kMore, 1500);
    const std::pair<std::vector<std::string>, int> replies[] = {
        {{route, route, done}, 120},
        {{route + route + done}, 140},  // done later in the same datagram
        {{done}, 0},
        {{message(RTM_NEWROUTE, 0, 60), route}, 60},
        {{route, "", route}, 60},
        {{long_route, message(RTM_NEWROUTE, kMore, 540), route}, -1},  // no room is left
        {{long_route, message(RTM_NEWROUTE, kMore, 500) + route}, 2048},
        {{route, message(NLMSG_ERROR, 0, 36)}, -1},
        {{route, std::string(15, '\0')}, -1},
        {{message(RTM_NEWROUTE, 0, 16)}, 16},
        {{message(RTM_NEWROUTE, kMore, 60, 15)}, -1},
        {{message(RTM_NEWROUTE, kMore, 60, 61)}, -1},
    };
    for (const auto &[datagrams, result] : replies) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        const Fd ours(ends[0]), kernel(ends[1]);
        for (const auto &datagram : datagrams)
            send(kernel.get(), datagram.data(), datagram.size(), 0);
        alignas(nlmsghdr) char buffer[2049];
        buffer[2048] = '#';
        EXPECT_EQ(pex_net_read_nl_sock(ours.get(), buffer, 1, 7), result);
        EXPECT_EQ(buffer[2048], '#');
    }
    EXPECT_TRUE(logged_as("ERROR", "Error length mismatch read_len 60, len 61, min_len 16 "));
    EXPECT_EQ(times_logged("socket read error"), 0) << "it waited for what cannot come";
}

TEST_F(PexNet, RouteIsParsedToItsLastWholeAttribute) {
    // Of eight bytes, the last four 1.0.0.0 or the loopback interface.
    const auto attribute = [](char type) {
        return std::string("\x8\0", 2) + type + std::string("\0\1\0\0\0", 5);
    };
    const std::string good = message(RTM_NEWROUTE, 0, 16, 68) +
                             std::string("\2\0\0\0\xfe\0\0\0\0\0\0\0", 12) + attribute(RTA_DST) +
                             attribute(RTA_PREFSRC) + std::string("\6\0\xf\0zz\0\0", 8) +
                             attribute(RTA_GATEWAY) + attribute(RTA_OIF);
    const std::string all = "1.0.0.0 1.0.0.0 1.0.0.0 ";
    // What one changed byte leaves of the route: lengths, types, family and table.
    const std::tuple<size_t, int, std::string> changes[] = {{0, 68, all + "lo"},
                                                            {0, 67, all},
                                                            {36, 7, "1.0.0.0 0.0.0.0 1.0.0.0 lo"},
                                                            {36, 3, "1.0.0.0 0.0.0.0 0.0.0.0 "},
                                                            {52, 17, "1.0.0.0 1.0.0.0 0.0.0.0 "},
                                                            {0, 28, "0.0.0.0 0.0.0.0 0.0.0.0 "},
                                                            {0, 27, ""},
                                                            {16, AF_INET6, ""},
                                                            {20, 7, ""}};
    for (const auto &[place, byte, expected] : changes) {
        alignas(nlmsghdr) std::array<char, 68> bytes{};
        good.copy(bytes.data(), bytes.size());
        bytes[place] = static_cast<char>(byte);
        pex_net_route read{};
        const int result = pex_net_parse_routes(reinterpret_cast<nlmsghdr *>(bytes.data()), &read);
        const std::string text = dotted(read.dst.s_addr) + " " + dotted(read.src.s_addr) + " " +
                                 dotted(read.gateway.s_addr) + " " + read.ifname;
        EXPECT_EQ(result == 0 ? text : "", expected) << place;
    }
}

TEST_F(PexNet, SignalComesFromTheToolOnceStatisticsFail) {
    const auto levels = [](int connected) {
        int8_t signal = 0, snr = 0, noise = 0;
        EXPECT_EQ(pex_net_get_signal_levels("wlan7", connected, &signal, &snr, &noise), 0);
        return std::to_string(signal) + " " + std::to_string(snr) + " " + std::to_string(noise);
    };
    EXPECT_EQ(levels(0), "-90 0 -90");
    EXPECT_EQ(levels(1), "-61 29 -90");
    fake("iw", "echo Connected to 02:00:00:00:00:01; echo '\tsignal: -52 dBm'");
    statistics_errno = EOPNOTSUPP;
    EXPECT_EQ(levels(1), "-128 -38 -90");
    statistics_errno = 0;  // for good
    fake("cat", "echo ' wlan0: 0000   60.  -50.  -95.  0 0 0 0 0 0'");
    EXPECT_EQ(levels(1), "-52 43 -95");
    fake("iw", "echo Not connected.");
    EXPECT_EQ(levels(1), "-128 -33 -95");
    int8_t level = 0;
    statistics_errno = EINVAL;
    EXPECT_EQ(pex_net_get_signal_levels_from_ioctl(&level) +
                  pex_net_get_signal_levels_from_ioctl(nullptr),
              -2);
    EXPECT_EQ(level, -128);
    EXPECT_TRUE(logged_as("DBG", "ioctl() is currently unsupported. Using iw command instead"));
    EXPECT_TRUE(logged_as("ERROR", "ioctl() failed with errno 0 - Success"));
}

TEST_F(PexNet, QueriesFailWithoutDescriptors) {
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{3, usual.rlim_max};
    int8_t level = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(pex_net_get_signal_levels_from_ioctl(&level), -1);
    EXPECT_EQ(pex_net_get_gatewayip(nullptr, 0), 0U);
    EXPECT_EQ(pex_net_get_noise(&level) + pex_net_get_bss_noise(&level), -2);
    setrlimit(RLIMIT_NOFILE, &usual);
}

TEST_F(PexNet, NoiseOfTheAccessPoint) {
    fake("wpa_cli",
         "case \"$*\" in 'status wlan0') echo a; echo bssid=$(cat /tmp/bssid) ;; "
         "'bss 02:00:00:00:00:0f') echo level=-40; cat /tmp/noise ;; esac");
    for (const auto &[bssid, line, noise] : {std::tuple("02:00:00:00:00:0f", "noise=-89\n", -89),
                                             {"02:00:00:00:00:0f", "", -90},
                                             {"0;reboot", "noise=-89\n", -90}}) {
        write_file("/tmp/bssid", bssid);
        write_file("/tmp/noise", line);
        int8_t read = 0;
        EXPECT_EQ(pex_net_get_bss_noise(&read), noise == -89 ? 0 : -1) << bssid << line;
        EXPECT_EQ(read, noise);
    }
    EXPECT_EQ(pex_net_get_bss_noise(nullptr), -1);
}

}  // namespace
