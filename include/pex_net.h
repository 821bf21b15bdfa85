// Stateless queries about the station's network state. IPv4 addresses in network byte order.
// Any thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct pex_net_route {
    in_addr dst;
    in_addr src;
    in_addr gateway;
    char ifname[16];
};
struct nlmsghdr;

// Address, mask and hardware address of an interface. 0, or -1 with the output zeroed.
int pex_net_get_ip(const char *ifname, uint32_t *address);
int pex_net_get_subnet_mask(const char *ifname, uint32_t *mask);
int pex_net_get_hwaddr(const char *ifname, uint8_t *hwaddr);

// The first `capacity` IPv4 name servers of /etc/resolv.conf. 0 or -1.
int pex_net_get_nameservers(uint32_t *servers, int capacity);

// Reads a route dump into 2048 bytes; the bytes gathered, or -1.
int pex_net_read_nl_sock(int socket, char *buffer, uint32_t sequence, uint32_t port_id);

// Takes one IPv4 route of the main table apart. 0 or -1.
int pex_net_parse_routes(const nlmsghdr *message, pex_net_route *route);

// The default gateway, 0 when there is none; also as text when `text` is not null.
uint32_t pex_net_get_gatewayip(char *text, size_t size);

int pex_net_get_noise(int8_t *noise);  // dBm, -90 when unknown; 0 or -1

// Signal and noise in dBm (-128 and -90 when unknown) and their difference. Not connected: -90, -90
// and 0. 0, or -1 for a null argument.
int pex_net_get_signal_levels(const char *ifname, int connected, int8_t *signal, int8_t *snr,
                              int8_t *noise);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

int pex_net_get_bss_noise(int8_t *noise);  // of the current BSS; 0 or -1
