// What the air brings: events, and the texts made of and masked in them.
#include <benchmark/benchmark.h>

#include <array>
#include <string>

#include "monitor_main.h"
#include "owned.h"
#include "pex_misc.h"

namespace {

void SupplicantEvent(benchmark::State &state, const std::string &datagram) {
    for (auto _ : state)
        benchmark::DoNotOptimize(wlan_monitor_parse(datagram.c_str()));
}
BENCHMARK_CAPTURE(
    SupplicantEvent, connected,
    "IFNAME=wlan0 <3>CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:01:00 completed");
BENCHMARK_CAPTURE(SupplicantEvent, dropped, "<3>CTRL-EVENT-BSS-ADDED 17 02:00:00:00:01:00");
BENCHMARK_CAPTURE(SupplicantEvent, longest, "<3>" + std::string(4092, 'C'));

void MaskAddress(benchmark::State &state) {
    std::array<char, 128> text;
    for (auto _ : state) {
        std::string("Trying to associate with 02:00:00:00:01:00 (SSID='home' freq=2412 MHz)\n")
            .copy(text.data(), text.size() - 1);
        benchmark::DoNotOptimize(pex_hide_mac_addr(text.data(), 6));
    }
}
BENCHMARK(MaskAddress);

// Once for each saved or provisioned network: 4096 rounds, so it is slow on purpose.
void PassphraseToPsk(benchmark::State &state) {
    std::array<char, 65> psk;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            wpa_passphrase("home network", "a rather long passphrase", psk.data(), psk.size()));
}
BENCHMARK(PassphraseToPsk)->Unit(benchmark::kMillisecond);

void HexThereAndBack(benchmark::State &state) {
    const std::string ssid(32, 'S');
    for (auto _ : state) {
        const MallocText hex(hex_encode_str_malloc(ssid.data(), ssid.size()));
        const MallocText bytes(hex_decode_str_malloc(hex.get()));
        benchmark::DoNotOptimize(bytes.get());
    }
}
BENCHMARK(HexThereAndBack);

}  // namespace
