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
    run("ip link set lo up; ip link add wlan0 address 02:00:00:00:00:05 type veth peer name gw0");
    run("ip addr add 192.168.7.20/22 dev wlan0; ip link set gw0 name fifteen_letters");
    uint32_t address = 5, mask = 5;
    uint8_t hwaddr[6];
    EXPECT_EQ(pex_net_get_ip("wlan0", &address) + pex_net_get_subnet_mask("wlan0", &mask), 0);
    EXPECT_EQ(dotted(address) + "/" + dotted(mask), "192.168.7.20/255.255.252.0");
    EXPECT_EQ(pex_net_get_hwaddr("wlan0", hwaddr), 0);
    EXPECT_EQ(hwaddr[0] * 256 + hwaddr[5], 0x205);
    EXPECT_EQ(pex_net_get_hwaddr("lo", hwaddr), -1) << "not Ethernet";
    EXPECT_EQ(hwaddr[0] + hwaddr[5], 0);
    EXPECT_EQ(pex_net_get_hwaddr("fifteen_letters", hwaddr), 0);
    for (const char *name : {"fifteen_letters", "fifteen_letters_", "wlan7", ""}) {
        address = 5;
        EXPECT_EQ(pex_net_get_ip(name, &address), -1) << name;
        EXPECT_EQ(address, 0U) << name;
    }
    EXPECT_EQ(pex_net_get_ip(nullptr, &address), -1);
    EXPECT_EQ(pex_net_get_subnet_mask("wlan0", nullptr), -1);
    run("ip link del wlan0");
}

TEST_F(PexNet, DefaultGatewayOfTheMainTable) {
    const struct {
        const char *routes, *gateway;
    } cases[] = {
        {"true", "0.0.0.0"},
        {"ip route add default via 192.168.7.1", "192.168.7.1"},
        {"ip route add 10.9.8.0/24 via 192.168.7.2; ip route add default via 192.168.7.1",
         "192.168.7.1"},
        {"ip route add 172.16.0.0/12 via 192.168.7.2", "0.0.0.0"},
        {"ip route add 10.0.0.0/8 via 192.168.7.3", "192.168.7.3"},  // its text ends in 0.0.0.0
        {"ip route add default dev wlan0", "0.0.0.0"},
        {"ip route add default via 192.168.7.1; ip route add 10.7.0.0/16 dev wlan0 table 7",
         "0.0.0.0"},  // the other table comes first and ends the search
        {"for i in $(seq 200); do echo route add 10.1.$i.0/24 via 192.168.7.2; done | ip -b -",
         "0.0.0.0"},
        {"for i in $(seq 200); do echo route add 10.1.$i.0/24 via 192.168.7.2; done | ip -b -; "
         "ip route add default via 192.168.7.1",
         "192.168.7.1"}};
    for (const auto &row : cases) {
        run("ip link add wlan0 type veth peer name gw0; ip link set gw0 up; ip link set wlan0 up; "
            "ip addr add 192.168.7.20/24 dev wlan0");
        run(row.routes);
        char text[INET_ADDRSTRLEN] = "";
        EXPECT_EQ(dotted(pex_net_get_gatewayip(text, sizeof text)), row.gateway) << row.routes;
        EXPECT_EQ(dotted(pex_net_get_gatewayip(nullptr, 0)), row.gateway);
        EXPECT_STREQ(text, strcmp(row.gateway, "0.0.0.0") != 0 ? row.gateway : text);
        run("ip link del wlan0; ip route flush table 7 2>/dev/null; true");
    }
    EXPECT_TRUE(logged_as("ERROR", "route does not belong to main routing table"));
    EXPECT_TRUE(logged_as("ERROR", "pex_net_parse_routes failed"));
}

TEST_F(PexNet, NameServersOfTheResolver) {
    const struct {
        const char *file;
        int capacity, result;
        const char *servers;
    } cases[] = {
        {"nameserver 1.1.1.1\nnameserver 2.2.2.2\nnameserver 3.3.3.3\n", 2, 0, "1.1.1.1 2.2.2.2 "},
        {"domain home\n\nnameserver   1.1.1.1 # ours\nnameserver 2.2.2.2", 3, 0,
         "1.1.1.1 2.2.2.2 0.0.0.0 "},
        {"", 1, 0, "0.0.0.0 "},
        {"nameserver 1.1.1.1\r\nnameserver\t2.2.2.2\n", 2, -1, "1.1.1.1 0.0.0.0 "},
        {"nameserver 1.1.1.1\nnameserver fe80::1\n", 2, -1, "1.1.1.1 0.0.0.0 "},
        {"nameserver fe80::1\n", 0, -1, ""},
        {"nameserver 1.1.1.1\n# the next nameserver is slow\n", 1, 0, "1.1.1.1 "},
        {"# a nameserver\nnameserver 1.1.1.1\n", 1, -1, "0.0.0.0 "},
        {"nameserver \n", 1, -1, "0.0.0.0 "},
    };
    for (const auto &row : cases) {
        write_file("/etc/resolv.conf", row.file);
        uint32_t servers[3] = {};
        EXPECT_EQ(pex_net_get_nameservers(servers, row.capacity), row.result) << row.file;
        std::string seen;
        for (int i = 0; i < row.capacity; i++)
            seen += dotted(servers[i]) + " ";
        EXPECT_EQ(seen, row.servers) << row.file;
    }
    EXPECT_TRUE(logged_as("ERROR", "unexpected /etc/resolv.conf file format"));
    EXPECT_TRUE(logged_as("ERROR", "inet_pton() error, ret 0"));
    EXPECT_TRUE(logged_as("ERROR", "invalid param"));
    unlink("/etc/resolv.conf");
    uint32_t server = 0;
    EXPECT_EQ(pex_net_get_nameservers(&server, 1), -1);
    EXPECT_TRUE(logged_as("ERROR", "fopen failed"));
}

