// Queries about the station's network, asked of a real one in the test's own namespace.
#include "pex_net.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "robot.h"

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
    for (const char *name : {"fifteen_letters", "fifteen_letters_", "wlan7", ""}) {
        EXPECT_EQ(pex_net_get_ip(name, &address), -1) << name;
        EXPECT_EQ(std::exchange(address, 5), 0U) << name;
    }
}

TEST_F(PexNet, DefaultGatewayOfTheMainTable) {
    const std::string many =
        "for i in $(seq 200); do echo route add 10.1.$i.0/24 via 192.168.7.2; done | ip -b -";
    const std::pair<std::string, const char *> cases[] = {
        {"true", "0.0.0.0"},
        {"ip route add 10.9.8.0/24 via 192.168.7.2; ip route add default via 192.168.7.1",
         "192.168.7.1"},
        {"ip route add 172.16.0.0/12 via 192.168.7.2", "0.0.0.0"},
        {"ip route add 10.0.0.0/8 via 192.168.7.3", "192.168.7.3"},  // its text ends in 0.0.0.0
        {"ip route add default dev wlan0", "0.0.0.0"},
        {"ip route add default via 192.168.7.1; ip route add 10.7.0.0/16 dev wlan0 table 7",
         "0.0.0.0"},  // the other table comes first and ends the search
        {many, "0.0.0.0"},
        {many + "; ip route add default via 192.168.7.1", "192.168.7.1"},
    };
    for (const auto &[routes, gateway] : cases) {
        run("ip link add wlan0 type veth peer name gw0; ip link set gw0 up; ip link set wlan0 up; "
            "ip addr add 192.168.7.20/24 dev wlan0; " +
            routes);
        EXPECT_EQ(dotted(pex_net_get_gatewayip(nullptr, 0)), gateway) << routes;
        run("ip link del wlan0; ip route flush table 7 2>/dev/null; true");
    }
    EXPECT_TRUE(logged_as("ERROR", "route does not belong to main routing table"));
}

TEST_F(PexNet, NameServersOfTheResolver) {
    const struct {
        const char *file;
        int result;
        const char *servers;
    } cases[] = {
        {"nameserver 1.1.1.1\nnameserver 2.2.2.2\nnameserver 3.3.3.3\n", 0, "1.1.1.1 2.2.2.2"},
        {"domain home\n\nnameserver   1.1.1.1 # ours\nnameserver 2.2.2.2", 0, "1.1.1.1 2.2.2.2"},
        {"", 0, "0.0.0.0 0.0.0.0"},
        {"nameserver 1.1.1.1\r\nnameserver\t2.2.2.2\n", -1, "1.1.1.1 0.0.0.0"},
        {"nameserver 1.1.1.1\nnameserver fe80::1\n", -1, "1.1.1.1 0.0.0.0"},
        {"# a nameserver\nnameserver 1.1.1.1\n", -1, "0.0.0.0 0.0.0.0"},
        {"nameserver \n", -1, "0.0.0.0 0.0.0.0"},
    };
    for (const auto &row : cases) {
        write_file("/etc/resolv.conf", row.file);
        uint32_t servers[3] = {0, 0, 7};
        EXPECT_EQ(pex_net_get_nameservers(servers, 2), row.result) << row.file;
        EXPECT_EQ(dotted(servers[0]) + " " + dotted(servers[1]), row.servers) << row.file;
        EXPECT_EQ(servers[2], 7U);
    }
}

TEST_F(PexNet, ReplyIsReadToItsEndAndNoFurther) {
    constexpr uint16_t kMore = NLM_F_MULTI;
    const std::string done = message(NLMSG_DONE, kMore, 20);
    const std::string route = message(RTM_NEWROUTE, kMore, 60);
    const std::string long_route = message(RTM_NEWROUTE, kMore, 1500);
    const struct {
        std::vector<std::string> datagrams;
        int result;
    } cases[] = {
        {{route, route, done}, 120},
        {{route + route + done}, 140},  // done later in the same datagram
        {{done}, 0},
        {{route, "", route}, 60},
        {{long_route, message(RTM_NEWROUTE, kMore, 540), route}, -1},  // no room is left
        {{long_route, message(RTM_NEWROUTE, kMore, 500) + route}, 2048},
        {{route, message(NLMSG_ERROR, 0, 36)}, -1},
        {{route, std::string(15, '\0')}, -1},
        {{message(RTM_NEWROUTE, kMore, 60, 15)}, -1},
        {{message(RTM_NEWROUTE, kMore, 60, 61)}, -1},
    };
    for (const auto &row : cases) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        const Fd ours(ends[0]), kernel(ends[1]);
        for (const auto &datagram : row.datagrams)
            send(kernel.get(), datagram.data(), datagram.size(), 0);
        alignas(nlmsghdr) char buffer[2049];
        buffer[2048] = '#';
        EXPECT_EQ(pex_net_read_nl_sock(ours.get(), buffer, 1, 7), row.result) << &row - cases;
        EXPECT_EQ(buffer[2048], '#');
    }
    EXPECT_TRUE(logged_as("ERROR", "Error length mismatch read_len 60, len 61, min_len 16 "));
    EXPECT_EQ(times_logged("socket read error"), 0) << "it waited for what cannot come";
}

TEST_F(PexNet, SignalComesFromTheToolOnceStatisticsFail) {
    const auto levels = [](int connected) {
        int8_t signal = 0, snr = 0, noise = 0;
        EXPECT_EQ(pex_net_get_signal_levels("wlan0", connected, &signal, &snr, &noise), 0);
        return std::to_string(signal) + " " + std::to_string(snr) + " " + std::to_string(noise);
    };
    EXPECT_EQ(levels(0), "-90 0 -90");
    fake("iw", "echo Connected to 02:00:00:00:00:01; echo '\tsignal: -52 dBm'");
    EXPECT_EQ(levels(1), "-128 -38 -90");
    fake("cat", "echo ' wlan0: 0000   60.  -50.  -95.  0 0 0 0 0 0'");
    EXPECT_EQ(levels(1), "-52 43 -95");
    fake("iw", "echo Not connected.");
    EXPECT_EQ(levels(1), "-128 -33 -95");
    EXPECT_EQ(times_logged("ioctl() failed"), 1);
}

}  // namespace
