// The settings, in a file system in memory: the daemon's own share of a read.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>

#include "kvs_json.h"
#include "owned.h"
#include "pex_kvs.h"

namespace {

constexpr char kKey[] = "network.ssid";
constexpr char kValue[] = "686F6D65206E6574776F726B";

void ReadSetting(benchmark::State &state) {
    pex_kvs_set_key(kKey, kValue, strlen(kValue));
    std::array<char, 256> value;
    for (auto _ : state) {
        size_t length = value.size();
        if (pex_kvs_get_key(kKey, value.data(), &length) != 0)
            state.SkipWithError("the setting is not there");
    }
}
BENCHMARK(ReadSetting);

void ReadSettingAsJson(benchmark::State &state) {
    pex_kvs_set_key(kKey, kValue, strlen(kValue));
    for (auto _ : state) {
        json_t *value = nullptr;
        if (kvs_get_json_from_key(kKey, 2, &value) != 0)
            state.SkipWithError("the setting is not there");
        const Json released(value);
    }
}
BENCHMARK(ReadSettingAsJson);

void ReadMissingSetting(benchmark::State &state) {
    std::array<char, 256> value;
    for (auto _ : state) {
        size_t length = value.size();
        benchmark::DoNotOptimize(pex_kvs_get_key("robot.name", value.data(), &length));
    }
}
BENCHMARK(ReadMissingSetting);

}  // namespace
