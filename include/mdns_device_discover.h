// Finds the home devices that announce themselves by multicast DNS.
#pragma once

// Thread body: after each start of tracking three rounds of browsing fill the census, one every 3 s
// and the time that it takes.
void *mdns_discovery_main(void *unused);