TEST_F(PexNet, ReplyIsReadToItsEndAndNoFurther) {
    constexpr uint16_t kRoute = RTM_NEWROUTE, kMore = NLM_F_MULTI;
    const std::string done = message(NLMSG_DONE, kMore, 20);
    const std::string route = message(kRoute, kMore, 60);
    std::string foreign = route;  // with the number and port that are waited for
    foreign[8] = 1;
    std::string error = message(NLMSG_ERROR, 0, 36);
    error[16] = 13;
    const struct {
        const char *what;
        std::vector<std::string> datagrams;
        int result;
    } cases[] = {
        {"until the done message, which does not count", {route, route, done}, 120},
        {"done later in the same datagram", {route + route + done}, 140},
        {"nothing but done", {done}, 0},
        {"no multi flag", {message(kRoute, 0, 60), route}, 60},
        {"the expected number", {route, foreign, route}, 120},
        {"an empty datagram", {route, "", route}, 60},
        {"2048 bytes are all there is room for",
         {message(kRoute, kMore, 1500), message(kRoute, kMore, 540), std::string(60, 'x')},
         -1},
        {"a longer datagram is cut",
         {message(kRoute, kMore, 1500), message(kRoute, kMore, 500) + route},
         2048},
        {"an error", {route, error}, -1},
        {"short", {route, std::string(15, '\0')}, -1},
        {"says less than a header", {message(kRoute, kMore, 60, 15)}, -1},
        {"says more than it has", {message(kRoute, kMore, 60, 61)}, -1},
    };
    for (const auto &row : cases) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        const Fd ours(ends[0]), kernel(ends[1]);
        for (const auto &datagram : row.datagrams)
            ASSERT_EQ(send(kernel.get(), datagram.data(), datagram.size(), 0),
                      static_cast<ssize_t>(datagram.size()));
        alignas(nlmsghdr) char buffer[2049];
        buffer[2048] = '#';
        EXPECT_EQ(pex_net_read_nl_sock(ours.get(), buffer, 1, 7), row.result) << row.what;
        EXPECT_EQ(buffer[2048], '#') << row.what;
    }
    for (const char *text : {"Error in received packet, error code: 13\n",
                             "Error length mismatch read_len 15, len 0, min_len 16 ",
                             "Error length mismatch read_len 60, len 15, min_len 16 ",
                             "Error length mismatch read_len 60, len 61, min_len 16 "})
        EXPECT_TRUE(logged_as("ERROR", std::string("pex_net_read_nl_sock - ") + text));
    EXPECT_EQ(times_logged("socket read error"), 0) << "it waited for what cannot come";
    char buffer[2048];
    EXPECT_EQ(pex_net_read_nl_sock(-1, buffer, 1, 7), -1);
}

TEST_F(PexNet, SignalComesFromTheToolOnceStatisticsFail) {
    const auto levels = [](int connected) {
        int8_t signal = 0, snr = 0, noise = 0;
        EXPECT_EQ(pex_net_get_signal_levels("wlan0", connected, &signal, &snr, &noise), 0);
        return std::to_string(signal) + " " + std::to_string(snr) + " " + std::to_string(noise);
    };
    forget_commands();
    EXPECT_EQ(levels(0), "-90 0 -90");
    EXPECT_THAT(commands(), testing::IsEmpty());
    fake("iw", "echo Connected to 02:00:00:00:00:01; echo '\tsignal: -52 dBm'");
    EXPECT_EQ(levels(1), "-128 -38 -90");
    EXPECT_TRUE(logged_as("ERROR", "ioctl() failed with errno 0 - Success"));
    EXPECT_TRUE(logged_as("ERROR", "Failed to capture noise value from proc/net/wireless"));
    EXPECT_TRUE(logged_as("ERROR", "Couldn't get noise"));
    fake("cat", "echo ' wlan0: 0000   60.  -50.  -95.  0 0 0 0 0 0'");
    EXPECT_EQ(levels(1), "-52 43 -95");
    EXPECT_THAT(commands(), testing::Contains("iw wlan0 link | grep signal | grep -o '[-0-9]*'"));
    fake("iw", "echo Not connected.");
    EXPECT_EQ(levels(1), "-128 -33 -95");
    EXPECT_EQ(times_logged("ioctl() failed"), 1);
    int8_t level = 0;
    EXPECT_EQ(pex_net_get_signal_levels(nullptr, 1, &level, &level, &level), -1);
}

}  // namespace
